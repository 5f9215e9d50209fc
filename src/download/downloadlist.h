#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/tstring.h"
#include "download/attempt.h"
#include "download/downloadfile.h"

namespace corvel {

/// Which items of which images a session writes, and in which order.
class DownloadList {
 public:
  /// @param attempt outlives the list.
  explicit DownloadList(Attempt& attempt) : m_Attempt(attempt) {}

  /// Names the images; either may be empty.
  void SetFiles(const CTString& firmwareFile, const CTString& custFile);
  /// Asks the library for the items of the images and puts them in order.
  bool Mark();
  void Clear() { m_Items.clear(); }

  const std::vector<std::unique_ptr<CDownloadFile>>& Items() const { return m_Items; }
  /// The image that the target is booted with; empty without an item.
  std::string BootFile() const { return m_Items.empty() ? std::string() : m_Items.front()->GetFilePath(); }

  // What the library says of an image. A refusal is logged under the name of the `function` that asks.
  bool QueryFlashTechnology(const char* function, const CTString& file, std::uint32_t& technology);
  bool QueryMemoryClass(const char* function, const CTString& file, std::uint32_t& memoryClass,
                        std::uint32_t index);

 private:
  bool MarkCustFile(std::uint32_t& technology);
  bool MarkFurtherItems(std::uint32_t technology, const CDownloadFile* firstItem);
  CDownloadFile* Add(std::uint32_t technology, std::uint32_t memoryClass, const CTString& file,
                     const CDownloadFile* firstItem, std::uint32_t index);

  Attempt& m_Attempt;
  CTString m_FirmwareFile;
  CTString m_CustFile;
  std::vector<std::unique_ptr<CDownloadFile>> m_Items;
};

}  // namespace corvel
