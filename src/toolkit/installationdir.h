#pragma once

#include "common/tstring.h"

/// What ToolKit::GetInstallationDir hands out, for the library's own use. Empty when the path cannot be had;
/// lack of memory throws std::bad_alloc, so that it never passes for that: a path made from an empty folder
/// would be looked for elsewhere.
CTString InstallationDir();
