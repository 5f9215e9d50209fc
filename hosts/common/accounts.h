#pragma once

#include <windows.h>

#include <string>

namespace hosts {

/// Whether this program runs with an administrator's rights.
bool IsRunByAdministrator();

/// Whether an account or a group may be let to change what the flash service uses: the system, administrators
/// and the service itself. The account that this program runs under, too, if it is an administrator's: what
/// it has brought is its own.
bool IsTrusted(PSID account);

/// An account's name with its domain; its number where nobody knows the name.
std::string NameOfAccount(PSID account);

}  // namespace hosts
