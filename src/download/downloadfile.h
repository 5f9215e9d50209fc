#pragma once

#include <cstdint>
#include <string>

namespace corvel {

/// What kind of memory an item is written to, and when.
struct MemoryClass {
  std::uint32_t code;
  const char* name;
  int downloadOrder;
};

/// The row of a code that the flashing library reports; an unknown one counts as "Certificate".
const MemoryClass& FindMemoryClass(std::uint32_t code);

}  // namespace corvel

/// One downloadable item: one entry of one image's table of contents.
class CDownloadFile {
 public:
  CDownloadFile(std::uint32_t flashTechnology, std::uint32_t memoryClassCode, std::string filePath,
                const CDownloadFile* firstItem, std::uint32_t itemIndex);

  const corvel::MemoryClass& GetMemoryClass() const { return m_MemoryClass; }
  std::uint32_t GetFlashTechnology() const { return m_FlashTechnology; }
  /// The item that opens the same image; null for that item itself and for an NVM image.
  const CDownloadFile* GetFirstItem() const { return m_FirstItem; }
  /// Path of the image in UTF-8.
  const std::string& GetFilePath() const { return m_FilePath; }
  /// The name by which the flashing library knows the item: "|index|path".
  const std::string& GetTocName() const { return m_TocName; }

  /// Progress steps of this item; 0 until the library was asked.
  std::uint32_t getNofProgressBars = 0;

 private:
  std::uint32_t m_FlashTechnology;
  corvel::MemoryClass m_MemoryClass;
  std::string m_FilePath;
  const CDownloadFile* m_FirstItem;
  std::uint32_t m_ItemIndex;
  std::string m_TocName;
};
