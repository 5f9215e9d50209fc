#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <functional>

/// Sends one AT command to the modem's serial port, and can read the reply. The critical section serialises
/// opening, writing and reading, and whole exchanges with their close; the instance is made while the module
/// is loaded and never destroyed.
class ATProcessor {
 public:
  static ATProcessor* GetInstance();
  ATProcessor(const ATProcessor&) = delete;
  ATProcessor& operator=(const ATProcessor&) = delete;

  /// Finds the port, opens it, writes the command, reads the reply if asked for, closes the port. A port
  /// that cannot be opened leaves the section owned by this thread.
  /// @param responseLength room in `response`; then the number of bytes read.
  /// @return 0 when the command was written (and, if asked for, the reply read), -1 otherwise.
  int sendATCmd(const char* command, std::uint32_t length, char* response, std::uint32_t* responseLength);
  /// The same for somebody who may be given up meanwhile, for waiting for the section and opening may take
  /// any time. `isAbandoned` is asked before the open and before the write.
  /// @return -1 as well when it was given up, with nothing written and the port closed.
  int sendATCmd(const char* command, std::uint32_t length, char* response, std::uint32_t* responseLength,
                const std::function<bool()>& isAbandoned);

  /// The number of the first present COM port of an enumerator and device id ("USB\VID_..."): all digits
  /// of its friendly name run together. @return 0 when it cannot be found.
  int findComPort(const wchar_t* filter);

  /// Opens and configures a port such as "\\.\COM3". A failed call leaves the section owned by this thread,
  /// and the port open if it was the configuration that failed.
  bool openPort(const char* fileName);
  void closePort();

  bool writeCmd(const char* command, std::uint32_t length);

  /// Reads until OK, ERROR, a full buffer or 5 s are over.
  /// @param length room in `buffer`; then the number of bytes read.
  /// @return always 0.
  int readResponse(char* buffer, std::uint32_t* length);

  /// Sends "at" and looks for OK in the reply. Always false, as reading always answers 0.
  bool verifyATExcutable();

  /// Number of received bytes that wait to be read; 0 when that cannot be told.
  std::uint32_t bytesWaiting();
  /// Reads one byte. @return false when there was none, or when reading failed and the port was purged.
  bool readByte(char* byte);

 protected:
  ATProcessor();
  ~ATProcessor() = default;

 private:
  int Exchange(const char* fileName, const char* command, std::uint32_t length, char* response,
               std::uint32_t* responseLength, const std::function<bool()>& isAbandoned);
  bool ConfigurePort();
  std::uint32_t ReadBatch(std::uint32_t waiting, char* buffer, std::uint32_t room);

  std::atomic<HANDLE> m_Port{INVALID_HANDLE_VALUE};
  CRITICAL_SECTION m_Section;
};
