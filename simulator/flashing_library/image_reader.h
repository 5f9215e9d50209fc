#pragma once

#include <windows.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "common/handles.h"
#include "simulator/flash_image.h"

namespace simulator {

/// An image file that is read piece by piece. The sharing decides who else may open it meanwhile.
class ImageReader {
 public:
  /// `path` is UTF-8. Check `IsSound` before anything else.
  ImageReader(std::string_view path, DWORD sharing);

  bool IsSound() const { return m_Table.has_value(); }
  const FlashImage& Table() const { return *m_Table; }
  /// The bytes of header and table of contents.
  std::span<const std::uint8_t> Header() const { return m_Header; }
  /// Reads at an offset of the file. @return false when not all bytes could be read.
  bool ReadAt(std::uint32_t offset, std::span<std::uint8_t> bytes) const;

 private:
  corvel::UniqueHandle m_File;
  std::vector<std::uint8_t> m_Header;
  std::optional<FlashImage> m_Table;
};

/// An item's name as "|index|path".
struct ItemName {
  std::uint32_t index = 0;
  std::string path;
};
std::optional<ItemName> ParseItemName(std::string_view name);

}  // namespace simulator
