#pragma once

#include <windows.h>

#include <functional>

namespace corvel {

/// Asks the running modem through the Mobile Broadband API to reboot into flash mode, and waits for its
/// answers. Enters the multithreaded apartment for as long as it takes, which may be minutes.
///
/// `isAbandoned` is asked before every step that reaches the modem: a newer attempt may be flashing it, so
/// a run that was given up sends nothing more and ends as a failure. Runs may overlap; they share the sink.
///
/// @return S_OK when the modem took the command, or when its session was opened but never reported open; a
///         failure otherwise.
HRESULT RebootModemThroughMobileBroadband(const std::function<bool()>& isAbandoned);

}  // namespace corvel
