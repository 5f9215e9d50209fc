#pragma once

/// The channel to the driver that can pulse the modem's baseband reset line.
class CUdeIoControl {
 public:
  static CUdeIoControl* GetInstance();
  /// Resets the baseband so that the modem comes up in flash mode. @return true when the request was sent.
  bool TriggerFlashReset();
};
