#pragma once

#include <windows.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "simulator/simulated_handles.h"
#include "simulator/threads/lock.h"

namespace simulator {

class ImportPatch;
class Machine;

/// The AT port while the product has it open.
class OpenAtPort : public SimulatedDevice {
 public:
  /// As the system's calls of these names; the modem hears what is written and its replies can be read.
  BOOL Write(Machine& machine, std::span<const std::uint8_t> bytes, LPDWORD written);
  BOOL Read(std::span<char> bytes, LPDWORD read);
  DWORD Waiting();
  void Clear();

  DCB settings{};

 private:
  Lock m_Mutex;
  std::string m_Replies;
};

/// Opens "\\.\COMn". @return as OpenDriver does.
std::optional<HANDLE> OpenSerialPort(Machine& machine, const std::string& path);

/// Answers reads, writes and settings of the AT port.
void PatchSerialPort(ImportPatch& patch);

}  // namespace simulator
