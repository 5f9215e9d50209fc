#pragma once

#include <cstdint>

/// Sends one AT command to the modem's serial port, and can read the reply.
class ATProcessor {
 public:
  static ATProcessor* GetInstance();
  /// @return 0 when the command was written (and, if asked for, the reply read), -1 otherwise.
  int sendATCmd(const char* command, std::uint32_t length, char* response, std::uint32_t* responseLength);
};
