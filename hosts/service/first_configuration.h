#pragma once

#include <string>

namespace hosts {

/// What a first configuration says otherwise than the sample does; an empty text leaves the sample's.
struct FirstSettings {
  std::wstring registryKey;  ///< a root and a key below it
  std::wstring bus;          ///< "USB" or "PCIE"
  std::wstring images;       ///< a folder
};

enum class Configured { Now, Before };

/// Makes "CorvelConfig.ini" beside the program from the sample that the program holds. One that is there
/// stays as it is. Throws std::invalid_argument for a setting that the file cannot hold or the library would
/// read otherwise, and std::system_error when the file cannot be written.
Configured Configure(const FirstSettings& settings);

/// Notes in the installer's own key what the configuration beside the program says of key, bus and folder of
/// the images, in the words of the installer's properties. What these could not say is deleted there.
/// Throws std::system_error when that cannot be done.
void RememberForInstaller();

/// Deletes what the hosts leave in their folder, which ends with a separator: configuration, logs, history.
/// Throws std::system_error for what cannot be deleted.
void DeleteWhatHostsLeave(const std::wstring& folder);

}  // namespace hosts
