#include "hosts/common/accounts.h"

#include <sddl.h>

#include <algorithm>
#include <array>

#include "hosts/common/facts.h"
#include "hosts/common/owners.h"
#include "hosts/common/text.h"

namespace hosts {

namespace {

/// Administrators of the PC, of its domain and of the forest; the system.
constexpr WELL_KNOWN_SID_TYPE kTrusted[] = {WinLocalSystemSid, WinBuiltinAdministratorsSid,
                                            WinAccountAdministratorSid, WinAccountDomainAdminsSid,
                                            WinAccountEnterpriseAdminsSid};

/// Nobody works under these: they stand for the owner, who is looked at as such, and for whoever will make a
/// file.
constexpr WELL_KNOWN_SID_TYPE kPlaceholders[] = {WinCreatorOwnerSid, WinCreatorGroupSid,
                                                 WinCreatorOwnerRightsSid};

/// The service that brings the system's own files.
constexpr wchar_t kTrustedInstaller[] = L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464";

std::wstring NumberOf(PSID account) {
  wchar_t* text = nullptr;
  if (!::ConvertSidToStringSidW(account, &text)) return L"an unknown account";
  const LocalMemory owner(text);
  return text;
}

/// Empty where nobody knows it.
std::wstring FullNameOf(PSID account) {
  std::array<wchar_t, 257> name{};
  std::array<wchar_t, 257> domain{};
  auto nameSize = static_cast<DWORD>(name.size());
  auto domainSize = static_cast<DWORD>(domain.size());
  SID_NAME_USE use = SidTypeUnknown;
  if (!::LookupAccountSidW(nullptr, account, name.data(), &nameSize, domain.data(), &domainSize, &use))
    return {};
  return domain[0] == L'\0' ? name.data() : std::wstring(domain.data()) + L"\\" + name.data();
}

bool IsOneOf(PSID account, const auto& types) {
  return std::ranges::any_of(
      types, [&](WELL_KNOWN_SID_TYPE type) { return ::IsWellKnownSid(account, type) != FALSE; });
}

bool RunsThisProgram(PSID account) {
  HANDLE token = nullptr;
  if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &token)) return false;
  const OwnedHandle owner(token);
  alignas(TOKEN_USER) std::array<BYTE, sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE> memory{};
  DWORD size = 0;
  return ::GetTokenInformation(token, TokenUser, memory.data(), static_cast<DWORD>(memory.size()), &size) &&
         ::EqualSid(reinterpret_cast<TOKEN_USER*>(memory.data())->User.Sid, account);
}

}  // namespace

bool IsRunByAdministrator() {
  alignas(SID) std::array<BYTE, SECURITY_MAX_SID_SIZE> administrators{};
  auto size = static_cast<DWORD>(administrators.size());
  BOOL isMember = FALSE;
  return ::CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, administrators.data(), &size) &&
         ::CheckTokenMembership(nullptr, administrators.data(), &isMember) && isMember;
}

bool IsTrusted(PSID account) {
  return IsOneOf(account, kTrusted) || IsOneOf(account, kPlaceholders) ||
         NumberOf(account) == kTrustedInstaller || (RunsThisProgram(account) && IsRunByAdministrator()) ||
         FullNameOf(account) == std::wstring(L"NT SERVICE\\") + kServiceName;
}

std::string NameOfAccount(PSID account) {
  const std::wstring name = FullNameOf(account);
  return ToUtf8(name.empty() ? NumberOf(account) : name);
}

}  // namespace hosts
