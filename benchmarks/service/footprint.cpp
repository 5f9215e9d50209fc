#include "benchmarks/service/footprint.h"

#include <windows.h>

#include <psapi.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "hosts/common/owners.h"
#include "hosts/common/text.h"

namespace benchmarks {

namespace {

double Nanoseconds(const FILETIME& time) {
  constexpr double kTick = 100;
  return kTick * static_cast<double>((std::uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime);
}

// --- Windows ---------------------------------------------------------------------------------------------

// As the system lists processes and threads: published with reserved fields, known by everybody.
struct ListedThread {
  LARGE_INTEGER times[3];
  ULONG waitTime;
  void* startAddress;
  HANDLE process;
  HANDLE thread;
  LONG priority;
  LONG basePriority;
  ULONG contextSwitches;
  ULONG state;
  ULONG waitReason;
};
struct ListedProcess {
  ULONG nextEntry;
  ULONG threads;
  std::byte other[0x48];
  HANDLE id;
  std::byte others[0xA8];
};
static_assert(sizeof(ListedThread) == 0x50 && sizeof(ListedProcess) == 0x100);

std::vector<std::byte> ListOfProcesses() {
  using Query = LONG(NTAPI*)(int list, void* buffer, ULONG size, ULONG* needed);
  constexpr int kProcesses = 5;
  constexpr auto kTooSmall = static_cast<LONG>(0xC0000004);
  const auto query =
      reinterpret_cast<Query>(::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation"));
  for (std::size_t size = 1 << 20;; size *= 2) {
    std::vector<std::byte> list(size);
    const LONG result = query(kProcesses, list.data(), static_cast<ULONG>(size), nullptr);
    if (result >= 0) return list;
    if (result != kTooSmall) throw std::runtime_error("the system does not list its processes");
  }
}

std::uint64_t WakeUpsOf(const ListedProcess& process) {
  const std::span threads(reinterpret_cast<const ListedThread*>(&process + 1), process.threads);
  std::uint64_t wakeUps = 0;
  for (const ListedThread& thread : threads) {
    if (thread.thread != ULongToHandle(::GetCurrentThreadId())) wakeUps += thread.contextSwitches;
  }
  return wakeUps;
}

std::uint64_t WakeUpsListedBySystem() {
  const std::vector<std::byte> list = ListOfProcesses();
  for (const std::byte* at = list.data();;) {
    const auto& process = *reinterpret_cast<const ListedProcess*>(at);
    if (process.id == ULongToHandle(::GetCurrentProcessId())) return WakeUpsOf(process);
    if (process.nextEntry == 0) throw std::runtime_error("the system does not list this process");
    at += process.nextEntry;
  }
}

std::uint64_t PrivateBytesOfSystem() {
  PROCESS_MEMORY_COUNTERS_EX memory{};
  if (!::GetProcessMemoryInfo(::GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&memory),
                              sizeof memory)) {
    hosts::ThrowLastError("The system does not tell how much memory is private");
  }
  return memory.PrivateUsage;
}

// --- Wine, which tells neither. The system below it does -------------------------------------------------

bool RunsUnderWine() {
  return ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

/// The system below knows this process by the program's name, cut; the name up to there is this process's
/// alone.
std::filesystem::path FindEntryOfThisProcess() {
  constexpr std::size_t kLongestName = 15;
  const std::string name =
      std::filesystem::path(hosts::ProgramPath()).filename().string().substr(0, kLongestName);
  for (const auto& entry : std::filesystem::directory_iterator(L"Z:\\proc")) {
    std::string there;
    std::ifstream file(entry.path() / L"comm");
    if (std::getline(file, there) && there == name) return entry.path();
  }
  throw std::runtime_error("the system below Wine does not list " + name);
}

const std::filesystem::path& EntryOfThisProcess() {
  static const std::filesystem::path entry = FindEntryOfThisProcess();
  return entry;
}

/// The sum of the numbers in a list of labels and numbers whose label ends like that.
std::uint64_t SumIn(const std::filesystem::path& list, const std::string& label) {
  std::ifstream file(list);
  std::uint64_t sum = 0;
  for (std::string line; std::getline(file, line);) {
    const std::size_t colon = line.find(':');
    if (colon != std::string::npos && line.substr(0, colon).ends_with(label))
      sum += std::stoull(line.substr(colon + 1));
  }
  return sum;
}

std::uint64_t WakeUpsListedBelowWine() {
  std::uint64_t wakeUps = 0;
  for (const auto& thread : std::filesystem::directory_iterator(EntryOfThisProcess() / L"task")) {
    // The first thread has the number of the process; it is the one that asks.
    if (thread.path().filename() != EntryOfThisProcess().filename())
      wakeUps += SumIn(thread.path() / L"status", "ctxt_switches");
  }
  return wakeUps;
}

std::uint64_t PrivateBytesBelowWine() {
  constexpr std::uint64_t kKilobyte = 1024;
  return SumIn(EntryOfThisProcess() / L"status", "RssAnon") * kKilobyte;
}

}  // namespace

Footprint FootprintOfThisProcess() {
  FILETIME created{}, ended{}, kernel{}, user{};
  if (!::GetProcessTimes(::GetCurrentProcess(), &created, &ended, &kernel, &user))
    hosts::ThrowLastError("The system does not tell this process's time");
  return {.processorNanoseconds = Nanoseconds(kernel) + Nanoseconds(user),
          .wakeUps = RunsUnderWine() ? WakeUpsListedBelowWine() : WakeUpsListedBySystem(),
          .privateBytes = RunsUnderWine() ? PrivateBytesBelowWine() : PrivateBytesOfSystem()};
}

}  // namespace benchmarks
