#include "hosts/cmdline/digest_list.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <utility>

#include "hosts/cmdline/image_folder.h"
#include "hosts/common/text.h"

namespace hosts {

namespace {

constexpr std::size_t kDigestLength = 64;
/// Behind the digest: a blank, and a blank or an asterisk for how the file was read.
constexpr std::size_t kNameBegins = kDigestLength + 2;
constexpr char kByteOrderMark[] = "\xEF\xBB\xBF";

bool IsDigest(const std::string& text) {
  return text.size() == kDigestLength && std::ranges::all_of(text, [](char digit) {
           return std::isxdigit(static_cast<unsigned char>(digit));
         });
}

std::string InSmallLetters(std::string text) {
  std::ranges::transform(text, text.begin(), [](char letter) {
    return static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
  });
  return text;
}

/// A line that begins with a backslash has those of its name doubled.
std::string Unescaped(const std::string& name) {
  std::string plain;
  for (std::size_t i = 0; i < name.size(); ++i) {
    if (name[i] == '\\' && i + 1 < name.size()) ++i;
    plain += name[i];
  }
  return plain;
}

std::wstring WithoutFolder(const std::wstring& path) {
  return path.substr(path.find_last_of(L"\\/") + 1);
}

}  // namespace

DigestList DigestList::Read(const std::string& path) {
  DigestList list(path);
  std::ifstream file(std::filesystem::path(ToWide(path)), std::ios::binary);
  std::size_t number = 0;
  for (std::string line; std::getline(file, line);) {
    ++number;
    if (number == 1 && line.starts_with(kByteOrderMark)) line.erase(0, 3);
    if (line.ends_with('\r')) line.pop_back();
    const std::string problem = line.empty() ? "" : list.Take(std::move(line));
    if (problem.empty()) continue;
    list.m_Problem = path;
    list.m_Problem.append(", line ").append(std::to_string(number)).append(": ").append(problem);
    return list;
  }
  if (!file.is_open() || file.bad()) {
    list.m_Problem = path + " cannot be read";
  } else if (list.m_Entries.empty()) {
    list.m_Problem = path + " holds no digest";
  }
  return list;
}

std::string DigestList::Take(std::string line) {
  const bool isEscaped = line.front() == '\\';
  if (isEscaped) line.erase(0, 1);
  const std::string digest = InSmallLetters(line.substr(0, kDigestLength));
  const bool hasName = line.size() > kNameBegins && line[kDigestLength] == ' ' &&
                       (line[kDigestLength + 1] == ' ' || line[kDigestLength + 1] == '*');
  if (!IsDigest(digest) || !hasName) return "no line as sha256sum writes it";
  const std::string name = line.substr(kNameBegins);
  Entry entry{WithoutFolder(ToWide(isEscaped ? Unescaped(name) : name)), digest};
  const Entry* const other = Find(entry.name);
  if (other != nullptr && other->digest != digest) {
    return "another digest for " + ToUtf8(entry.name) + " than before";
  }
  m_Entries.push_back(std::move(entry));
  return {};
}

const DigestList::Entry* DigestList::Find(const std::wstring& name) const {
  const auto found =
      std::ranges::find_if(m_Entries, [&](const Entry& entry) { return IsSameName(entry.name, name); });
  return found == m_Entries.end() ? nullptr : &*found;
}

std::string DigestList::DigestOf(const std::wstring& file) const {
  const Entry* const entry = Find(WithoutFolder(file));
  return entry == nullptr ? std::string() : entry->digest;
}

}  // namespace hosts
