#include "artefact/pe_file.h"

#include <algorithm>
#include <fstream>
#include <span>

namespace {

constexpr std::byte kCallOpcode{0xE8};

std::vector<std::byte> BytesOf(const std::filesystem::path& path) {
  std::vector<std::byte> bytes(std::filesystem::file_size(path));
  std::ifstream file(path, std::ios::binary);
  if (!file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()))) {
    throw std::runtime_error("cannot read " + path.string());
  }
  return bytes;
}

}  // namespace

PeFile::PeFile(const std::filesystem::path& path) : m_Bytes(BytesOf(path)) {
  const auto dos = At<IMAGE_DOS_HEADER>(0);
  if (dos.e_magic != IMAGE_DOS_SIGNATURE) throw std::runtime_error("no program file");
  const auto start = static_cast<std::size_t>(dos.e_lfanew);
  m_Headers = At<IMAGE_NT_HEADERS64>(start);
  if (m_Headers.Signature != IMAGE_NT_SIGNATURE) throw std::runtime_error("no Windows program");
  if (m_Headers.OptionalHeader.Magic != IMAGE_NT_OPTIONAL_HDR64_MAGIC) throw std::runtime_error("not 64-bit");

  const std::size_t first =
      start + offsetof(IMAGE_NT_HEADERS64, OptionalHeader) + m_Headers.FileHeader.SizeOfOptionalHeader;
  for (WORD i = 0; i < m_Headers.FileHeader.NumberOfSections; ++i) {
    m_Sections.push_back(At<IMAGE_SECTION_HEADER>(first + i * sizeof(IMAGE_SECTION_HEADER)));
  }
}

std::size_t PeFile::OffsetOf(std::uint32_t address) const {
  for (const IMAGE_SECTION_HEADER& section : m_Sections) {
    if (address < section.VirtualAddress) continue;
    const std::uint32_t within = address - section.VirtualAddress;
    if (within < section.SizeOfRawData) return std::size_t{section.PointerToRawData} + within;
  }
  throw std::runtime_error("an address that the file does not hold");
}

std::string PeFile::TextAt(std::size_t offset) const {
  std::string text;
  for (char letter = At<char>(offset); letter != '\0'; letter = At<char>(++offset)) text += letter;
  return text;
}

IMAGE_DATA_DIRECTORY PeFile::Directory(std::size_t index) const {
  return std::span(m_Headers.OptionalHeader.DataDirectory)[index];
}

std::vector<std::string> PeFile::Exports() const {
  const IMAGE_DATA_DIRECTORY directory = Directory(IMAGE_DIRECTORY_ENTRY_EXPORT);
  if (directory.VirtualAddress == 0) return {};
  const auto exports = AtAddress<IMAGE_EXPORT_DIRECTORY>(directory.VirtualAddress);
  if (exports.NumberOfNames != exports.NumberOfFunctions)
    throw std::runtime_error("an export without a name");

  std::vector<std::string> names;
  for (DWORD i = 0; i < exports.NumberOfNames; ++i) {
    const auto name = AtAddress<std::uint32_t>(exports.AddressOfNames + i * 4);
    names.push_back(TextAt(OffsetOf(name)));
  }
  std::ranges::sort(names);
  return names;
}

std::vector<std::string> PeFile::ImportedLibraries() const {
  std::vector<std::string> libraries;
  if (const auto directory = Directory(IMAGE_DIRECTORY_ENTRY_IMPORT); directory.VirtualAddress != 0) {
    std::uint32_t address = directory.VirtualAddress;
    for (auto entry = AtAddress<IMAGE_IMPORT_DESCRIPTOR>(address); entry.Name != 0;
         entry = AtAddress<IMAGE_IMPORT_DESCRIPTOR>(address)) {
      libraries.push_back(TextAt(OffsetOf(entry.Name)));
      address += sizeof entry;
    }
  }
  if (const auto directory = Directory(IMAGE_DIRECTORY_ENTRY_DELAY_IMPORT); directory.VirtualAddress != 0) {
    std::uint32_t address = directory.VirtualAddress;
    for (auto entry = AtAddress<IMAGE_DELAYLOAD_DESCRIPTOR>(address); entry.DllNameRVA != 0;
         entry = AtAddress<IMAGE_DELAYLOAD_DESCRIPTOR>(address)) {
      libraries.push_back(TextAt(OffsetOf(entry.DllNameRVA)));
      address += sizeof entry;
    }
  }
  return libraries;
}

std::optional<std::uint32_t> PeFile::AddressOfSymbol(const std::string& name) const {
  const std::size_t symbols = m_Headers.FileHeader.PointerToSymbolTable;
  const std::size_t count = m_Headers.FileHeader.NumberOfSymbols;
  const std::size_t texts = symbols + count * IMAGE_SIZEOF_SYMBOL;
  for (std::size_t i = 0; symbols != 0 && i < count; ++i) {
    const auto symbol = At<IMAGE_SYMBOL>(symbols + i * IMAGE_SIZEOF_SYMBOL);
    // A long name lies after the table; a short one of eight letters has no terminator.
    const char* const shortName = reinterpret_cast<const char*>(symbol.N.ShortName);
    const bool isLong = symbol.N.Name.Short == 0;
    const std::string found = isLong ? TextAt(texts + symbol.N.Name.Long)
                                     : std::string(shortName, std::find(shortName, shortName + 8, '\0'));
    if (found == name && symbol.SectionNumber > 0) {
      const auto& section = m_Sections.at(static_cast<std::size_t>(symbol.SectionNumber) - 1);
      return section.VirtualAddress + symbol.Value;
    }
    i += symbol.NumberOfAuxSymbols;
  }
  return std::nullopt;
}

int PeFile::CallsTo(std::uint32_t address) const {
  int calls = 0;
  for (const IMAGE_SECTION_HEADER& section : m_Sections) {
    if ((section.Characteristics & IMAGE_SCN_MEM_EXECUTE) == 0) continue;
    for (std::uint32_t i = 0; i + 5 <= section.SizeOfRawData; ++i) {
      if (m_Bytes.at(section.PointerToRawData + i) != kCallOpcode) continue;
      const auto distance = At<std::int32_t>(std::size_t{section.PointerToRawData} + i + 1);
      const std::int64_t called = std::int64_t{section.VirtualAddress} + i + 5 + distance;
      if (called == address) ++calls;
    }
  }
  return calls;
}

std::uint64_t PeFile::SecurityCookie() const {
  const auto directory = Directory(IMAGE_DIRECTORY_ENTRY_LOAD_CONFIG);
  if (directory.VirtualAddress == 0) return 0;
  return AtAddress<std::uint64_t>(directory.VirtualAddress +
                                  offsetof(IMAGE_LOAD_CONFIG_DIRECTORY64, SecurityCookie));
}
