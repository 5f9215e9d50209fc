#include "simulator/program/start_process.h"

namespace simulator {

bool StartProcess(const std::filesystem::path& program, const std::wstring& line,
                  const std::filesystem::path& folder, STARTUPINFOW& startup, PROCESS_INFORMATION& child) {
  constexpr int kTries = 5;
  // Wine starts now and then a process that ends before it begins, and says so by this error.
  for (int tries = 0; tries < kTries; ++tries) {
    std::wstring words = line;
    if (::CreateProcessW(program.c_str(), words.data(), nullptr, nullptr, TRUE, 0, nullptr, folder.c_str(),
                         &startup, &child)) {
      return true;
    }
    if (::GetLastError() != ERROR_INTERNAL_ERROR) return false;
  }
  return false;
}

}  // namespace simulator
