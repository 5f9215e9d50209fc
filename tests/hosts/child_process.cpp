#include "tests/hosts/child_process.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "simulator/program/start_process.h"

namespace hosts {

namespace {

constexpr UINT kEndedByTest = 254;
void* const kInterruptEvent = reinterpret_cast<void*>(ULONG_PTR{CTRL_C_EVENT});
constexpr std::chrono::milliseconds kLookPeriod{20};

std::wstring CommandLine(const std::filesystem::path& program, const std::vector<std::wstring>& arguments) {
  std::wstring line = L"\"" + program.wstring() + L"\"";
  for (const std::wstring& argument : arguments) line += L" \"" + argument + L"\"";
  return line;
}

}  // namespace

ChildProcess::Collector::Collector() {
  SECURITY_ATTRIBUTES inherited{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  HANDLE read = nullptr;
  HANDLE write = nullptr;
  if (!::CreatePipe(&read, &write, &inherited, 0)) throw std::runtime_error("no pipe for a child's output");
  ::SetHandleInformation(read, HANDLE_FLAG_INHERIT, 0);
  m_Read.reset(read);
  m_Write.reset(write);
}

ChildProcess::Collector::~Collector() {
  if (m_Thread.joinable()) m_Thread.join();
}

void ChildProcess::Collector::Begin() {
  m_Write.reset();
  m_Thread = std::thread([this] {
    std::array<char, 4096> part{};
    for (DWORD size = 0; ::ReadFile(m_Read.get(), part.data(), part.size(), &size, nullptr);) {
      const std::lock_guard lock(m_Mutex);
      m_Text.append(part.data(), size);
    }
  });
}

void ChildProcess::Collector::WaitForEnd() {
  if (m_Thread.joinable()) m_Thread.join();
}

std::string ChildProcess::Collector::Text() {
  const std::lock_guard lock(m_Mutex);
  return m_Text;
}

ChildProcess::ChildProcess(const std::filesystem::path& program, const std::vector<std::wstring>& arguments,
                           const std::filesystem::path& folder) {
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdOutput = m_Output.WriteEnd();
  startup.hStdError = m_Errors.WriteEnd();
  const std::filesystem::path startFolder = folder.empty() ? program.parent_path() : folder;
  PROCESS_INFORMATION child{};
  if (!simulator::StartProcess(program, CommandLine(program, arguments), startFolder, startup, child)) {
    ThrowLastError("a host cannot be started");
  }
  ::CloseHandle(child.hThread);
  m_Process.reset(child.hProcess);
  m_Output.Begin();
  m_Errors.Begin();
}

ChildProcess::~ChildProcess() {
  if (m_Process != nullptr && ::WaitForSingleObject(m_Process.get(), 0) == WAIT_TIMEOUT) {
    ::TerminateProcess(m_Process.get(), kEndedByTest);
  }
}

std::optional<int> ChildProcess::WaitForEnd(std::chrono::milliseconds limit) {
  if (::WaitForSingleObject(m_Process.get(), static_cast<DWORD>(limit.count())) != WAIT_OBJECT_0) {
    return std::nullopt;
  }
  m_Output.WaitForEnd();
  m_Errors.WaitForEnd();
  DWORD status = 0;
  ::GetExitCodeProcess(m_Process.get(), &status);
  return static_cast<int>(status);
}

bool ChildProcess::Await(const std::function<bool()>& isSo, std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!isSo() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(kLookPeriod);
  return isSo();
}

bool ChildProcess::Says(const std::string& text, std::chrono::milliseconds limit) {
  return Await([&] { return (Output() + Errors()).find(text) != std::string::npos; }, limit);
}

bool ChildProcess::SaysLines(std::size_t count, std::chrono::milliseconds limit) {
  const auto lines = [this] { return static_cast<std::size_t>(std::ranges::count(Output(), '\n')); };
  return Await([&] { return lines() >= count; }, limit);
}

void ChildProcess::Kill() const {
  if (!::TerminateProcess(m_Process.get(), kEndedByTest)) ThrowLastError("a host cannot be ended");
  ::WaitForSingleObject(m_Process.get(), INFINITE);
}

bool ChildProcess::Interrupt() const {
  // What the system itself starts in each process of a console. Going by the console is no choice: there may
  // be none, and it would interrupt the test too.
  const auto deliver = reinterpret_cast<LPTHREAD_START_ROUTINE>(
      ::GetProcAddress(::GetModuleHandleW(L"kernelbase.dll"), "CtrlRoutine"));
  const OwnedHandle thread(
      ::CreateRemoteThread(m_Process.get(), nullptr, 0, deliver, kInterruptEvent, 0, nullptr));
  return thread != nullptr;
}

RunResult RunToEnd(const std::filesystem::path& program, const std::vector<std::wstring>& arguments,
                   const std::filesystem::path& folder) {
  ChildProcess child(program, arguments, folder);
  RunResult result;
  result.exitCode = child.WaitForEnd();
  result.output = child.Output();
  result.errors = child.Errors();
  return result;
}

}  // namespace hosts
