// The smallest correct controlling program: asks the flash service for one flash and waits for its end.
//
//   controller KEY [SECONDS]     for example: controller HKLM\SOFTWARE\Quenta\FlashService 900
//
// The images lie in the service's folder already. Exit status: 0 flashed, 1 failed, 2 wrong usage,
// 3 no end (no service took the request, it fell silent, the time limit passed, or Ctrl+C), 4 the registry
// refused.
// Run against a played service and a simulated modem, under Wine; not yet on Windows.

#include <cstdio>
#include <cwchar>

#include <corvel/controller.h>

namespace {

constexpr unsigned long kLongestLimit = 1000000;

HANDLE g_interruption = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);

BOOL WINAPI Interrupt(DWORD) {
  return ::SetEvent(g_interruption);
}

/// @return 0 for anything but a whole number of seconds from 1 to 1000000.
unsigned long ParseSeconds(const wchar_t* text) {
  const std::size_t length = std::wcslen(text);
  if (length == 0 || length > 7 || std::wcsspn(text, L"0123456789") != length) return 0;
  const unsigned long seconds = std::wcstoul(text, nullptr, 10);
  return seconds <= kLongestLimit ? seconds : 0;
}

void Show(const corvel::FlashValues& now) {
  std::printf("Flash_Result %u, %u %%\n", now.result.value_or(0), now.progress.value_or(0));
  std::fflush(stdout);
}

struct Text {
  int status;
  const char* words;
};

Text TextOf(corvel::FlashEnding ending) {
  switch (ending) {
    case corvel::FlashEnding::Succeeded:
      return {0, "Flash_Result 4: flashed"};
    case corvel::FlashEnding::Failed:
      return {1, "Flash_Result 3: failed: the service's log says why"};
    case corvel::FlashEnding::Unknown:
      return {1, "not flashed: the request was taken back"};
    case corvel::FlashEnding::NotTaken:
      return {3, "Nobody took the request: is the service running?"};
    case corvel::FlashEnding::Silent:
      return {3, "The service fell silent: it has died."};
    case corvel::FlashEnding::TimedOut:
      return {3, "The time limit passed; the flash goes on."};
    case corvel::FlashEnding::Cancelled:
      return {3, "Interrupted; a flash that has begun goes on."};
    default:
      return {4, "The registry refused: run as an administrator."};
  }
}

}  // namespace

int wmain(int count, wchar_t** words) {
  const auto key = count >= 2 ? corvel::FlashKey::Parse(words[1]) : std::nullopt;
  const unsigned long seconds = count >= 3 ? ParseSeconds(words[2]) : 900;
  if (count > 3 || !key || seconds == 0) {
    std::fprintf(stderr, "usage: controller HKLM\\KEY [SECONDS]\nSECONDS: 1 to %lu\n", kLongestLimit);
    return 2;
  }
  ::SetConsoleCtrlHandler(Interrupt, TRUE);
  corvel::FlashRequest request;
  request.limit = std::chrono::seconds(seconds);
  request.onProgress = Show;
  request.cancellation = g_interruption;
  const corvel::FlashOutcome outcome = corvel::Flash(*key, request);
  const Text text = TextOf(outcome.ending);
  std::fprintf(text.status < 2 ? stdout : stderr, "%s\n", text.words);
  if (outcome.error != ERROR_SUCCESS) std::fprintf(stderr, "Error %lu.\n", outcome.error);
  return text.status;
}
