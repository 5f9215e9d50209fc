#include "hosts/flashlog/log_source.h"

#include <cstddef>
#include <optional>

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

/// Nobody who writes, renames or deletes is held up.
OwnedHandle OpenShared(const std::wstring& path) {
  const HANDLE file =
      ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  return OwnedHandle(file == INVALID_HANDLE_VALUE ? nullptr : file);
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

LogSource::LogSource(const std::string& path)
    : m_Path(ToWide(path)), m_IsPipe(path == "-"), m_Buffer(kPieceSize, '\0') {
  if (!m_IsPipe) Open();
}

bool LogSource::Open() {
  m_File = OpenShared(m_Path);
  m_Error = m_File == nullptr ? ::GetLastError() : ERROR_SUCCESS;
  m_Position = 0;
  m_Head.clear();
  return m_File != nullptr;
}

LogSource::Outcome LogSource::Read() {
  m_Bytes = {};
  DWORD length = 0;
  if (m_IsPipe) {
    // Whoever writes to the pipe closes it at the end; that is told as an error.
    if (!::ReadFile(::GetStdHandle(STD_INPUT_HANDLE), m_Buffer.data(), static_cast<DWORD>(m_Buffer.size()),
                    &length, nullptr)) {
      m_Error = ::GetLastError();
      if (m_Error == ERROR_BROKEN_PIPE || m_Error == ERROR_HANDLE_EOF) m_Error = ERROR_SUCCESS;
    }
    m_Bytes = std::string_view(m_Buffer).substr(0, length);
    if (m_Error != ERROR_SUCCESS) return Outcome::Failed;
    return length == 0 ? Outcome::Nothing : Outcome::Bytes;
  }
  // One that is being replaced is not there for a moment.
  if (m_File == nullptr && !Open()) return Outcome::Failed;
  if (m_Position != 0 && BeganAnew()) {
    Open();
    return Outcome::BeganAnew;
  }
  length = ReadFrom(m_File.get(), m_Position, m_Buffer.data(), static_cast<DWORD>(m_Buffer.size()), m_Error);
  if (m_Error == ERROR_HANDLE_EOF) m_Error = ERROR_SUCCESS;
  if (m_Error != ERROR_SUCCESS) return Outcome::Failed;
  m_Bytes = std::string_view(m_Buffer).substr(0, length);
  if (m_Head.size() < kHeadSize && m_Position == m_Head.size()) {
    m_Head += m_Bytes.substr(0, kHeadSize - m_Head.size());
  }
  m_Position += length;
  return length == 0 ? Outcome::Nothing : Outcome::Bytes;
}

bool LogSource::BeganAnew() {
  LARGE_INTEGER size{};
  if (::GetFileSizeEx(m_File.get(), &size) && static_cast<std::uint64_t>(size.QuadPart) < m_Position)
    return true;
  // Emptied, and longer again since: it begins with another time.
  if (Head() != m_Head) return true;
  // What is still to come of the old file comes first.
  if (static_cast<std::uint64_t>(size.QuadPart) > m_Position) return false;
  const OwnedHandle present = OpenShared(m_Path);
  return present != nullptr && IdentityOf(present.get()) != IdentityOf(m_File.get());
}

std::string LogSource::Head() const {
  std::string head(m_Head.size(), '\0');
  DWORD error = ERROR_SUCCESS;
  head.resize(ReadFrom(m_File.get(), 0, head.data(), static_cast<DWORD>(head.size()), error));
  return head;
}

}  // namespace hosts::flashlog
