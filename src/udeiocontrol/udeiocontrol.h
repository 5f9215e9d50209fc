#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <functional>

#include "common/handles.h"

namespace corvel {
struct DeviceList;
struct InterfaceOpening;
}  // namespace corvel

/// The channel to the driver that can pulse the modem's baseband reset line. It takes no lock: what is
/// opened belongs to one caller at a time, while TriggerFlashReset may run on several threads at once.
///
/// The one instance lies in static memory and is never destroyed, so it is there for whatever thread still
/// runs while the process ends.
class CUdeIoControl {
 public:
  static CUdeIoControl* GetInstance();
  CUdeIoControl(const CUdeIoControl&) = delete;
  CUdeIoControl& operator=(const CUdeIoControl&) = delete;

  /// Resets the baseband so that the modem comes up in flash mode. @return true when the request was sent.
  bool TriggerFlashReset();
  /// The same for somebody who may be given up meanwhile: opening may take as long as the driver likes, and a
  /// modem that somebody newer writes to must not be reset. `isAbandoned` is asked once the channel is open.
  /// @return false as well when it was given up, and no request sent.
  bool TriggerFlashReset(const std::function<bool()>& isAbandoned);

  /// Open the control or the flash interface, and close it again.
  /// @return false when the present interfaces could not be listed. True does not mean that one of them
  /// could be opened: if none could, the first request fails.
  bool OpenDevice();
  bool OpenFlashDevice();
  void CloseDevice();
  void CloseFlashDevice();
  bool OpenUdeDeviceInterface();
  bool OpenUdeDeviceFlashInterface();

  /// Sends one request to the opened device and gives it 3 s.
  /// @param output        filled when the request completes in time.
  /// @param bytesReturned required with an output; set to 1 when the request completed, to 0 when not.
  /// @return true when the driver took the request, whether or not it completed.
  bool SendSyncDeviceRequest(std::uint32_t code, const void* input, std::uint32_t inputSize, void* output,
                             std::uint32_t outputSize, std::uint32_t* bytesReturned);

  /// Waits for a pending request; without `waitForever` it is cancelled when it fails or takes over 3 s.
  /// It may still be pending after that, and `overlapped` in use.
  /// @return true when the request completed.
  bool RetrieveRequest(HANDLE device, OVERLAPPED* overlapped, bool waitForever);

  /// Closes a handle unless it is null.
  void TearDownDeviceInterface(HANDLE device);

 private:
  enum class Instance { Wanted, Other };

  constexpr CUdeIoControl() = default;

  bool OpenInterface(const corvel::InterfaceOpening& opening);
  static corvel::UniqueHandle OpenWantedInstance(const corvel::InterfaceOpening& opening,
                                                 const corvel::DeviceList& list);
  static corvel::UniqueHandle OpenInstance(const corvel::InterfaceOpening& opening, const wchar_t* path);
  static Instance Probe(const corvel::InterfaceOpening& opening, HANDLE device);

  static CUdeIoControl s_instance;

  /// Null when closed.
  std::atomic<HANDLE> m_Device{nullptr};
};
