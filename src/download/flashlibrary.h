#pragma once

#include <windows.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "common/handles.h"

namespace corvel {

/// Length of the buffers into which the flashing library writes readable reasons.
inline constexpr std::size_t kStatusTextSize = 512;

/// A status text with one byte more than the library knows of, so that it always ends.
using StatusText = std::array<char, kStatusTextSize + 1>;

/// The exports of the flashing library, in the order of the table.
enum class FlashSlot : std::size_t {
  BootTarget,
  CloseCommPort,
  DownloadCustFile,
  DownloadDffsFile,
  DownloadFlsFile,
  ForceTargetReset,
  GetSysVersion,
  GetNextFreeChannel,
  GetNofProgressBars,
  InitCallback,
  OpenCommPort,
  SetDllParameter,
  TocGetFlashTechnology,
  TocGetMemoryClass,
  TocGetNofItems,
  OutOfSessionComm,
  Count,
};

/// The bound functions; null where the library lacks one. Numbers that the library may take pointer-wide
/// (a parameter value, trailing zeros) are passed pointer-wide.
class FunctionTable {
 public:
  using Callback = void(std::uint8_t channel, std::int32_t status, const char* statusText);

  FARPROC& operator[](FlashSlot slot) { return m_Slots[static_cast<std::size_t>(slot)]; }
  FARPROC operator[](FlashSlot slot) const { return m_Slots[static_cast<std::size_t>(slot)]; }

  auto BootTarget() const {
    return Typed<int(std::uint8_t channel, const char* bootFile, std::uint32_t* word, char* status)>(
        FlashSlot::BootTarget);
  }
  auto CloseCommPort() const {
    return Typed<int(std::uint8_t channel, char* status)>(FlashSlot::CloseCommPort);
  }
  auto DownloadCustFile() const {
    return Typed<int(std::uint8_t channel, const char* tocName, char* status)>(FlashSlot::DownloadCustFile);
  }
  auto DownloadDffsFile() const {
    return Typed<int(std::uint8_t channel, const char* tocName, std::uint8_t partition, char* status)>(
        FlashSlot::DownloadDffsFile);
  }
  auto DownloadFlsFile() const {
    return Typed<int(std::uint8_t channel, const char* tocName, char* status)>(FlashSlot::DownloadFlsFile);
  }
  auto ForceTargetReset() const {
    return Typed<int(std::uint8_t channel, std::uint8_t, std::uint8_t, std::uint8_t, std::uint8_t,
                     char* status)>(FlashSlot::ForceTargetReset);
  }
  auto GetNextFreeChannel() const { return Typed<std::uint8_t()>(FlashSlot::GetNextFreeChannel); }
  auto GetNofProgressBars() const {
    return Typed<std::uint32_t(std::uint8_t channel, const char* tocName, std::uintptr_t)>(
        FlashSlot::GetNofProgressBars);
  }
  auto InitCallback() const { return Typed<int(Callback * callback, char* status)>(FlashSlot::InitCallback); }
  auto OpenCommPort() const {
    return Typed<int(std::uint8_t channel, const char* port, const char* samePort, std::uint32_t baudRate,
                     char* status)>(FlashSlot::OpenCommPort);
  }
  auto SetDllParameter() const {
    return Typed<int(std::uint8_t id, std::uintptr_t value, char* status)>(FlashSlot::SetDllParameter);
  }
  auto TocGetFlashTechnology() const {
    return Typed<int(const char* file, std::uint32_t* technology, char* status)>(
        FlashSlot::TocGetFlashTechnology);
  }
  auto TocGetMemoryClass() const {
    return Typed<int(const char* file, std::uint32_t index, std::uint32_t* memoryClass, char* status)>(
        FlashSlot::TocGetMemoryClass);
  }
  auto TocGetNofItems() const {
    return Typed<int(const char* file, std::uint32_t* count, char* status)>(FlashSlot::TocGetNofItems);
  }
  auto OutOfSessionComm() const {
    return Typed<int(std::uint8_t channel, std::uintptr_t, std::uintptr_t, std::uintptr_t, std::uintptr_t,
                     std::uintptr_t)>(FlashSlot::OutOfSessionComm);
  }

 private:
  template <typename Function>
  Function* Typed(FlashSlot slot) const {
    return reinterpret_cast<Function*>((*this)[slot]);
  }

  std::array<FARPROC, static_cast<std::size_t>(FlashSlot::Count)> m_Slots{};
};

/// One binding of the flashing library, shared by all who may still be inside it: an attempt that was given
/// up goes on using the functions and buffers that it began with, in a module that stays loaded for it.
struct FlashLibrary {
  FunctionTable functions;
  UniqueModule module;
};

}  // namespace corvel
