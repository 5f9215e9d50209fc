#include "fault/holdings.h"

#include <windows.h>

#include <tlhelp32.h>

#include <cstdint>

#include "hosts/common/text.h"

namespace campaign {

namespace {

// A look takes long: it asks for every number that a handle may have.
constexpr int kLooks = 5;
constexpr DWORD kPauseBetweenLooks = 200;

int ThreadsOfThisProcess() {
  const HANDLE snapshot = ::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  THREADENTRY32 entry{};
  entry.dwSize = sizeof entry;
  int count = 0;
  for (BOOL more = ::Thread32First(snapshot, &entry); more; more = ::Thread32Next(snapshot, &entry)) {
    if (entry.th32OwnerProcessID == ::GetCurrentProcessId()) ++count;
  }
  ::CloseHandle(snapshot);
  return count;
}

}  // namespace

Holdings CountHoldings(Service& service) {
  // First, so that a read between the two looks is not taken for a key too much.
  const std::size_t leftOpen = Service::KeysLeftOpenByReads();
  constexpr std::uintptr_t kOthers = 32768;
  constexpr std::uintptr_t kStep = 4;
  Holdings holdings{ThreadsOfThisProcess(), HandlesOfThisProcess(kOthers + kStep * leftOpen),
                    OwnedMemory::Now(), service.Pc().MobileBroadband().LiveObjects()};
  holdings.handles[L"Key"] -= static_cast<int>(leftOpen);
  return holdings;
}

Holdings SettledHoldings(Service& service, const Holdings& expected) {
  Holdings now = CountHoldings(service);
  for (int looks = 0; looks < kLooks && !Grown(expected, now).empty(); ++looks) {
    ::Sleep(kPauseBetweenLooks);
    now = CountHoldings(service);
  }
  return now;
}

std::string Grown(const Holdings& before, const Holdings& now) {
  std::string text;
  if (now.threads > before.threads) text += " threads +" + std::to_string(now.threads - before.threads);
  for (const auto& [type, count] : now.handles) {
    const auto found = before.handles.find(type);
    const int more = count - (found == before.handles.end() ? 0 : found->second);
    if (more > 0) text += " " + hosts::ToUtf8(type) + " +" + std::to_string(more);
  }
  if (now.objects > before.objects) text += " objects +" + std::to_string(now.objects - before.objects);
  if (now.memory.blocks > before.memory.blocks)
    text += " memory +" + std::to_string(now.memory.blocks - before.memory.blocks);
  return text;
}

}  // namespace campaign
