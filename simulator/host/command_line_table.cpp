// Where the command line differs from the service. All that is not said here is the same: the
// scenarios' own table holds for both.

#include "simulator/host/command_line_table.h"
#include "simulator/program/scenarios/scenario_table.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <set>
#include <string_view>

namespace simulator {

namespace {

constexpr unsigned long kFlashed = 0;
constexpr unsigned long kFlashFailed = 1;
constexpr unsigned long kNoImages = 3;
constexpr unsigned long kNotReady = 4;

// --- In every scenario -----------------------------------------------------------------------------------

/// Where the service begins its next pass, the command line has ended.
constexpr std::string_view kNextPass = "\t Start a new loop process...";

/// How texts of the service begin, and how the command line's begin in their place. The service's are never
/// said.
struct TextDifference {
  std::string_view service;
  std::string_view commandLine;
};
constexpr TextDifference kTexts[] = {
    {"\t MainThreadImplementation ++", "++ MainThreadImplementation"},
    {kNextPass, "\t start a new loop process"},
    {"\t DownloadFirmwareImplementation timeout: ", "DownloadFirmwareImplementation timeout: "},
    {"\t Flash FAILED, goto Flash_FAILED", "Flash NOT success, goto Flash_FAILED"},
    {"\t Flash TIMEOUT or other issue, goto Flash_FAILED", "Flash timeout or other issue, goto Flash_FAILED"},
    {"\t Flash FAIL, retry again", "Flash FAIL, retry again"},
    {"\t After unload dll, wait 5s for UDE CALL BB_RST", "After unload dll, wait 4s for UDE CALL BB_RST"},
    {"\t Flash OK, to wait for MBIM Modem re-arrival", "Flash OK, to wait for MBIM Modem re-arrival"},
    {"\t Wait Modem re-arrival timeout or other issue, Let's check it last time",
     "\t Wait Modem re-arrival timeout or other issue, call BB_RST"},
    {"\t Flash FAIL when reach the maximum retry time.",
     "\t Flash still failed after reach maximum retry value."},
};

/// "Flash_OnGoing" stays 1 where a job ends in a failed download: nobody begins another pass and clears it.
constexpr const char* kEndsInFailedDownload[] = {
    "download-fails-no-retries",
    "download-fails-default-limit",
    "download-fails-stated-limit",
    "parameters-refused",
    "no-progress-steps",
    "library-hangs-past-the-job",
    "boot-refused-always",
    "boot-refused-no-retries",
    "port-refused-always",
    "flash-port-never",
    "flash-port-lower-case",
    "write-fails-always",
    "reset-refused-always",
    "images-empty",
    "images-empty-nvm",
    "images-modem-locked",
    "images-nvm-locked",
    "images-nvm-read-by-other",
    "library-missing",
    "library-without-boot",
    "library-without-parameters",
    "driver-absent",
};

// --- Refused ---------------------------------------------------------------------------------------------

/// What the host sees before it asks for anything: nothing is written, neither registry nor log nor modem.
struct Refusal {
  const char* scenario;
  unsigned long exitCode;
  int imagesLeft;
  /// A controlling program may bring the same while the host waits for it; then the library meets it.
  bool mayComeLater;
};
constexpr Refusal kRefusals[] = {
    {"images-none", kNoImages, 0, true},
    {"images-no-folder", kNoImages, 0, true},
    {"images-empty", kNotReady, 1, true},
    {"images-empty-nvm", kNotReady, 2, true},
    {"images-modem-locked", kNotReady, 2, true},
    {"images-nvm-locked", kNotReady, 2, true},
    {"images-nvm-read-by-other", kNotReady, 2, true},
    {"config-missing", kNotReady, 2, false},
    {"config-locked", kNotReady, 2, false},
    {"config-empty", kNotReady, 2, false},
    {"config-one-line", kNotReady, 2, false},
};

// --- In single scenarios ---------------------------------------------------------------------------------

struct Difference {
  const char* scenario;
  const char* reason;
  std::optional<unsigned long> exitCode = std::nullopt;
  std::optional<std::uint32_t> ready = std::nullopt;
  std::optional<std::uint32_t> result = std::nullopt;
  std::optional<int> resets = std::nullopt;
  std::optional<int> workersBack = std::nullopt;
  std::optional<Memory> memory = std::nullopt;
  std::optional<ModemState> modem = std::nullopt;
  /// In place of the whole lists.
  std::optional<std::vector<LogText>> log = std::nullopt;
  std::optional<std::vector<const char*>> forbidden = std::nullopt;
};

const std::vector<Difference>& Differences() {
  static const std::vector<LogText> withoutImages{
      "\t flash flag changed to 1",
      "\t Can't find available fls, monitor again, continue to monitor registry change and fetch modem/nvm "
      "files"};
  static const std::vector<const char*> nothingBehind{
      "\t WriteRegistry Flash_OnGoing: 1", "\t WriteRegistry Flash_Result: 3", "\t DeleteFLSFiles"};
  static const std::vector<Difference> rows{
      {.scenario = "route-mbim",
       .reason = "the host loads the configuration, and the flashing library is loaded before the pass",
       .log = {{"Start LoadConfig ++",
                "VERSION: " CORVEL_VERSION,
                "++ MainThreadImplementation",
                "ToolKit::CheckModemBranch ++",
                "\t Flash Time_Out: 153000",
                "\t WriteRegistry Flash_OnGoing: 0",
                "\t WriteRegistry Flash_Progress: 0",
                "\t WriteRegistry Flash_Result: 0",
                "\t start a new loop process",
                "++ CDownloadToolDll::Load",
                "CDownloadToolDll::Load ,SetFunctionPointers()",
                "\t Initialze registry",
                "\t Flash Time_Out: 153000",
                "\t WriteRegistry Flash_OnGoing: 0",
                "\t Monitor flash ready flag to be ready",
                "MonitorFlashReadyFlag ++",
                "\t flash flag changed to 1",
                "MonitorFlashReadyFlag --",
                "\t WriteRegistry Flash_Progress: 0",
                "\t WriteRegistry Flash_Result: 0",
                "\t fetch modem & NVM folder, m_nModemNVMFolder:",
                "FetchModemNVMFls ++",
                "FetchModemNVMFls --",
                "\t IPC Type :USB",
                "\t WriteRegistry Flash_OnGoing: 1",
                "\t WriteRegistry Flash_Result: 1",
                "DownloadFirmwareImplementation timeout: 130s",
                "\t Download finished, result: 1",
                "\t WriteRegistry Flash_Progress: 100",
                "ToolKit::DownloadFirmwareImplementation --, result: 1",
                "Flash OK, to wait for MBIM Modem re-arrival",
                "\t MBIM modem re-found",
                "\t check m_MBIM_Modem_presence: 1, Re-arrived",
                "\t MBIM Modem re-arrival, FW update OK",
                "\t WriteRegistry Flash_OnGoing: 0",
                "\t WriteRegistry Flash_Result: 4",
                "\t Unload ++",
                "CDownloadToolDll::Unload, release library",
                "\t Unload --",
                Error("\t DeleteFLSFiles ++"),
                Error("\t DeleteFLSFiles --")}},
       .forbidden = {{"\t to GetLabelsLocation", "\t to create MainThreadImplementation",
                      "RebootModemByXlog4", "BB_RST"}}},
      {.scenario = "library-hangs-past-the-job",
       .reason = "the process ends under the hanging download: nothing is written, the port stays open",
       .workersBack = 3,
       .memory = Memory::Untouched,
       .modem = ModemState::Booted},
      {.scenario = "mbim-slow",
       .reason = "the process ends under the abandoned attempt",
       .workersBack = 1,
       .log = {{"\t to SetCommand", Error("Flash timeout or other issue, goto Flash_FAILED"),
                Error("Flash FAIL, retry again, g_retry_times: 1(Max 3)"),
                "\t Flash port available. Getting flash port path", "\t WriteRegistry Flash_Result: 4"}}},
      {.scenario = "return-at-last-check",
       .reason = "there is no last look: the modem is reset, and found by the next wait",
       .resets = 1,
       .log = {{Error("\t Wait Modem re-arrival timeout or other issue, call BB_RST"),
                Error("\t MBIM device not arrival, retry again, 1(Max 3)"),
                "\t WriteRegistry Flash_Result: 2", "\t Unload ++", "TriggerFlashReset ++",
                "TriggerFlashReset --", "\t MBIM modem re-found", "\t MBIM Modem re-arrival, FW update OK",
                "\t WriteRegistry Flash_Result: 4"}},
       .forbidden = {{"\t MBIM device not arrival, retry again, 2"}}},
      {.scenario = "images-none",
       .reason = "the job ends where it stands: no result, and the controlling program's flag stays",
       .exitCode = kNoImages,
       .ready = 1,
       .result = 0,
       .log = withoutImages,
       .forbidden = nothingBehind},
      {.scenario = "images-no-folder",
       .reason = "the same",
       .exitCode = kNoImages,
       .ready = 1,
       .result = 0,
       .log = withoutImages,
       .forbidden = nothingBehind},
      {.scenario = "config-odd-lines",
       .reason = "the bus comes from the command line, the key is the command line's own",
       .log = {{"\t get Config Var,  : a value without a key", "\t get Config Var, [UNKNOWN] : 1",
                "\t get Config Var, [TraceLevel] : 1 and more",
                "\t get Config Var, [RegistryLocation] : HKLM\\SOFTWARE\\Corvel\\LaterLinesWin",
                "\t get Config Var, [RegistryLocation] : HKLM\\SOFTWARE\\Corvel\\NotUsed",
                "\t get Config Var, [IPCTYPE] : pcie", "\t get Config Var, [ERASEMODE] : 7",
                "\t get Config Var, [REBOOTTYPE] : 1", "\t get Config Var, [REBOOTTYPE]  : 0",
                "\t IPC Type :USB", "++ use IPCType: USB", "RebootModemByXlog4 ++",
                "\t WriteRegistry Flash_Result: 4"}},
       .forbidden = {{"mMainKey:", "TitleLinesDoNotCount", "a comment", "no equals sign"}}},
  };
  return rows;
}

// --- How the tables are read -----------------------------------------------------------------------------

/// Rows of texts are pointers: what is made here has to stay.
const char* Kept(std::string text) {
  static std::set<std::string> texts;
  return texts.insert(std::move(text)).first->c_str();
}

const char* InWordsOfCommandLine(std::string_view text) {
  for (const TextDifference& each : kTexts) {
    if (!text.starts_with(each.service)) continue;
    return Kept(std::string(each.commandLine) + std::string(text.substr(each.service.size())));
  }
  return text.data();
}

void Translate(std::vector<const char*>& texts) {
  std::ranges::transform(texts, texts.begin(), InWordsOfCommandLine);
}

void Translate(std::vector<LogText>& texts) {
  std::ranges::transform(texts, texts.begin(),
                         [](const LogText& text) { return text.With(InWordsOfCommandLine(text.Text())); });
}

template <typename Row, std::size_t Size>
const Row* Find(const Row (&rows)[Size], std::string_view scenario) {
  const auto found = std::ranges::find(rows, scenario, &Row::scenario);
  return found == std::end(rows) ? nullptr : found;
}

bool EndsInFailedDownload(std::string_view scenario) {
  return std::ranges::find(kEndsInFailedDownload, scenario) != std::end(kEndsInFailedDownload);
}

CommandLineExpectation Refused(const Refusal& refusal, const Setup& setup) {
  CommandLineExpectation all{
      .exitCode = refusal.exitCode, .expected = {}, .reason = "the host looks before it asks, and refuses"};
  all.expected.values.retryTimes = setup.retryTimes;
  all.expected.memory = Memory::Untouched;
  all.expected.imagesLeft = refusal.imagesLeft;
  // Every record holds the empty text.
  all.expected.forbidden = {""};
  return all;
}

template <typename Value, typename Target>
void Take(const std::optional<Value>& value, Target& target) {
  if (value) target = *value;
}

void Apply(const Difference& row, CommandLineExpectation& all) {
  Expectation& expected = all.expected;
  all.reason = row.reason;
  Take(row.exitCode, all.exitCode);
  Take(row.ready, expected.values.ready);
  Take(row.result, expected.values.result);
  Take(row.resets, expected.resets);
  Take(row.workersBack, expected.workersBack);
  Take(row.memory, expected.memory);
  Take(row.modem, expected.modem);
  Take(row.log, expected.log);
  Take(row.forbidden, expected.forbidden);
}

}  // namespace

CommandLineExpectation ExpectedOfCommandLine(const Scenario& scenario, Asker asker) {
  const std::string_view name = scenario.name;
  const Refusal* const refusal = Find(kRefusals, name);
  if (refusal != nullptr && asker == Asker::Host) return Refused(*refusal, scenario.setup);

  CommandLineExpectation all{.exitCode = kFlashed, .expected = scenario.expected, .reason = {}};
  Expectation& expected = all.expected;
  if (expected.values.result != static_cast<std::uint32_t>(hosts::FlashResult::Succeeded)) {
    all.exitCode = kFlashFailed;
  }
  const auto nextPass =
      std::ranges::find(expected.log, kNextPass, [](const LogText& text) { return text.Text(); });
  expected.log.erase(nextPass, expected.log.end());
  Translate(expected.log);
  Translate(expected.once);
  Translate(expected.forbidden);
  if (EndsInFailedDownload(name)) {
    expected.values.onGoing = 1;
    all.reason = "nobody begins another pass and clears Flash_OnGoing";
  }
  for (const Difference& row : Differences()) {
    if (name == row.scenario) Apply(row, all);
  }
  for (const TextDifference& each : kTexts) expected.forbidden.push_back(each.service.data());
  return all;
}

std::vector<const Scenario*> ScenariosOfController() {
  std::vector<const Scenario*> scenarios;
  for (const Refusal& refusal : kRefusals) {
    if (refusal.mayComeLater) scenarios.push_back(FindScenario(refusal.scenario));
  }
  return scenarios;
}

std::vector<std::string> StrayNamesOfCommandLine() {
  std::vector<std::string> stray;
  const auto look = [&stray](const char* name) {
    if (FindScenario(name) == nullptr) stray.emplace_back(name);
  };
  for (const char* name : kEndsInFailedDownload) look(name);
  for (const Refusal& refusal : kRefusals) look(refusal.scenario);
  for (const Difference& row : Differences()) look(row.scenario);
  return stray;
}

}  // namespace simulator
