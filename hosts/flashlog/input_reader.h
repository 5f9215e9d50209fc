#pragma once

#include <windows.h>

#include <memory>
#include <string>

namespace hosts::flashlog {

/// Reads standard input on a thread of its own, so that nobody has to wait for those who write to it. One per
/// process; the thread stays in its read until that returns or the process ends.
class InputReader {
 public:
  InputReader();

  /// Whether Take() would not wait: there are bytes, or the end.
  bool IsReady() const;
  /// Waits for bytes and puts those in the place of what `bytes` holds; none at the end.
  /// @return the system's error that the end came with.
  DWORD Take(std::string& bytes);

 private:
  struct Shared;

  static void ReadToTheEnd(HANDLE input, Shared& shared);

  std::shared_ptr<Shared> m_Shared;
};

}  // namespace hosts::flashlog
