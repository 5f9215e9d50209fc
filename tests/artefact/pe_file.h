#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

/// A 64-bit Windows program or library, read as a file. What the file does not hold where it says it does
/// throws std::runtime_error.
class PeFile {
 public:
  explicit PeFile(const std::filesystem::path& path);

  WORD Machine() const { return m_Headers.FileHeader.Machine; }
  WORD Flags() const { return m_Headers.OptionalHeader.DllCharacteristics; }
  /// Whether the file says that it has to be loaded where it was linked for.
  bool CannotBeMoved() const { return m_Headers.FileHeader.Characteristics & IMAGE_FILE_RELOCS_STRIPPED; }
  bool HasRelocations() const { return Directory(IMAGE_DIRECTORY_ENTRY_BASERELOC).Size > 0; }
  std::size_t Size() const { return m_Bytes.size(); }

  /// Names of all exports, sorted; an export without a name throws.
  std::vector<std::string> Exports() const;
  /// Names of the libraries that it is linked to, at load or on first use.
  std::vector<std::string> ImportedLibraries() const;
  /// Where a function lies, by the file's own symbol table; nothing when that has no such function.
  std::optional<std::uint32_t> AddressOfSymbol(const std::string& name) const;
  /// How many direct calls of its code go there.
  int CallsTo(std::uint32_t address) const;
  /// The buffer check of MSVC's code: where its secret lies, or 0.
  std::uint64_t SecurityCookie() const;

 private:
  template <typename T>
  T At(std::size_t offset) const {
    if (offset + sizeof(T) > m_Bytes.size()) throw std::runtime_error("beyond the end of the file");
    T value;
    std::memcpy(&value, m_Bytes.data() + offset, sizeof value);
    return value;
  }
  template <typename T>
  T AtAddress(std::uint32_t address) const {
    return At<T>(OffsetOf(address));
  }
  std::size_t OffsetOf(std::uint32_t address) const;
  std::string TextAt(std::size_t offset) const;
  IMAGE_DATA_DIRECTORY Directory(std::size_t index) const;

  std::vector<std::byte> m_Bytes;
  IMAGE_NT_HEADERS64 m_Headers{};
  std::vector<IMAGE_SECTION_HEADER> m_Sections;
};
