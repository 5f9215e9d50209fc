#pragma once

#include <string>
#include <utility>
#include <vector>

namespace hosts {

/// What images are to be: a file of SHA-256 digests as sha256sum writes it.
class DigestList {
 public:
  /// @param path in UTF-8.
  static DigestList Read(const std::string& path);

  /// What makes the list useless, in words without a full stop; empty when nothing does.
  const std::string& Problem() const { return m_Problem; }
  /// The digest of a file, which the list knows by its name without the folder; empty when it is not there.
  std::string DigestOf(const std::wstring& file) const;
  const std::string& Path() const { return m_Path; }

 private:
  struct Entry {
    std::wstring name;
    std::string digest;
  };

  explicit DigestList(std::string path) : m_Path(std::move(path)) {}
  /// @return what is wrong with the line; empty when nothing is.
  std::string Take(std::string line);
  const Entry* Find(const std::wstring& name) const;

  std::string m_Path;
  std::string m_Problem;
  std::vector<Entry> m_Entries;
};

}  // namespace hosts
