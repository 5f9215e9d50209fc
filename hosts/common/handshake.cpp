#include "hosts/common/handshake.h"

#include <cwctype>

#include "hosts/common/owners.h"
#include "hosts/common/text.h"

namespace hosts {

namespace {

std::string MeaningOfReady(std::optional<std::uint32_t> ready) {
  if (!ready) return "never raised";
  return *ready == 1 ? "a flash is asked for" : "no flash is asked for";
}

std::string MeaningOfRetries(std::optional<std::uint32_t> retries) {
  if (!retries) return "absent: up to 3 retries";
  return "up to " + std::to_string(*retries) + (*retries == 1 ? " retry" : " retries");
}

std::string MeaningOfTimeOut(std::optional<std::uint32_t> timeOut) {
  return timeOut ? std::to_string(*timeOut / 1000) + " s for one attempt and the modem's return"
                 : "not yet written";
}

std::string MeaningOfOnGoing(std::optional<std::uint32_t> onGoing, Writer writer) {
  if (!onGoing) return "not yet written";
  if (*onGoing != 1) return "no job is running";
  return writer == Writer::Gone ? "no job is running: the last one was cut short, or ended in failure"
                                : "a job is running, or its last attempt ended in failure";
}

std::string MeaningOfProgress(std::optional<std::uint32_t> progress) {
  return progress ? std::to_string(*progress) + " % of the images are written" : "not yet written";
}

DWORD TryToOpen(HKEY root, const std::wstring& path, REGSAM access) {
  HKEY opened = nullptr;
  const LSTATUS status = ::RegOpenKeyExW(root, path.c_str(), 0, access, &opened);
  const OwnedKey owner(opened);
  return static_cast<DWORD>(status);
}

}  // namespace

std::string HandshakeKey::Text() const {
  return ToUtf8(rootName + L"\\" + path);
}

std::wstring HandshakeKey::Identity() const {
  // The registry knows no case, and takes any number of separators for one.
  std::wstring identity = std::to_wstring(reinterpret_cast<std::uintptr_t>(root)) + L'\\';
  for (const wchar_t unit : path) {
    if (unit != L'\\' || identity.back() != L'\\') identity += static_cast<wchar_t>(std::towupper(unit));
  }
  while (identity.back() == L'\\') identity.pop_back();
  return identity;
}

Handshake ReadHandshake(const HandshakeKey& key) {
  return corvel::ReadFlashValues(key.root, key.path.c_str());
}

std::string MeaningOfResult(std::optional<std::uint32_t> result, Writer writer) {
  if (!result) return "never written";
  const bool wasCutShort = writer == Writer::Gone;
  switch (static_cast<FlashResult>(*result)) {
    case FlashResult::Idle:
      return "idle";
    case FlashResult::Flashing:
      return wasCutShort ? "cut short while flashing: no host runs" : "flashing";
    case FlashResult::Retrying:
      return wasCutShort ? "cut short while retrying: no host runs" : "retrying";
    case FlashResult::Failed:
      return "failed";
    case FlashResult::Succeeded:
      return "succeeded";
  }
  return "unknown";
}

std::vector<HandshakeLine> Describe(const Handshake& values, Writer writer) {
  return {{kReadyValue, values.ready, MeaningOfReady(values.ready)},
          {kRetryTimesValue, values.retryTimes, MeaningOfRetries(values.retryTimes)},
          {kTimeOutValue, values.timeOut, MeaningOfTimeOut(values.timeOut)},
          {kOnGoingValue, values.onGoing, MeaningOfOnGoing(values.onGoing, writer)},
          {kProgressValue, values.progress, MeaningOfProgress(values.progress)},
          {kResultValue, values.result, MeaningOfResult(values.result, writer)}};
}

DWORD WriteHandshakeValue(const HandshakeKey& key, const wchar_t* name, std::uint32_t value) {
  return static_cast<DWORD>(
      ::RegSetKeyValueW(key.root, key.path.c_str(), name, REG_DWORD, &value, sizeof value));
}

DWORD CheckHandshakeKeyWritable(const HandshakeKey& key) {
  DWORD error = TryToOpen(key.root, key.path, KEY_ALL_ACCESS);
  // What is not there is made below the nearest key that is. The roots themselves are always there.
  for (std::wstring path = key.path; error == ERROR_FILE_NOT_FOUND;) {
    const std::size_t separator = path.rfind(L'\\');
    if (separator == std::wstring::npos) return ERROR_SUCCESS;
    path.resize(separator);
    error = TryToOpen(key.root, path, KEY_CREATE_SUB_KEY);
  }
  return error;
}

HandshakeWatch::HandshakeWatch(const HandshakeKey& key) : FlashKeyWatch({key.root, key.path}) {
  if (Event() == nullptr) ThrowLastError("An event cannot be made");
}

}  // namespace hosts
