#pragma once

#include <vector>

#include "hosts/cmdline/finding.h"
#include "hosts/common/library_configuration.h"

namespace hosts {

/// Warnings about all in the file that the library may read differently from what its writer meant. An error
/// of the file, such as a missing folder, is not among them.
std::vector<Finding> AdviseOnConfiguration(const LibraryConfiguration& configuration);

}  // namespace hosts
