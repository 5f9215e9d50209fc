#include "download/downloadfile.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

namespace corvel {

namespace {

// Searched in this order; the last row ends the search and is never found itself.
constexpr std::array<MemoryClass, 21> kMemoryClasses{{
    {1, "PSI", 1},
    {2, "SLB", 2},
    {3, "EBL", 3},
    {4, "Code", 5},
    {5, "Cust", 10},
    {6, "Dynamic EEP", 6},
    {7, "Static EEP", 7},
    {8, "Swap Block", 12},
    {9, "SEC Block", 13},
    {10, "Excep Log", 14},
    {11, "Static FFS", 10},
    {12, "Dynamic FFS", 9},
    {13, "DSP", 8},
    {14, "Root Disk", 15},
    {15, "Cust Disk", 16},
    {16, "User Disk", 250},
    {17, "HEX Extract", 251},
    {0, "Binary", 3},
    {18, "Text", 252},
    {19, "Certificate", 4},
    {20, "Not Used", 255},
}};
constexpr MemoryClass kUnknownMemoryClass{19, "Certificate", 4};

}  // namespace

const MemoryClass& FindMemoryClass(std::uint32_t code) {
  const auto end = std::prev(kMemoryClasses.end());
  const auto found = std::ranges::find(kMemoryClasses.begin(), end, code, &MemoryClass::code);
  return found == end ? kUnknownMemoryClass : *found;
}

}  // namespace corvel

CDownloadFile::CDownloadFile(std::uint32_t flashTechnology, std::uint32_t memoryClassCode,
                             std::string filePath, const CDownloadFile* firstItem, std::uint32_t itemIndex)
    : m_FlashTechnology(flashTechnology),
      m_MemoryClass(corvel::FindMemoryClass(memoryClassCode)),
      m_FilePath(std::move(filePath)),
      m_FirstItem(firstItem),
      m_ItemIndex(itemIndex),
      m_TocName(std::string("|").append(std::to_string(m_ItemIndex)).append("|").append(m_FilePath)) {}
