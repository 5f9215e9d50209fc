#include "download/downloadlist.h"

#include <algorithm>

#include "common/log.h"
#include "common/narrow.h"

namespace corvel {

namespace {

constexpr int kRefused = -1;

// The procedures under whose names all of this is logged.
constexpr char kMarkFirmwareFile[] = "CFirmwareDownloader::MarkFirmwareFileForDownload";
constexpr char kGetFlashTechnology[] = "CFirmwareDownloader::GetFlashTechnology";
constexpr char kGetFlashTechnologyOfCust[] = "CFirmwareDownloader::GetFlashTechnologyOfCust";
constexpr char kGetMemoryClass[] = "CFirmwareDownloader::GetMemoryClass";
constexpr char kGetMemoryClassOfCust[] = "CFirmwareDownloader::GetMemoryClassOfCust";

}  // namespace

void DownloadList::SetFiles(const CTString& firmwareFile, const CTString& custFile) {
  m_FirmwareFile = firmwareFile;
  m_CustFile = custFile;
}

bool DownloadList::Mark() {
  std::uint32_t technology = 0;
  if (!m_CustFile.IsEmpty() && !MarkCustFile(technology)) return false;

  const std::string file = Narrow(m_FirmwareFile);
  LOG_TRACE_AS(kMarkFirmwareFile, "Adding Flashfls:%s for download", file.c_str());
  if (!QueryFlashTechnology(kGetFlashTechnology, m_FirmwareFile, technology)) return false;
  LOG_TRACE_AS(kMarkFirmwareFile, "Technology(0): %d", static_cast<int>(technology));
  std::uint32_t memoryClass = 0;
  if (!QueryMemoryClass(kGetMemoryClass, m_FirmwareFile, memoryClass, 0)) return false;
  LOG_TRACE_AS(kMarkFirmwareFile, "Modem, Memory Class(0): %d", static_cast<int>(memoryClass));
  const CDownloadFile* const firstItem = Add(technology, memoryClass, m_FirmwareFile, nullptr, 0);
  if (!MarkFurtherItems(technology, firstItem)) return false;

  std::ranges::stable_sort(m_Items, {},
                           [](const auto& item) { return item->GetMemoryClass().downloadOrder; });
  return true;
}

bool DownloadList::MarkCustFile(std::uint32_t& technology) {
  LOG_TRACE_AS(kMarkFirmwareFile, "Adding NVMfls:%s for download", Narrow(m_CustFile).c_str());
  // A failure has been logged, and the modem file's technology follows.
  QueryFlashTechnology(kGetFlashTechnologyOfCust, m_CustFile, technology);
  std::uint32_t memoryClass = 0;
  if (!QueryMemoryClass(kGetMemoryClassOfCust, m_CustFile, memoryClass, 0)) return false;
  LOG_TRACE_AS(kMarkFirmwareFile, "NVM, Memory Class(0): %d", static_cast<int>(memoryClass));
  Add(technology, memoryClass, m_CustFile, nullptr, 0);
  return true;
}

bool DownloadList::MarkFurtherItems(std::uint32_t technology, const CDownloadFile* firstItem) {
  const std::string file = Narrow(m_FirmwareFile);
  std::uint32_t count = 0;
  if (m_Attempt.CallLibrary(m_Attempt.Library().TocGetNofItems(), kRefused, file.c_str(), &count,
                            m_Attempt.Status()) != 0) {
    // An attempt that was given up asks nothing of the library, so there is no failure to tell of, here and
    // below.
    if (!m_Attempt.IsAbandoned())
      LOG_TRACE_AS(kMarkFirmwareFile, "Could not get the number of downloadable items in %s", file.c_str());
    return false;
  }
  LOG_TRACE_AS(kMarkFirmwareFile, "Downloadable items: %d", static_cast<int>(count));
  for (std::uint32_t index = 1; index < count; ++index) {
    std::uint32_t memoryClass = 0;
    if (!QueryMemoryClass(kGetMemoryClass, m_FirmwareFile, memoryClass, index)) {
      if (!m_Attempt.IsAbandoned())
        LOG_TRACE_AS(kMarkFirmwareFile, "Could not obtain memory class for %s(%d)", file.c_str(),
                     static_cast<int>(index));
      return false;
    }
    LOG_TRACE_AS(kMarkFirmwareFile, "Memory Class(%d): %d", static_cast<int>(index),
                 static_cast<int>(memoryClass));
    Add(technology, memoryClass, m_FirmwareFile, firstItem, index);
  }
  return true;
}

CDownloadFile* DownloadList::Add(std::uint32_t technology, std::uint32_t memoryClass, const CTString& file,
                                 const CDownloadFile* firstItem, std::uint32_t index) {
  m_Items.push_back(std::make_unique<CDownloadFile>(technology, memoryClass, Narrow(file), firstItem, index));
  return m_Items.back().get();
}

bool DownloadList::QueryFlashTechnology(const char* function, const CTString& file,
                                        std::uint32_t& technology) {
  const std::string path = Narrow(file);
  if (m_Attempt.CallLibrary(m_Attempt.Library().TocGetFlashTechnology(), kRefused, path.c_str(), &technology,
                            m_Attempt.Status()) == 0)
    return true;
  if (!m_Attempt.IsAbandoned())
    LOG_TRACE_AS(function, "Could not get the flash technology for %s", path.c_str());
  return false;
}

bool DownloadList::QueryMemoryClass(const char* function, const CTString& file, std::uint32_t& memoryClass,
                                    std::uint32_t index) {
  const std::string path = Narrow(file);
  if (m_Attempt.CallLibrary(m_Attempt.Library().TocGetMemoryClass(), kRefused, path.c_str(), index,
                            &memoryClass, m_Attempt.Status()) == 0) {
    return true;
  }
  if (!m_Attempt.IsAbandoned())
    LOG_TRACE_AS(function, "Could not get the memory class for %s(%d)", path.c_str(),
                 static_cast<int>(index));
  return false;
}

}  // namespace corvel
