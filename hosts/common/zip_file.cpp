#include "hosts/common/zip_file.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <limits>
#include <utility>

namespace hosts {

namespace {

constexpr std::uint32_t kFileSignature = 0x04034B50;
constexpr std::uint32_t kEntrySignature = 0x02014B50;
constexpr std::uint32_t kEndSignature = 0x06054B50;
/// The oldest version of the format that knows folders.
constexpr std::uint32_t kVersion = 20;
/// Names are UTF-8.
constexpr std::uint32_t kFlags = 0x0800;
constexpr std::uint32_t kStored = 0;
/// Of a file and of the archive, without the extension of the format for larger ones.
constexpr std::uint64_t kLargest = std::numeric_limits<std::uint32_t>::max();
constexpr std::size_t kMostEntries = std::numeric_limits<std::uint16_t>::max();
constexpr int kFirstYear = 1980;

constexpr std::array<std::uint32_t, 256> ChecksumTable() {
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t byte = 0; byte < table.size(); ++byte) {
    std::uint32_t value = byte;
    for (int bit = 0; bit < 8; ++bit) value = (value >> 1U) ^ ((value & 1U) != 0 ? 0xEDB88320U : 0U);
    table[byte] = value;
  }
  return table;
}

/// CRC-32 as the format has it.
std::uint32_t ChecksumOf(std::string_view bytes) {
  static constexpr std::array<std::uint32_t, 256> kTable = ChecksumTable();
  std::uint32_t checksum = 0xFFFFFFFF;
  for (const char byte : bytes) {
    checksum = (checksum >> 8U) ^ kTable[(checksum ^ static_cast<unsigned char>(byte)) & 0xFFU];
  }
  return ~checksum;
}

void Put(std::string& bytes, std::uint64_t value, int size) {
  for (int i = 0; i < size; ++i) bytes += static_cast<char>((value >> (8 * i)) & 0xFFU);
}
void Put16(std::string& bytes, std::uint64_t value) {
  Put(bytes, value, 2);
}
void Put32(std::string& bytes, std::uint64_t value) {
  Put(bytes, value, 4);
}

/// Date and time in the format's 32 bits; it knows even seconds only, and no year before its first.
std::uint32_t PackedTime(const SYSTEMTIME& time) {
  const auto years = static_cast<std::uint32_t>(std::max(time.wYear - kFirstYear, 0));
  const std::uint32_t date = (years << 9U) | (std::uint32_t{time.wMonth} << 5U) | time.wDay;
  const std::uint32_t clock =
      (std::uint32_t{time.wHour} << 11U) | (std::uint32_t{time.wMinute} << 5U) | (time.wSecond / 2U);
  return (date << 16U) | clock;
}

}  // namespace

ZipFile::ZipFile(const std::wstring& path) {
  const HANDLE made =
      ::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (made == INVALID_HANDLE_VALUE) {
    m_Error = ::GetLastError();
  } else {
    m_File.reset(made);
  }
}

void ZipFile::PutFacts(std::string& header, const Entry& entry) {
  Put16(header, kVersion);
  Put16(header, kFlags);
  Put16(header, kStored);
  Put32(header, entry.time);
  Put32(header, entry.checksum);
  Put32(header, entry.size);
  Put32(header, entry.size);
  Put16(header, entry.name.size());
  Put16(header, 0);  // No extra field.
}

void ZipFile::Add(const std::string& name, std::string_view bytes, const SYSTEMTIME& modified) {
  if (m_Entries.size() == kMostEntries || m_Written + bytes.size() > kLargest) m_Error = ERROR_FILE_TOO_LARGE;
  if (m_Error != ERROR_SUCCESS) return;
  Entry entry{.name = name,
              .time = PackedTime(modified),
              .checksum = ChecksumOf(bytes),
              .size = static_cast<std::uint32_t>(bytes.size()),
              .offset = static_cast<std::uint32_t>(m_Written)};
  std::string header;
  Put32(header, kFileSignature);
  PutFacts(header, entry);
  Write(header + name);
  Write(bytes);
  m_Entries.push_back(std::move(entry));
}

DWORD ZipFile::Finish() {
  std::string directory;
  for (const Entry& entry : m_Entries) {
    Put32(directory, kEntrySignature);
    Put16(directory, kVersion);
    PutFacts(directory, entry);
    // No comment, on the first disk, no attributes.
    Put16(directory, 0);
    Put16(directory, 0);
    Put16(directory, 0);
    Put32(directory, 0);
    Put32(directory, entry.offset);
    directory += entry.name;
  }
  std::string end;
  Put32(end, kEndSignature);
  // This disk, the directory's disk.
  Put16(end, 0);
  Put16(end, 0);
  Put16(end, m_Entries.size());
  Put16(end, m_Entries.size());
  Put32(end, directory.size());
  Put32(end, m_Written);
  Put16(end, 0);  // No comment.
  if (m_Written + directory.size() > kLargest) m_Error = ERROR_FILE_TOO_LARGE;
  Write(directory + end);
  m_File.reset();
  return m_Error;
}

void ZipFile::Write(std::string_view bytes) {
  // A system that writes less than it was asked to is out of room.
  constexpr std::size_t kPiece = std::size_t{16} * 1024 * 1024;
  while (m_Error == ERROR_SUCCESS && !bytes.empty()) {
    const auto size = static_cast<DWORD>(std::min(bytes.size(), kPiece));
    DWORD written = 0;
    if (!::WriteFile(m_File.get(), bytes.data(), size, &written, nullptr)) {
      m_Error = ::GetLastError();
    } else if (written != size) {
      m_Error = ERROR_DISK_FULL;
    }
    m_Written += written;
    bytes.remove_prefix(written);
  }
}

}  // namespace hosts
