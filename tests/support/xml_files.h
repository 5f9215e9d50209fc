#pragma once

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

// XML_DATA_FOLDER holds the checked-in documents, XML_WRITTEN_FOLDER takes what tests leave for the parser of
// the build machine. Both are the build's macros.

inline std::string ReadBytes(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// A path that does not depend on the current drive.
inline std::wstring FullPath(const std::filesystem::path& path) {
  wchar_t full[MAX_PATH]{};
  ::GetFullPathNameW(path.c_str(), MAX_PATH, full, nullptr);
  return full;
}

inline std::wstring CheckedInDocument(const std::wstring& name) {
  return FullPath(std::filesystem::path(XML_DATA_FOLDER) / name);
}

/// A path for a document to be written; one of an earlier run is gone.
inline std::wstring NewDocumentForTheBuildMachine(const std::wstring& name) {
  std::filesystem::create_directories(XML_WRITTEN_FOLDER);
  std::wstring path = FullPath(std::filesystem::path(XML_WRITTEN_FOLDER) / name);
  ::DeleteFileW(path.c_str());
  return path;
}

inline std::wstring DocumentForTheBuildMachine(const std::wstring& name) {
  return FullPath(std::filesystem::path(XML_WRITTEN_FOLDER) / name);
}

/// The bytes of a document in one of the ways in which implementations write the same one: double quotes in
/// the declaration, LF as line end, and one at the end of the file.
inline std::string SameWriting(std::string bytes) {
  const std::size_t declarationEnd = bytes.find("?>");
  for (std::size_t i = 0; i < bytes.size() && i < declarationEnd; ++i) {
    if (bytes[i] == '\'') bytes[i] = '"';
  }
  std::erase(bytes, '\r');
  if (!bytes.ends_with('\n')) bytes += '\n';
  return bytes;
}

/// A text in UTF-16 with its byte-order mark.
inline std::string Utf16Bytes(std::wstring_view text, bool bigEndian) {
  std::string bytes;
  for (const wchar_t unit : std::wstring(1, L'\xFEFF') + std::wstring(text)) {
    const char low = static_cast<char>(unit & 0xFF);
    const char high = static_cast<char>((unit >> 8) & 0xFF);
    bytes += bigEndian ? high : low;
    bytes += bigEndian ? low : high;
  }
  return bytes;
}
