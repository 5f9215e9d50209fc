#include "hosts/cmdline/journal.h"

#include <array>
#include <cstdio>
#include <iostream>

#include "hosts/common/owners.h"
#include "hosts/common/terminal.h"
#include "hosts/common/text.h"
#include "hosts/common/text_layout.h"

namespace hosts {

namespace {

struct Journal {
  OwnedHandle file;
  bool showsDetails = false;
};

Journal& TheJournal() {
  static Journal journal;
  return journal;
}

/// Local time, as debug logs have it: both are read side by side.
std::string TimeText() {
  SYSTEMTIME now{};
  ::GetLocalTime(&now);
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%04d-%02d-%02d %02d:%02d:%02d.%03d  ", now.wYear, now.wMonth,
                now.wDay, now.wHour, now.wMinute, now.wSecond, now.wMilliseconds);
  return text.data();
}

void Print(const std::string& text) {
  std::cerr << Wrapped("corvel_cmdline: " + text, TextColumns(::GetStdHandle(STD_ERROR_HANDLE)), "", "  ")
            << std::flush;
}

}  // namespace

DWORD OpenJournal(const std::string& path) {
  // What is written there goes to the end, whoever else writes.
  const HANDLE opened =
      ::CreateFileW(ToWide(path).c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                    OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (opened == INVALID_HANDLE_VALUE) return ::GetLastError();
  TheJournal().file.reset(opened);
  return ERROR_SUCCESS;
}

void ShowDetails() {
  TheJournal().showsDetails = true;
}

void Tell(const std::string& text) {
  Print(text);
  Note(text);
}

void TellDetail(const std::string& text) {
  if (TheJournal().showsDetails) Print(text);
  Note(text);
}

void Note(const std::string& text) {
  if (TheJournal().file == nullptr) return;
  const std::string line = TimeText() + text + "\r\n";
  DWORD written = 0;
  // A file that is full must not end a flash.
  ::WriteFile(TheJournal().file.get(), line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
}

}  // namespace hosts
