#pragma once

#include <string>
#include <vector>

namespace hosts {

/// Leaves writing to administrators and the system in the program's folder, the folder of the images and the
/// key of the handshake, as the configuration names them: who can write there has the service's rights.
/// @return what could not be done, or is open to users all the same, in words for people.
std::vector<std::string> ProtectInstallation();

}  // namespace hosts
