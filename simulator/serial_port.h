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
class VirtualModem;

/// The AT port while the product has it open.
class OpenAtPort : public SimulatedDevice {
 public:
  /// @param modem whose port was taken for this one; it is given back with it.
  explicit OpenAtPort(VirtualModem& modem);
  ~OpenAtPort() override;
  OpenAtPort(const OpenAtPort&) = delete;
  OpenAtPort& operator=(const OpenAtPort&) = delete;

  /// As the system's calls of these names; the modem hears what is written and its replies can be read.
  BOOL Write(std::span<const std::uint8_t> bytes, LPDWORD written);
  BOOL Read(std::span<char> bytes, LPDWORD read);
  DWORD Waiting();
  void Clear();

  DCB settings{};

 private:
  VirtualModem& m_Modem;
  Lock m_Mutex;
  std::string m_Replies;
};

/// Opens "\\.\COMn". @return as OpenDriver does.
std::optional<HANDLE> OpenSerialPort(Machine& machine, const std::string& path);

/// Answers reads, writes and settings of the AT port.
void PatchSerialPort(ImportPatch& patch);

}  // namespace simulator
