#pragma once

// Catch2 3 has many headers, Catch2 2 one with all in it.
#if __has_include(<catch2/catch_all.hpp>)
#include <catch2/catch_all.hpp>
#else
#include <catch2/catch.hpp>
#endif
