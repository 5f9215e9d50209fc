#pragma once

#include <string>

#include "hosts/common/handshake.h"

namespace hosts {

std::wstring ConfigurationPath();
/// Where the debug log of a flash goes, and the name that the library takes for it; that name is empty when
/// the system's code page has none, and then there is no log.
std::wstring LogPath();
std::string AnsiLogPath();
/// The key that the library uses for this host, whatever the configuration says.
HandshakeKey CommandLineKey();

/// The images that a flash would take from a folder; paths are empty where there is none.
struct FolderImages {
  bool folderExists = false;
  /// There may be images, but the folder could not be listed to its end, and then none is taken.
  bool brokeOff = false;
  std::wstring modem;
  std::wstring nvm;

  bool Any() const { return !modem.empty() || !nvm.empty(); }
};
FolderImages LookForImages(const std::wstring& folder);

}  // namespace hosts
