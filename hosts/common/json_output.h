#pragma once

#include <nlohmann/json.hpp>

namespace hosts {

enum class JsonLayout { Indented, OneLine };

/// Prints one document on standard output. Text that is no UTF-8 does not spoil it.
void PrintJson(const nlohmann::ordered_json& document, JsonLayout layout = JsonLayout::Indented);

}  // namespace hosts
