#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

// The platform's macro of the same name would rename the member, differently in each file.
#undef DeleteFile

/// Owner of one file handle; every failure is an HRESULT made from the Win32 error. One thread at a time.
/// Names are in the system's ANSI code page.
class CFileIo {
 public:
  CFileIo();
  CFileIo(const CFileIo&) = delete;
  CFileIo& operator=(const CFileIo&) = delete;
  virtual ~CFileIo();

  /// Opens an existing file for reading, or creates one (emptying an old one) for writing. Others may read.
  HRESULT Open(const char* name, bool forWrite);
  /// Opens with the platform's own arguments; does not keep the name.
  HRESULT OpenEx(const char* name, DWORD access, DWORD shareMode, DWORD creation, DWORD flagsAndAttributes,
                 SECURITY_ATTRIBUTES* security, HANDLE templateFile);
  HRESULT Close();

  /// Reads exactly `count` bytes; fewer give 0x80070026 (end of file), with what there was in the buffer.
  HRESULT Read(void* buffer, std::uint32_t count);
  HRESULT ReadSome(void* buffer, std::uint32_t count, std::uint32_t* read);
  HRESULT Write(const void* buffer, std::uint32_t count, std::uint32_t* written);

  HRESULT Seek(std::int64_t offset, DWORD method);
  HRESULT GetPosition(std::uint64_t* position);
  HRESULT GetSize(std::uint64_t* size);
  HRESULT SetSize(std::uint64_t size);
  HRESULT Flush();
  HRESULT Lock(std::uint64_t offset, std::uint64_t length);
  HRESULT Unlock(std::uint64_t offset, std::uint64_t length);

  HRESULT LastError() const;
  bool IsOpen() const { return m_Open; }
  std::string GetFileName() const { return m_FileName; }
  void SetFileName(const std::string& name) { m_FileName = name; }

  /// Deletes the file under the kept name.
  bool Delete();
  static bool DeleteFile(const char* path);
  /// True for a file or a folder whose attributes can be read.
  static bool Exists(const char* path);

 private:
  HRESULT Move(LONG low, LONG high, DWORD method, std::uint64_t* position);

  // Null when closed; the invalid-handle value after a failed open.
  HANDLE m_Handle = nullptr;
  bool m_Open = false;
  std::string m_FileName;
};
