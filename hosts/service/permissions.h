#pragma once

#include <string>
#include <vector>

namespace hosts {

/// Leaves writing to administrators and the system in the program's folder, the folder of the images and the
/// key of the handshake, as the configuration names them, and gives the two folders to administrators: who
/// can write there has the service's rights.
/// @return what could not be done, or is open to others all the same, in words for people. The event log has
/// it, too.
std::vector<std::string> ProtectInstallation();

}  // namespace hosts
