#include "hosts/flashlog/log_source.h"

#include <cstddef>
#include <optional>
#include <utility>

#include "hosts/common/text.h"

namespace hosts::flashlog {

namespace {

constexpr std::size_t kPieceSize = std::size_t{256} * 1024;
constexpr std::size_t kHeadSize = 64;

/// Which file a path means at present; nothing while there is none.
struct FileIdentity {
  DWORD volume = 0;
  DWORD high = 0;
  DWORD low = 0;
  bool operator==(const FileIdentity&) const = default;
};

std::optional<FileIdentity> IdentityOf(HANDLE file) {
  BY_HANDLE_FILE_INFORMATION information{};
  if (!::GetFileInformationByHandle(file, &information)) return std::nullopt;
  return FileIdentity{information.dwVolumeSerialNumber, information.nFileIndexHigh,
                      information.nFileIndexLow};
}

/// From its root on; as it is when the system cannot tell.
std::wstring FullPath(const std::wstring& path) {
  std::wstring full(::GetFullPathNameW(path.c_str(), 0, nullptr, nullptr), L'\0');
  full.resize(::GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr));
  return full.empty() ? path : full;
}

/// @return the number of bytes; 0 at the end as well as on failure, of which `error` tells.
DWORD ReadFrom(HANDLE file, std::uint64_t offset, char* buffer, DWORD size, DWORD& error) {
  OVERLAPPED place{};
  place.Offset = static_cast<DWORD>(offset);
  place.OffsetHigh = static_cast<DWORD>(offset >> 32U);
  DWORD length = 0;
  error = ::ReadFile(file, buffer, size, &length, &place) ? ERROR_SUCCESS : ::GetLastError();
  return error == ERROR_SUCCESS ? length : 0;
}

}  // namespace

OwnedHandle OpenShared(const std::wstring& path) {
  const HANDLE file =
      ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  return OwnedHandle(file == INVALID_HANDLE_VALUE ? nullptr : file);
}

bool IsSameFile(const std::wstring& one, const std::wstring& other) {
  if (::CompareStringOrdinal(FullPath(one).c_str(), -1, FullPath(other).c_str(), -1, TRUE) == CSTR_EQUAL) {
    return true;
  }
  // By a link, or by a short name.
  const OwnedHandle file = OpenShared(one);
  const OwnedHandle otherFile = OpenShared(other);
  if (file == nullptr || otherFile == nullptr) return false;
  const auto identity = IdentityOf(file.get());
  return identity && identity == IdentityOf(otherFile.get());
}

LogSource::LogSource(const std::string& path) : m_Path(ToWide(path)) {
  if (path == "-") {
    m_Input.emplace();
    m_HasBeenThere = true;
    return;
  }
  m_Buffer.resize(kPieceSize);
  Open();
}

bool LogSource::Open() {
  m_File = OpenShared(m_Path);
  m_Error = m_File == nullptr ? ::GetLastError() : ERROR_SUCCESS;
  m_Position = 0;
  m_Head.clear();
  m_HasBeenThere = m_HasBeenThere || m_File != nullptr;
  return m_File != nullptr;
}

void LogSource::OpenAgain() {
  OwnedHandle file = OpenShared(m_Path);
  if (file != nullptr) m_File = std::move(file);
}

bool LogSource::IsReady() const {
  return !m_Input || (!m_HasEnded && m_Input->IsReady());
}

LogSource::Outcome LogSource::Read() {
  m_Bytes = {};
  if (m_Input) return ReadInput();
  // One that is being replaced is not there for a moment.
  if (m_File == nullptr && !Open()) return Outcome::Failed;
  // On a share that was away the old handle stays of no use.
  if (m_Error != ERROR_SUCCESS) OpenAgain();
  if (m_Position != 0 && BeganAnew()) {
    Open();
    return Outcome::BeganAnew;
  }
  const DWORD length =
      ReadFrom(m_File.get(), m_Position, m_Buffer.data(), static_cast<DWORD>(m_Buffer.size()), m_Error);
  if (m_Error == ERROR_HANDLE_EOF) m_Error = ERROR_SUCCESS;
  if (m_Error != ERROR_SUCCESS) return Outcome::Failed;
  m_Bytes = std::string_view(m_Buffer).substr(0, length);
  if (m_Head.size() < kHeadSize && m_Position == m_Head.size()) {
    m_Head += m_Bytes.substr(0, kHeadSize - m_Head.size());
  }
  m_Position += length;
  return length == 0 ? Outcome::Nothing : Outcome::Bytes;
}

LogSource::Outcome LogSource::ReadInput() {
  if (m_HasEnded) return Outcome::Nothing;
  m_Error = m_Input->Take(m_Buffer);
  m_HasEnded = m_Buffer.empty();
  m_Bytes = m_Buffer;
  if (m_Error != ERROR_SUCCESS) return Outcome::Failed;
  return m_HasEnded ? Outcome::Nothing : Outcome::Bytes;
}

bool LogSource::BeganAnew() {
  LARGE_INTEGER size{};
  if (::GetFileSizeEx(m_File.get(), &size) && static_cast<std::uint64_t>(size.QuadPart) < m_Position)
    return true;
  // Emptied, and longer again since: it begins with another time.
  if (!BeginsAsBefore()) return true;
  // What is still to come of the old file comes first.
  if (static_cast<std::uint64_t>(size.QuadPart) > m_Position) return false;
  const OwnedHandle present = OpenShared(m_Path);
  return present != nullptr && IdentityOf(present.get()) != IdentityOf(m_File.get());
}

bool LogSource::BeginsAsBefore() const {
  std::string head(m_Head.size(), '\0');
  DWORD error = ERROR_SUCCESS;
  const DWORD length = ReadFrom(m_File.get(), 0, head.data(), static_cast<DWORD>(head.size()), error);
  // That it cannot be read is told where it is read on.
  if (error != ERROR_SUCCESS && error != ERROR_HANDLE_EOF) return true;
  return std::string_view(head).substr(0, length) == m_Head;
}

}  // namespace hosts::flashlog
