#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <vector>

namespace simulator {

/// Memory classes of an image's items, by the flashing library's codes.
enum class MemoryClass : std::uint32_t {
  Binary = 0,
  Psi = 1,
  Ebl = 3,
  Code = 4,
  Cust = 5,
  StaticEep = 7,
  StaticFfs = 11,
  DynamicFfs = 12,
  RootDisk = 14,
  Certificate = 19,
  NotUsed = 20,
};

/// One row of an image's table of contents.
struct ImageItem {
  std::uint32_t memoryClass = 0;
  std::uint32_t flashOffset = 0;  ///< where it goes in the modem's flash memory
  std::uint32_t dataOffset = 0;   ///< where it lies in the file
  std::uint32_t size = 0;
  std::uint32_t crc32 = 0;  ///< of its bytes
};

/// A firmware image in memory: header, table of contents, items. The format is in docs/simulator.md.
struct FlashImage {
  std::uint32_t flashTechnology = 1;
  std::vector<ImageItem> items;
  std::vector<std::uint8_t> file;  ///< the whole file

  std::span<const std::uint8_t> Bytes(const ImageItem& item) const;
};

/// What an image is made from: per item class, size and place in the flash memory.
struct ImagePlan {
  struct Item {
    MemoryClass memoryClass;
    std::uint32_t size;
    std::uint32_t flashOffset;
  };
  std::vector<Item> items;
  std::uint32_t flashTechnology = 1;
  std::uint32_t seed = 1;  ///< same seed, same bytes
};

/// Ways to spoil an image.
enum class ImageDamage { None, Magic, HeaderChecksum, TruncatedTable, TruncatedData, ItemChecksum };

std::uint32_t Crc32(std::span<const std::uint8_t> bytes, std::uint32_t crc = 0);

/// The default modem image: 12 MB, items of all classes that the library writes differently.
ImagePlan ModemImagePlan(std::uint32_t seed = 1);
/// The default NVM image: 200 KB, one item.
ImagePlan NvmImagePlan(std::uint32_t seed = 2);
/// A small one-item image (at most 64 KB) that does not meet the others in the flash memory.
ImagePlan SmallImagePlan(std::uint32_t seed, std::uint32_t size = 64 * 1024,
                         std::uint32_t flashOffset = 0xE00000);

FlashImage BuildImage(const ImagePlan& plan, ImageDamage damage = ImageDamage::None);
/// Length of header and table for a number of items, and the smallest header that tells that number.
inline constexpr std::size_t kImageHeaderSize = 32;
std::size_t ImageTableEnd(std::uint32_t items);
/// Number of items according to a header, 0 when it is none.
std::uint32_t ImageItemCount(std::span<const std::uint8_t> header);
/// Reads header and table of contents, whose checksum must be right; `file` of the result stays empty.
std::optional<FlashImage> ParseImageTable(std::span<const std::uint8_t> bytes);

/// Nothing when the bytes are no sound image; items' own checksums are not looked at.
std::optional<FlashImage> ParseImage(std::vector<std::uint8_t> file);
std::optional<FlashImage> LoadImageFile(const std::filesystem::path& path);
/// @return false when the file could not be written whole.
bool SaveImageFile(const FlashImage& image, const std::filesystem::path& path);
/// Writes the two default images. @return false when either could not be written.
bool MakeDefaultImages(const std::filesystem::path& modem, const std::filesystem::path& nvm);

}  // namespace simulator
