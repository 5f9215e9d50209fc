#include "simulator/flash_image.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <iterator>
#include <utility>

namespace simulator {

namespace {

constexpr std::array<std::uint8_t, 8> kMagic{'C', 'V', 'I', 'M', 'A', 'G', 'E', 0x1A};
constexpr std::uint32_t kVersion = 1;
constexpr std::size_t kItemRowSize = 32;
constexpr std::uint32_t kMaximumItems = 256;

// Places of the header's fields.
constexpr std::size_t kVersionAt = 8;
constexpr std::size_t kTechnologyAt = 12;
constexpr std::size_t kItemCountAt = 16;
constexpr std::size_t kFileSizeAt = 20;
constexpr std::size_t kChecksumAt = 28;

std::uint32_t ReadWord(std::span<const std::uint8_t> bytes, std::size_t at) {
  return static_cast<std::uint32_t>(bytes[at]) | static_cast<std::uint32_t>(bytes[at + 1]) << 8 |
         static_cast<std::uint32_t>(bytes[at + 2]) << 16 | static_cast<std::uint32_t>(bytes[at + 3]) << 24;
}

void WriteWord(std::span<std::uint8_t> bytes, std::size_t at, std::uint32_t value) {
  for (std::size_t i = 0; i < 4; ++i) bytes[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
}

/// The checksum covers the header before itself and the whole table.
std::uint32_t TableChecksum(std::span<const std::uint8_t> bytes, std::size_t tableEnd) {
  const std::uint32_t header = Crc32(bytes.first(kChecksumAt));
  return Crc32(bytes.subspan(kImageHeaderSize, tableEnd - kImageHeaderSize), header);
}

ImageItem ReadItem(std::span<const std::uint8_t> row) {
  return {ReadWord(row, 0), ReadWord(row, 4), ReadWord(row, 8), ReadWord(row, 12), ReadWord(row, 16)};
}

void WriteItem(std::span<std::uint8_t> row, const ImageItem& item) {
  WriteWord(row, 0, item.memoryClass);
  WriteWord(row, 4, item.flashOffset);
  WriteWord(row, 8, item.dataOffset);
  WriteWord(row, 12, item.size);
  WriteWord(row, 16, item.crc32);
}

/// xorshift: the same bytes on every machine, none of them compressible or repeated.
void FillWithNoise(std::span<std::uint8_t> bytes, std::uint32_t seed) {
  std::uint32_t state = seed * 2654435761u + 1;
  for (auto& byte : bytes) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    byte = static_cast<std::uint8_t>(state >> 24);
  }
}

void WriteHeader(FlashImage& image) {
  const std::span<std::uint8_t> bytes(image.file);
  std::ranges::copy(kMagic, bytes.begin());
  WriteWord(bytes, kVersionAt, kVersion);
  WriteWord(bytes, kTechnologyAt, image.flashTechnology);
  WriteWord(bytes, kItemCountAt, static_cast<std::uint32_t>(image.items.size()));
  WriteWord(bytes, kFileSizeAt, static_cast<std::uint32_t>(bytes.size()));
  const std::size_t tableEnd = ImageTableEnd(static_cast<std::uint32_t>(image.items.size()));
  for (std::size_t i = 0; i < image.items.size(); ++i) {
    WriteItem(bytes.subspan(kImageHeaderSize + i * kItemRowSize, kItemRowSize), image.items[i]);
  }
  WriteWord(bytes, kChecksumAt, TableChecksum(bytes, tableEnd));
}

void Spoil(FlashImage& image, ImageDamage damage) {
  const std::size_t tableEnd = ImageTableEnd(static_cast<std::uint32_t>(image.items.size()));
  switch (damage) {
    case ImageDamage::None:
      return;
    case ImageDamage::Magic:
      image.file[0] ^= 0xFF;
      return;
    case ImageDamage::HeaderChecksum:
      image.file[kChecksumAt] ^= 0xFF;
      return;
    case ImageDamage::TruncatedTable:
      image.file.resize(tableEnd - kItemRowSize / 2);
      return;
    case ImageDamage::TruncatedData:
      image.file.resize(image.file.size() - 1);
      return;
    case ImageDamage::ItemChecksum:
      image.file.back() ^= 0xFF;
      return;
  }
}

bool LiesInFile(const ImageItem& item, std::size_t tableEnd, std::size_t fileSize) {
  return item.dataOffset >= tableEnd && item.dataOffset <= fileSize &&
         item.size <= fileSize - item.dataOffset;
}

}  // namespace

std::span<const std::uint8_t> FlashImage::Bytes(const ImageItem& item) const {
  return std::span(file).subspan(item.dataOffset, item.size);
}

std::uint32_t Crc32(std::span<const std::uint8_t> bytes, std::uint32_t crc) {
  static constexpr auto kTable = [] {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t i = 0; i < 256; ++i) {
      std::uint32_t value = i;
      for (int bit = 0; bit < 8; ++bit) value = (value >> 1) ^ ((value & 1) != 0 ? 0xEDB88320u : 0u);
      table[i] = value;
    }
    return table;
  }();
  crc = ~crc;
  for (const std::uint8_t byte : bytes) crc = (crc >> 8) ^ kTable[(crc ^ byte) & 0xFF];
  return ~crc;
}

ImagePlan ModemImagePlan(std::uint32_t seed) {
  constexpr std::uint32_t kKib = 1024;
  ImagePlan plan;
  plan.seed = seed;
  std::uint32_t offset = 0;
  const auto add = [&](MemoryClass memoryClass, std::uint32_t size) {
    plan.items.push_back({memoryClass, size, offset});
    offset += size;
  };
  add(MemoryClass::Psi, 64 * kKib);
  add(MemoryClass::Ebl, 256 * kKib);
  add(MemoryClass::Code, 7168 * kKib);
  add(MemoryClass::Cust, 512 * kKib);
  add(MemoryClass::StaticEep, 128 * kKib);
  add(MemoryClass::StaticFfs, 1024 * kKib);
  add(MemoryClass::DynamicFfs, 1024 * kKib);
  add(MemoryClass::RootDisk, 2048 * kKib);
  add(MemoryClass::Certificate, 64 * kKib);
  return plan;
}

ImagePlan NvmImagePlan(std::uint32_t seed) {
  return {{{MemoryClass::Cust, 200 * 1024, 0xC00000}}, 1, seed};
}

ImagePlan SmallImagePlan(std::uint32_t seed, std::uint32_t size, std::uint32_t flashOffset) {
  return {{{MemoryClass::Cust, size, flashOffset}}, 1, seed};
}

FlashImage BuildImage(const ImagePlan& plan, ImageDamage damage) {
  FlashImage image;
  image.flashTechnology = plan.flashTechnology;
  std::size_t offset = ImageTableEnd(static_cast<std::uint32_t>(plan.items.size()));
  for (const auto& item : plan.items) {
    image.items.push_back({static_cast<std::uint32_t>(item.memoryClass), item.flashOffset,
                           static_cast<std::uint32_t>(offset), item.size, 0});
    offset += item.size;
  }
  image.file.resize(offset);
  for (std::size_t i = 0; i < image.items.size(); ++i) {
    auto& item = image.items[i];
    FillWithNoise(std::span(image.file).subspan(item.dataOffset, item.size),
                  plan.seed + static_cast<std::uint32_t>(i) * 7919);
    item.crc32 = Crc32(image.Bytes(item));
  }
  WriteHeader(image);
  Spoil(image, damage);
  return image;
}

std::size_t ImageTableEnd(std::uint32_t items) {
  return kImageHeaderSize + items * kItemRowSize;
}

std::uint32_t ImageItemCount(std::span<const std::uint8_t> header) {
  if (header.size() < kImageHeaderSize || !std::ranges::equal(header.first(kMagic.size()), kMagic)) return 0;
  if (ReadWord(header, kVersionAt) != kVersion) return 0;
  const std::uint32_t count = ReadWord(header, kItemCountAt);
  return count <= kMaximumItems ? count : 0;
}

std::optional<FlashImage> ParseImageTable(std::span<const std::uint8_t> bytes) {
  const std::uint32_t count = ImageItemCount(bytes);
  const std::size_t tableEnd = ImageTableEnd(count);
  if (count == 0 || bytes.size() < tableEnd) return std::nullopt;
  if (ReadWord(bytes, kChecksumAt) != TableChecksum(bytes, tableEnd)) return std::nullopt;

  FlashImage image;
  image.flashTechnology = ReadWord(bytes, kTechnologyAt);
  const std::size_t fileSize = ReadWord(bytes, kFileSizeAt);
  for (std::uint32_t i = 0; i < count; ++i) {
    image.items.push_back(ReadItem(bytes.subspan(kImageHeaderSize + i * kItemRowSize, kItemRowSize)));
    if (!LiesInFile(image.items.back(), tableEnd, fileSize)) return std::nullopt;
  }
  return image;
}

std::optional<FlashImage> ParseImage(std::vector<std::uint8_t> file) {
  auto image = ParseImageTable(file);
  if (!image || ReadWord(file, kFileSizeAt) != file.size()) return std::nullopt;
  image->file = std::move(file);
  return image;
}

std::optional<FlashImage> LoadImageFile(const std::filesystem::path& path) {
  std::ifstream stream(path, std::ios::binary);
  if (!stream) return std::nullopt;
  stream.seekg(0, std::ios::end);
  const std::streamoff size = stream.tellg();
  if (size < 0) return std::nullopt;
  std::vector<std::uint8_t> file(static_cast<std::size_t>(size));
  stream.seekg(0);
  stream.read(reinterpret_cast<char*>(file.data()), size);
  if (!stream) return std::nullopt;
  return ParseImage(std::move(file));
}

bool SaveImageFile(const FlashImage& image, const std::filesystem::path& path) {
  std::ofstream stream(path, std::ios::binary | std::ios::trunc);
  stream.write(reinterpret_cast<const char*>(image.file.data()),
               static_cast<std::streamsize>(image.file.size()));
  stream.flush();
  return stream.good();
}

bool MakeDefaultImages(const std::filesystem::path& modem, const std::filesystem::path& nvm) {
  return SaveImageFile(BuildImage(ModemImagePlan()), modem) && SaveImageFile(BuildImage(NvmImagePlan()), nvm);
}

}  // namespace simulator
