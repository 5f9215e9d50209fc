#pragma once

#include <windows.h>

#include <string>

namespace simulator {

/// A name for this process alone, made from one that the whole session shares.
std::wstring OwnName(const wchar_t* name);

/// From now on names are not this process's own, but those of all processes that say the same here: they are
/// one session to the product. Empty: this process's own again.
void ShareNames(const std::wstring& with);

/// The system's functions of the same name, but that names are those of OwnName: virtual PCs that run at
/// the same time must not wake each other, any more than real ones do.
HANDLE WINAPI CreateOwnSemaphore(SECURITY_ATTRIBUTES* security, LONG count, LONG maximum, LPCWSTR name);
HANDLE WINAPI CreateOwnEvent(SECURITY_ATTRIBUTES* security, BOOL manual, BOOL state, LPCWSTR name);

}  // namespace simulator
