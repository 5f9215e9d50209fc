#pragma once

#include <string>
#include <vector>

namespace hosts {

/// Keeps the debug log of the run before: each start of a host empties it, and with it what a failed flash
/// has written. The log is given a name with the time of its last record, and of such kept ones the newest
/// five stay; of the runs that failed before they could serve, the last one. Call it before anything can
/// write the log.
/// @param log full path of the log.
/// @return what went wrong, in words; empty when nothing did, or there was nothing to keep.
std::string KeepLastLog(const std::wstring& log);

/// Full paths of a debug log and of all that are kept of it, as far as they are there.
std::vector<std::wstring> LogAndKeptOnes(const std::wstring& log);

/// Full path of the log that the library writes in service use.
std::wstring ServiceLogPath();

}  // namespace hosts
