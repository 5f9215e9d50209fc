#include "hosts/common/file_digest.h"

#include <bcrypt.h>

#include <array>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <vector>

#include "hosts/common/owners.h"

namespace hosts {

namespace {

constexpr std::size_t kDigestSize = 32;
constexpr DWORD kPieceSize = 1024 * 1024;

struct AlgorithmCloser {
  using pointer = BCRYPT_ALG_HANDLE;
  void operator()(BCRYPT_ALG_HANDLE algorithm) const noexcept {
    ::BCryptCloseAlgorithmProvider(algorithm, 0);
  }
};
struct HashDestroyer {
  using pointer = BCRYPT_HASH_HANDLE;
  void operator()(BCRYPT_HASH_HANDLE hash) const noexcept { ::BCryptDestroyHash(hash); }
};

void ThrowUnlessDone(NTSTATUS status) {
  if (status >= 0) return;
  char text[64];
  std::snprintf(text, sizeof text, "Windows computes no SHA-256 (0x%08lX)",
                static_cast<unsigned long>(status));
  throw std::runtime_error(text);
}

class Sha256 {
 public:
  Sha256() {
    BCRYPT_ALG_HANDLE algorithm = nullptr;
    ThrowUnlessDone(::BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_SHA256_ALGORITHM, nullptr, 0));
    m_Algorithm.reset(algorithm);
    BCRYPT_HASH_HANDLE hash = nullptr;
    ThrowUnlessDone(::BCryptCreateHash(algorithm, &hash, nullptr, 0, nullptr, 0, 0));
    m_Hash.reset(hash);
  }

  void Add(std::vector<UCHAR>& bytes, DWORD size) {
    ThrowUnlessDone(::BCryptHashData(m_Hash.get(), bytes.data(), size, 0));
  }
  std::string Finish() {
    std::array<UCHAR, kDigestSize> digest{};
    ThrowUnlessDone(::BCryptFinishHash(m_Hash.get(), digest.data(), kDigestSize, 0));
    std::string text;
    for (const UCHAR byte : digest) {
      char digits[3];
      std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned int>(byte));
      text += digits;
    }
    return text;
  }

 private:
  std::unique_ptr<void, AlgorithmCloser> m_Algorithm;
  std::unique_ptr<void, HashDestroyer> m_Hash;
};

}  // namespace

FileDigest DigestOf(const std::wstring& path) {
  const HANDLE opened =
      ::CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (opened == INVALID_HANDLE_VALUE) return {.error = ::GetLastError(), .sha256 = {}};
  const OwnedHandle file(opened);
  Sha256 sha256;
  std::vector<UCHAR> piece(kPieceSize);
  for (DWORD size = 0;;) {
    if (!::ReadFile(file.get(), piece.data(), kPieceSize, &size, nullptr)) {
      return {.error = ::GetLastError(), .sha256 = {}};
    }
    if (size == 0) return {.error = ERROR_SUCCESS, .sha256 = sha256.Finish()};
    sha256.Add(piece, size);
  }
}

}  // namespace hosts
