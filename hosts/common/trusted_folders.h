#pragma once

namespace hosts {

/// Lets this process load libraries from its program's folder and from the system's, and from nowhere else:
/// what lies in the current folder or on the PATH was put there by anybody. For libraries that are named by a
/// full path it holds for those that they need in turn. To be called before anything is loaded.
/// @throws std::system_error when the system refuses.
void LoadFromTrustedFoldersOnly();

}  // namespace hosts
