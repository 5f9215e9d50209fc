#pragma once

#include <windows.h>

#include <oleauto.h>

#include <algorithm>
#include <string_view>
#include <vector>

// Texts and arrays as Automation has them.
namespace simulator {

/// The caller frees it.
BSTR NewBstr(std::wstring_view text);
std::wstring_view TextOf(BSTR text);

/// A new array of plain elements. The caller destroys it.
template <typename T>
SAFEARRAY* NewArray(VARTYPE type, const std::vector<T>& elements) {
  SAFEARRAY* array = ::SafeArrayCreateVector(type, 0, static_cast<ULONG>(elements.size()));
  void* data = nullptr;
  if (array == nullptr || FAILED(::SafeArrayAccessData(array, &data))) return array;
  std::ranges::copy(elements, static_cast<T*>(data));
  ::SafeArrayUnaccessData(array);
  return array;
}

/// The bytes of a one-dimensional VT_UI1 array; empty when it is anything else.
std::vector<BYTE> BytesOf(SAFEARRAY* array);

/// A new array of so many empty MBN_DEVICE_SERVICE. The caller destroys it.
/// @param withRecordInfo whether it carries the record info that frees the ids in it.
SAFEARRAY* NewDeviceServiceArray(ULONG count, bool withRecordInfo);

}  // namespace simulator
