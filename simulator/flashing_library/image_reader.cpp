#include "simulator/flashing_library/image_reader.h"

#include <charconv>
#include <system_error>

using corvel::OwnFileHandle;

namespace simulator {

namespace {

std::wstring WideFromUtf8(std::string_view text) {
  const int size = static_cast<int>(text.size());
  const int length = ::MultiByteToWideChar(CP_UTF8, 0, text.data(), size, nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(length), L'\0');
  ::MultiByteToWideChar(CP_UTF8, 0, text.data(), size, wide.data(), length);
  return wide;
}

}  // namespace

ImageReader::ImageReader(std::string_view path, DWORD sharing)
    : m_File(OwnFileHandle(::CreateFileW(WideFromUtf8(path).c_str(), GENERIC_READ, sharing, nullptr,
                                         OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr))) {
  if (!m_File) return;
  m_Header.resize(kImageHeaderSize);
  if (!ReadAt(0, m_Header)) return;
  m_Header.resize(ImageTableEnd(ImageItemCount(m_Header)));
  if (ReadAt(0, m_Header)) m_Table = ParseImageTable(m_Header);
}

bool ImageReader::ReadAt(std::uint32_t offset, std::span<std::uint8_t> bytes) const {
  OVERLAPPED place{};
  place.Offset = offset;
  DWORD read = 0;
  return ::ReadFile(m_File.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &read, &place) &&
         read == bytes.size();
}

std::optional<ItemName> ParseItemName(std::string_view name) {
  const auto bar = name.find('|', 1);
  if (name.empty() || name.front() != '|' || bar == std::string_view::npos) return std::nullopt;
  ItemName item;
  const char* const end = name.data() + bar;
  const auto [stop, error] = std::from_chars(name.data() + 1, end, item.index);
  if (error != std::errc{} || stop != end) return std::nullopt;
  item.path = name.substr(bar + 1);
  return item;
}

}  // namespace simulator
