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

/// Undoes that for the key which the configuration in the folder names: one that ProtectInstallation made
/// goes, one that was there before is left to whom its parent leaves it.
/// @return what could not be done, in words for people; empty: nothing.
std::string ReleaseHandshakeKey(const std::wstring& folder);

/// Deletes the key that the command line's first flash makes, if the folder's history tells that there was a
/// flash, no other keys lie below it and it is not the service's, too.
/// @return what could not be done, in words for people; empty: nothing.
std::string ReleaseCommandLineKey(const std::wstring& folder);

}  // namespace hosts
