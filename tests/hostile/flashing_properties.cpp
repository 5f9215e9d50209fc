// What the flashing library hands out: texts of progress, and status texts without an end.

#include <windows.h>

#include <algorithm>

#include "download/attempt.h"
#include "download/downloadtooldll.h"
#include "download/firmwareboot.h"
#include "download/flashlibrary.h"
#include "download/flashservice.h"
#include "hostile/captured_log.h"
#include "hostile/guarded_memory.h"
#include "hostile/property.h"
#include "simulator/import_patch.h"
#include "toolkit/toolkit.h"

namespace hostile {

namespace {

using corvel::Attempt;

GuardedMemory& Guarded() {
  static GuardedMemory memory(1 << 16);
  return memory;
}

// --- Progress ---------------------------------------------------------------------------------------------

std::vector<int> g_told;

/// Percentages are kept here instead of in the registry.
class ProgressListener {
 public:
  ProgressListener() : m_Before(corvel::Service()) {
    corvel::FlashService service = m_Before;
    service.reportProgress = [](int percent) { g_told.push_back(percent); };
    corvel::RegisterFlashService(service);
  }
  ~ProgressListener() {
    Attempt::SetPresent(nullptr);
    corvel::RegisterFlashService(m_Before);
  }

 private:
  corvel::FlashService m_Before;
};

constexpr std::string_view kSending = "  - Sending data. (RAW mode)";

std::string MakeCallbacks(Random& random) {
  std::string calls(1, static_cast<char>(random.Next()));
  for (std::size_t i = random.Below(20) + 2; i > 0; --i) {
    const char status = random.Pick({'\x02', '\x02', '\x02', '\x04', '\x00', '\x07'});
    std::string text = random.Pick<std::string>(
        {"0", "50", "100", "-5", "+7", " 9", "007", "12abc", "", "99999999999", "\xC3\xA9", "1\xFF"});
    if (random.OneIn(4)) text = random.Bytes(random.Below(20));
    if (random.OneIn(2)) text = std::to_string(random.Below(101));
    if (status == 4) text = random.OneIn(3) ? "Erasing" : kSending;
    calls += std::string(1, status) + text + '\n';
  }
  return calls;
}

/// A number is digits, and a minus at most, at the very beginning.
int PercentByTheBook(const std::string& text) {
  std::size_t at = text.starts_with('-') ? 1 : 0;
  std::uint32_t number = 0;
  for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at)
    number = number * 10 + static_cast<std::uint32_t>(text[at] - '0');
  return static_cast<int>(text.starts_with('-') ? 0u - number : number);
}

/// Only while data is sent, and then one percentage for each report: from 0 to 100, and never back.
void CheckCallbacks(std::string_view input) {
  Choices choices(input);
  const auto attempt = std::make_shared<Attempt>();
  const auto bars = static_cast<std::uint32_t>(choices.Below(4) * 50 + 1);
  attempt->Progress().AddBars(bars);
  attempt->Progress().SetItem(bars);
  Attempt::SetPresent(attempt);
  corvel::Progress model;
  model.AddBars(bars);
  model.SetItem(bars);
  g_told.clear();
  std::vector<int> expected;
  bool sending = false;
  CDownloadToolDll::HandleCallbacks(0, 4, "");
  const std::string calls(choices.Rest());
  for (std::size_t from = 0; from < calls.size();) {
    const std::size_t end = std::min(calls.find('\n', from), calls.size());
    const int byte = static_cast<unsigned char>(calls[from]);
    const int status = byte < 128 ? byte : byte - 256;  // below zero, too
    std::string text = calls.substr(from + 1, end > from ? end - from - 1 : 0);
    text.resize(std::min(text.find('\0'), text.size()));
    CDownloadToolDll::HandleCallbacks(7, status, Guarded().Text(text));
    if (status == 4) sending = text == kSending;
    if (status == 2 && sending) {
      model.Report(PercentByTheBook(text));
      expected.push_back(model.Overall());
    }
    from = end + 1;
  }
  ExpectEqual("the percentages", g_told, expected);
  Expect(std::ranges::is_sorted(g_told), "a percentage goes back");
  Expect(g_told.empty() || (g_told.front() >= 0 && g_told.back() <= 100), "a percentage is none");
}

// --- Status texts -----------------------------------------------------------------------------------------

std::string g_status;
enum class Refusal { Open, Boot, Close };
Refusal g_refusal;

int Refuse(Refusal call, char* status) {
  if (call != g_refusal) return 0;
  std::ranges::copy(g_status, status);
  return 1;
}
std::uint8_t NextFreeChannel() {
  return 3;
}
int Open(std::uint8_t, const char*, const char*, std::uint32_t, char* status) {
  return Refuse(Refusal::Open, status);
}
int Boot(std::uint8_t, const char*, std::uint32_t*, char* status) {
  return Refuse(Refusal::Boot, status);
}
int RefuseCallback(corvel::FunctionTable::Callback*, char* status) {
  std::ranges::copy(g_status, status);
  return 1;
}
int CloseChannel(std::uint8_t, char* status) {
  return Refuse(Refusal::Close, status);
}

template <typename Function>
FARPROC Address(Function* function) {
  return reinterpret_cast<FARPROC>(function);
}

/// A library that refuses with the text of the case, and a clock that does not wait for it.
class RefusingLibrary {
 public:
  RefusingLibrary() {
    m_Patch.Replace("Sleep", &NoSleep);
    m_Patch.Replace("LoadLibraryW", &Load);
    m_Patch.Replace("GetProcAddress", &Find);
    m_Patch.Replace("GetModuleHandleExW", &AddReference);
    m_Patch.Replace("FreeLibrary", &Free);
    ToolKit::g_bIsFiveBranch = false;
  }
  ~RefusingLibrary() {
    CDownloadToolDll::Unload();
    ToolKit::g_bIsFiveBranch = true;
    ToolKit::g_retry_times = 0;
  }

 private:
  static void WINAPI NoSleep(DWORD) {}
  static HMODULE WINAPI Load(const wchar_t*) { return reinterpret_cast<HMODULE>(&g_status); }
  static FARPROC WINAPI Find(HMODULE, const char*) { return Address(&RefuseCallback); }
  static BOOL WINAPI AddReference(DWORD, const wchar_t*, HMODULE* module) {
    *module = Load(nullptr);
    return TRUE;
  }
  static BOOL WINAPI Free(HMODULE) { return TRUE; }

  CapturedLog m_Log;
  simulator::ImportPatch m_Patch{::GetModuleHandleW(L"toolkit_internals.dll")};
};

/// All that the library knows the buffer to hold, without an end.
std::string MakeStatus(Random& random) {
  const std::size_t length =
      random.OneIn(2) ? corvel::kStatusTextSize : random.Below(corvel::kStatusTextSize);
  return static_cast<char>(random.Next()) + random.Text("abc %d\t\xE9\n", length);
}

/// The log tells the reason to its last letter, and nothing behind it.
void CheckStatus(std::string_view input) {
  Choices choices(input);
  const std::size_t refusal = choices.Below(3);
  std::string reason(choices.Bytes(corvel::kStatusTextSize));
  std::ranges::replace(reason, '\0', '0');
  g_status = reason;
  CapturedLog::Take();
  if (refusal == 2) {
    Expect(!CDownloadToolDll::Load(), "a refused callback is taken for a bound library");
    const std::string log = CapturedLog::Take();
    return Expect(CapturedLog::Tells(log, "PROGRESS: InitCallback failed due to " + reason + "\n"),
                  "the reason is not told: " + Quoted(log));
  }
  g_refusal = refusal == 0 ? Refusal::Open : Refusal::Boot;
  const auto library = std::make_shared<corvel::FlashLibrary>();
  library->functions[corvel::FlashSlot::GetNextFreeChannel] = Address(&NextFreeChannel);
  library->functions[corvel::FlashSlot::OpenCommPort] = Address(&Open);
  library->functions[corvel::FlashSlot::BootTarget] = Address(&Boot);
  library->functions[corvel::FlashSlot::CloseCommPort] = Address(&CloseChannel);
  const auto attempt = std::make_shared<Attempt>();
  attempt->SetLibrary(library);
  const auto boot = std::make_shared<corvel::FirmwareBoot>(attempt);
  ExpectEqual("the boot's outcome", boot->InjectBootTargetThread("image"), corvel::kBootFailed);
  const std::string log = CapturedLog::Take();
  const std::string beginning =
      refusal == 0 ? "\t ERROR: Open Comm Port failed due to " : "\t ERROR: Boot Target failed due to ";
  Expect(CapturedLog::Tells(log, beginning + reason + ", call BB_RST\n"),
         "the reason is not told: " + Quoted(log));
}

}  // namespace

std::vector<Property> FlashingProperties() {
  return {{"progress-text", 10, &MakeCallbacks, &CheckCallbacks,
           [] { return std::shared_ptr<void>(std::make_shared<ProgressListener>()); }},
          {"status-text", 50, &MakeStatus, &CheckStatus,
           [] { return std::shared_ptr<void>(std::make_shared<RefusingLibrary>()); }}};
}

}  // namespace hostile
