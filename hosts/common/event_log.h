#pragma once

#include <windows.h>

#include <string>

namespace hosts {

/// Registers this program as the source of the service's messages. @return the Win32 error, 0 on success.
DWORD RegisterEventSourceMessages();
void UnregisterEventSourceMessages();

/// Writes one message of the message table to the Windows event log. Losing it is no failure.
void WriteEvent(DWORD message, const std::wstring& insertion = {});

}  // namespace hosts
