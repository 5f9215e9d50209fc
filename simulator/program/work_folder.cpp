#include "simulator/program/work_folder.h"

#include <windows.h>

#include <atomic>
#include <mutex>
#include <stdexcept>

#include "hosts/common/owners.h"
#include "hosts/common/text.h"
#include "simulator/program/exit_status.h"
#include "simulator/program/start_process.h"

namespace simulator {

namespace {

constexpr const wchar_t* kLibraries[] = {L"CorvelToolKit.dll", L"Firmwareflashdownload.dll"};
constexpr wchar_t kLogFile[] = L"FlashServiceDebugLogger_DLL.log";
constexpr unsigned kStopped = 3;
constexpr auto kEndedByCtrlC = static_cast<DWORD>(ExitStatus::Interrupted);

[[noreturn]] void Fail(const std::string& what) {
  const DWORD error = ::GetLastError();
  throw std::runtime_error(what + ": " + hosts::SystemErrorText(error));
}

std::filesystem::path TemporaryFolder() {
  static std::atomic<int> count{0};
  return std::filesystem::temp_directory_path() / L"corvel_simulator" /
         (std::to_wstring(::GetCurrentProcessId()) + L"-" + std::to_wstring(++count));
}

/// A copy: a link could not be removed while the program that it is a link to runs.
void Bring(const std::filesystem::path& file, const std::filesystem::path& to) {
  if (!::CopyFileW(file.c_str(), to.c_str(), FALSE)) Fail("the work folder cannot be filled");
}

std::wstring CommandLine(const std::filesystem::path& program, const std::vector<std::wstring>& arguments) {
  std::wstring line = L"\"" + program.wstring() + L"\"";
  for (const std::wstring& argument : arguments) line += L" \"" + argument + L"\"";
  return line;
}

hosts::OwnedHandle OutputFile(const std::filesystem::path& path) {
  SECURITY_ATTRIBUTES inherited{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  const HANDLE file = ::CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherited, CREATE_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) Fail("the output file cannot be written");
  return hosts::OwnedHandle(file);
}

hosts::OwnedHandle Start(const std::filesystem::path& program, const std::vector<std::wstring>& arguments,
                         const std::filesystem::path& output) {
  // One at a time: a child inherits whatever may be inherited at that moment, another's output included.
  static std::mutex oneAtATime;
  const std::lock_guard lock(oneAtATime);

  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  hosts::OwnedHandle file;
  if (!output.empty()) {
    file = OutputFile(output);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = ::GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = file.get();
    startup.hStdError = file.get();
  }
  PROCESS_INFORMATION child{};
  if (!StartProcess(program, CommandLine(program, arguments), program.parent_path(), startup, child)) {
    Fail("the program cannot be started in its work folder");
  }
  ::CloseHandle(child.hThread);
  return hosts::OwnedHandle(child.hProcess);
}

}  // namespace

WorkFolder::WorkFolder(const std::filesystem::path& folder)
    : m_Path(folder.empty() ? TemporaryFolder() : std::filesystem::absolute(folder)) {
  const std::filesystem::path program = hosts::ProgramPath();
  std::filesystem::remove_all(m_Path);
  std::filesystem::create_directories(m_Path);
  m_Program = m_Path / program.filename();
  Bring(program, m_Program);
  for (const wchar_t* library : kLibraries) Bring(program.parent_path() / library, m_Path / library);
}

WorkFolder::~WorkFolder() {
  if (m_Leave == Leave::All) return;
  std::error_code ignored;
  if (m_Leave == Leave::Nothing) {
    std::filesystem::remove_all(m_Path, ignored);
    return;
  }
  for (const auto& entry : std::filesystem::directory_iterator(m_Path, ignored)) {
    if (entry.path().filename() != kLogFile) std::filesystem::remove_all(entry.path(), ignored);
  }
}

ChildResult RunChild(const std::filesystem::path& program, const std::vector<std::wstring>& arguments,
                     std::chrono::milliseconds limit, const std::filesystem::path& output,
                     void* interruption) {
  const hosts::OwnedHandle process = Start(program, arguments, output);
  const HANDLE signals[] = {process.get(), interruption};
  const DWORD count = interruption != nullptr ? 2 : 1;
  const DWORD signal = ::WaitForMultipleObjects(count, signals, FALSE, static_cast<DWORD>(limit.count()));
  ChildResult result;
  result.ended = signal == WAIT_OBJECT_0;
  if (!result.ended) {
    ::TerminateProcess(process.get(), kStopped);
    ::WaitForSingleObject(process.get(), INFINITE);
  }
  ::GetExitCodeProcess(process.get(), &result.exitCode);
  // Ctrl+C goes to both programs, and the child may be the first to deal with it.
  result.interrupted = signal == WAIT_OBJECT_0 + 1 || result.exitCode == kEndedByCtrlC;
  return result;
}

}  // namespace simulator
