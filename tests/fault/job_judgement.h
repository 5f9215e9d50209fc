#pragma once

#include <optional>
#include <string>

#include "fault/campaign_service.h"
#include "hosts/common/handshake.h"
#include "simulator/virtual_modem.h"

namespace campaign {

/// What of the end of a job the contract does not allow, in words; empty when it allows all of it.
std::string WhatIsWrongWith(const JobEnd& end);
/// The same of a job in which nothing fails.
std::string WhatIsWrongWithSound(const JobEnd& end);

/// The same of a service that begins where another process has ended, once it waits for a request: what stood
/// then is done, and what did not is not told of again.
/// @param before the values that it has found.
std::string WhatIsWrongWithGoingOn(const hosts::Handshake& before, const JobEnd& end);

/// Whether a job of the command line could not go on: it ends with the request standing, and less than a
/// result.
bool IsBrokenOff(const JobEnd& end);
/// What the job of the command line leaves that its host cannot deal with.
std::string WhatIsWrongWithCommandLine(const JobEnd& end);

/// How the program corvel_cmdline.exe has ended, and what it leaves.
struct ProgramEnd {
  std::optional<unsigned long> exitCode;  ///< nothing when it did not end
  hosts::Handshake values;
  std::optional<simulator::ModemState> modem;  ///< at rest; nothing when the program was broken off
  unsigned hits = 0;                           ///< calls that were made to fail
  bool wasModemTouched = false;
  bool isMemoryEqual = false;
  bool isImageLeft = false;
};
/// What its exit status should not have said, in words; empty when it tells the truth.
std::string WhatIsWrongWith(const ProgramEnd& end);
/// The same of a flash in which nothing fails.
std::string WhatIsWrongWithSound(const ProgramEnd& end);

}  // namespace campaign
