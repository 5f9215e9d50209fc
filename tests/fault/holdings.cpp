#include "fault/holdings.h"

#include <windows.h>

#include <tlhelp32.h>

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

Holdings CountHoldings() {
  Holdings holdings{ThreadsOfThisProcess(), HandlesOfThisProcess()};
  holdings.handles.erase(L"Key");
  return holdings;
}

Holdings SettledHoldings(const Holdings& expected) {
  Holdings now = CountHoldings();
  for (int looks = 0; looks < kLooks && !Grown(expected, now).empty(); ++looks) {
    ::Sleep(kPauseBetweenLooks);
    now = CountHoldings();
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
  return text;
}

}  // namespace campaign
