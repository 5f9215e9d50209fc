#include "hosts/common/serving_notice.h"

#include <algorithm>
#include <cstddef>
#include <string>

namespace hosts {

namespace {

/// The system takes a name of 260 characters at most, and none with a separator behind its first part.
constexpr std::size_t kLongestIdentity = 200;

std::wstring NoticeName(const wchar_t* what, const HandshakeKey& key) {
  std::wstring identity = key.Identity().substr(0, kLongestIdentity);
  std::ranges::replace(identity, L'\\', L'/');
  return what + identity;
}

std::wstring NoticeName(Server server, const HandshakeKey& key) {
  return NoticeName(
      server == Server::Service ? L"Global\\corvel_service for " : L"Global\\corvel_cmdline for ", key);
}

std::wstring HinderedNoticeName(const HandshakeKey& key) {
  return NoticeName(L"Global\\corvel_service hindered for ", key);
}

bool IsGiven(const std::wstring& notice) {
  const OwnedHandle mutex(::OpenMutexW(SYNCHRONIZE, FALSE, notice.c_str()));
  // A user without rights learns as much: what cannot be opened is there.
  return mutex != nullptr || ::GetLastError() == ERROR_ACCESS_DENIED;
}

}  // namespace

ServingNotice::ServingNotice(Server server, const HandshakeKey& key) {
  ::SetLastError(ERROR_SUCCESS);
  m_Mutex.reset(::CreateMutexW(nullptr, FALSE, NoticeName(server, key).c_str()));
  const DWORD error = ::GetLastError();
  // What cannot be opened is that of a user with more rights.
  m_HasPredecessor = error == ERROR_ALREADY_EXISTS || error == ERROR_ACCESS_DENIED;
}

HinderedNotice::HinderedNotice(const HandshakeKey& key)
    : m_Mutex(::CreateMutexW(nullptr, FALSE, HinderedNoticeName(key).c_str())) {}

bool IsServedBy(Server server, const HandshakeKey& key) {
  return IsGiven(NoticeName(server, key));
}

bool IsServiceHindered(const HandshakeKey& key) {
  return IsGiven(HinderedNoticeName(key));
}

Writer WriterOf(const HandshakeKey& key) {
  return IsServedBy(Server::Service, key) || IsServedBy(Server::CommandLine, key) ? Writer::Lives
                                                                                  : Writer::Gone;
}

}  // namespace hosts
