#pragma once

#include <windows.h>

#include <winternl.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

/// How many handles of each type of object this process has.
using HandleCensus = std::map<std::wstring, int>;

inline std::wstring TypeOfHandle(HANDLE handle) {
  std::array<std::byte, 1024> room{};
  const auto type = reinterpret_cast<PUBLIC_OBJECT_TYPE_INFORMATION*>(room.data());
  if (::NtQueryObject(handle, ObjectTypeInformation, type, sizeof room, nullptr) < 0) return L"unknown";
  return {type->TypeName.Buffer, type->TypeName.Length / sizeof(wchar_t)};
}

/// Looks at every number below `highest` that a handle may have: under Wine the system's own count is always
/// 0.
inline HandleCensus HandlesOfThisProcess(std::uintptr_t highest = 32768) {
  constexpr std::uintptr_t kStep = 4;
  HandleCensus census;
  for (std::uintptr_t value = kStep; value < highest; value += kStep) {
    const auto handle = reinterpret_cast<HANDLE>(value);
    DWORD flags = 0;
    if (::GetHandleInformation(handle, &flags)) ++census[TypeOfHandle(handle)];
  }
  return census;
}
