#include "benchmarks/service/bare_reaction.h"

#include <utility>

#include "benchmarks/bare_key.h"
#include "controller.h"
#include "hosts/common/facts.h"

namespace benchmarks {

BareReaction::BareReaction(std::wstring key, std::filesystem::path images, std::filesystem::path library)
    : m_Key(std::move(key)), m_Images(std::move(images)), m_Library(std::move(library)) {
  HKEY made = nullptr;
  ::RegCreateKeyExW(HKEY_CURRENT_USER, m_Key.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &made, nullptr);
  ::RegCloseKey(made);
  m_Thread = std::jthread([this] { Run(); });
  ::WaitForSingleObject(m_Waits.get(), INFINITE);
}

BareReaction::~BareReaction() {
  m_Ends = true;
  ::SetEvent(m_Change.get());
  m_Thread.join();
  ::RegDeleteTreeW(HKEY_CURRENT_USER, m_Key.c_str());
}

double BareReaction::React() {
  const Ticks raised = Now();
  const DWORD up = 1;
  ::RegSetKeyValueW(HKEY_CURRENT_USER, m_Key.c_str(), corvel::kReadyValue, REG_DWORD, &up, sizeof up);
  ::WaitForSingleObject(m_Waits.get(), INFINITE);
  return NanosecondsBetween(raised, m_Began);
}

void BareReaction::Run() {
  for (;;) {
    const HKEY key = OpenBare(m_Key, KEY_NOTIFY);
    ::RegNotifyChangeKeyValue(key, TRUE, REG_NOTIFY_CHANGE_NAME | REG_NOTIFY_CHANGE_LAST_SET, m_Change.get(),
                              TRUE);
    ::SetEvent(m_Waits.get());
    ::WaitForSingleObject(m_Change.get(), INFINITE);
    if (m_Ends) {
      ::RegCloseKey(key);
      return;
    }
    Answer();
    ::RegCloseKey(key);
    ::ResetEvent(m_Change.get());
  }
}

void BareReaction::Answer() {
  static_cast<void>(ReadBare(m_Key, corvel::kReadyValue));
  WriteBare(m_Key, corvel::kProgressValue, 0);
  WriteBare(m_Key, corvel::kResultValue, 0);
  SearchFolder();
  BindLibrary();
  // A value that is written as it stands is no change.
  WriteBare(m_Key, corvel::kReadyValue, 0);
}

void BareReaction::SearchFolder() const {
  ::GetFileAttributesW(m_Images.c_str());
  WIN32_FIND_DATAW entry{};
  const HANDLE search = ::FindFirstFileW((m_Images / L"*.fls").c_str(), &entry);
  while (::FindNextFileW(search, &entry)) continue;
  ::FindClose(search);
}

void BareReaction::BindLibrary() {
  const HMODULE library = ::LoadLibraryW(m_Library.c_str());
  for (const char* name : hosts::kFlashingLibraryExports) ::GetProcAddress(library, name);
  WriteBare(m_Key, corvel::kOnGoingValue, 1);
  WriteBare(m_Key, corvel::kResultValue, 1);
  m_Began = Now();
  std::jthread([] {}).join();
  ::FreeLibrary(library);
}

}  // namespace benchmarks
