#include "common/fileio.h"

#include "common/errortext.h"
#include "common/win32error.h"

using namespace corvel;

namespace {

constexpr HRESULT kNoHandle = static_cast<HRESULT>(0x80070006u);
constexpr HRESULT kEndOfFile = static_cast<HRESULT>(0x80070026u);
constexpr DWORD kInvalidLowHalf = 0xFFFFFFFFu;

HRESULT ResultOf(BOOL success) {
  return success ? S_OK : HResultFromWin32(::GetLastError());
}

DWORD LowHalf(std::uint64_t value) {
  return static_cast<DWORD>(value & 0xFFFFFFFFu);
}

DWORD HighHalf(std::uint64_t value) {
  return static_cast<DWORD>(value >> 32);
}

std::uint64_t Joined(DWORD low, DWORD high) {
  return (static_cast<std::uint64_t>(high) << 32) | low;
}

}  // namespace

CFileIo::CFileIo() = default;

CFileIo::~CFileIo() {
  Close();
}

HRESULT CFileIo::Open(const char* name, bool forWrite) {
  m_FileName = name == nullptr ? "" : name;
  const HRESULT result =
      OpenEx(m_FileName.c_str(), forWrite ? GENERIC_WRITE : GENERIC_READ, FILE_SHARE_READ,
             forWrite ? CREATE_ALWAYS : OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr, nullptr);
  // Fetched for whoever looks at the shared text in a debugger; the result is all that callers get.
  if (FAILED(result)) Win32ErrorText(static_cast<unsigned long>(HRESULT_CODE(result)));
  return result;
}

HRESULT CFileIo::OpenEx(const char* name, DWORD access, DWORD shareMode, DWORD creation,
                        DWORD flagsAndAttributes, SECURITY_ATTRIBUTES* security, HANDLE templateFile) {
  const HANDLE replaced = m_Open ? m_Handle : nullptr;
  m_Handle = ::CreateFileA(name, access, shareMode, security, creation, flagsAndAttributes, templateFile);
  const DWORD error = ::GetLastError();
  m_Open = m_Handle != INVALID_HANDLE_VALUE;
  if (replaced != nullptr) ::CloseHandle(replaced);
  ::SetLastError(error);
  return m_Open ? S_OK : HResultFromWin32(error);
}

HRESULT CFileIo::Close() {
  if (m_Open) {
    ::FlushFileBuffers(m_Handle);
    ::CloseHandle(m_Handle);
  }
  m_Handle = nullptr;
  m_Open = false;
  return S_OK;
}

HRESULT CFileIo::Read(void* buffer, std::uint32_t count) {
  std::uint32_t read = 0;
  const HRESULT result = ReadSome(buffer, count, &read);
  if (FAILED(result)) return result;
  return read < count ? kEndOfFile : S_OK;
}

HRESULT CFileIo::ReadSome(void* buffer, std::uint32_t count, std::uint32_t* read) {
  if (m_Handle == nullptr) return kNoHandle;
  DWORD done = 0;
  const BOOL success = ::ReadFile(m_Handle, buffer, count, &done, nullptr);
  if (read != nullptr) *read = done;
  return ResultOf(success);
}

HRESULT CFileIo::Write(const void* buffer, std::uint32_t count, std::uint32_t* written) {
  if (m_Handle == nullptr) return kNoHandle;
  DWORD done = 0;
  const BOOL success = ::WriteFile(m_Handle, buffer, count, &done, nullptr);
  if (written != nullptr) *written = done;
  return ResultOf(success);
}

HRESULT CFileIo::Move(LONG low, LONG high, DWORD method, std::uint64_t* position) {
  const DWORD newLow = ::SetFilePointer(m_Handle, low, &high, method);
  // The low half may be this value by right, and then the last error tells; it is not cleared otherwise.
  if (newLow == kInvalidLowHalf && ::GetLastError() != NO_ERROR) return LastError();
  if (position != nullptr) *position = Joined(newLow, static_cast<DWORD>(high));
  return S_OK;
}

HRESULT CFileIo::Seek(std::int64_t offset, DWORD method) {
  const auto halves = static_cast<std::uint64_t>(offset);
  return Move(static_cast<LONG>(LowHalf(halves)), static_cast<LONG>(HighHalf(halves)), method, nullptr);
}

HRESULT CFileIo::GetPosition(std::uint64_t* position) {
  return Move(0, 0, FILE_CURRENT, position);
}

HRESULT CFileIo::GetSize(std::uint64_t* size) {
  DWORD high = 0;
  const DWORD low = ::GetFileSize(m_Handle, &high);
  if (low == kInvalidLowHalf && ::GetLastError() != NO_ERROR) return LastError();
  if (size != nullptr) *size = Joined(low, high);
  return S_OK;
}

HRESULT CFileIo::SetSize(std::uint64_t size) {
  const HRESULT moved = Seek(static_cast<std::int64_t>(size), FILE_BEGIN);
  return FAILED(moved) ? moved : ResultOf(::SetEndOfFile(m_Handle));
}

HRESULT CFileIo::Flush() {
  return ResultOf(::FlushFileBuffers(m_Handle));
}

HRESULT CFileIo::Lock(std::uint64_t offset, std::uint64_t length) {
  return ResultOf(::LockFile(m_Handle, LowHalf(offset), HighHalf(offset), LowHalf(length), HighHalf(length)));
}

HRESULT CFileIo::Unlock(std::uint64_t offset, std::uint64_t length) {
  return ResultOf(
      ::UnlockFile(m_Handle, LowHalf(offset), HighHalf(offset), LowHalf(length), HighHalf(length)));
}

HRESULT CFileIo::LastError() const {
  return HResultFromWin32(::GetLastError());
}

bool CFileIo::Delete() {
  return DeleteFile(m_FileName.c_str());
}

bool CFileIo::DeleteFile(const char* path) {
  return ::DeleteFileA(path) != FALSE;
}

bool CFileIo::Exists(const char* path) {
  return ::GetFileAttributesA(path) != INVALID_FILE_ATTRIBUTES;
}
