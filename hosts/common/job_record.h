#pragma once

#include <string>

#include "hosts/common/finished_job.h"

namespace hosts {

/// Leaves what there is to know of a finished job behind: an entry in the Windows event log and a line in the
/// history.
/// @param host who flashed, as the history names it: "service", "console" or "cmdline".
/// @return what went wrong, in words; empty when nothing did. It is in the event log as well.
std::string LeaveRecord(const std::string& host, const FinishedJob& job);

}  // namespace hosts
