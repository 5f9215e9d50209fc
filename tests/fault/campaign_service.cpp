#include "fault/campaign_service.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "hosts/common/text.h"
#include "simulator/load_watch.h"
#include "support/quick_modem.h"

namespace campaign {

using namespace simulator;

namespace {

using namespace std::chrono_literals;
using RealClock = std::chrono::steady_clock;

constexpr wchar_t kLibrary[] = L"CorvelToolKit.dll";
constexpr wchar_t kImage[] = L"nvm.fls";
// Not faster: a thread that has to wait for a processor must not miss the time limits of what it does.
constexpr double kSpeed = 200;
constexpr auto kPatience = 30s;

/// Sees the service begin its endless wait for a change of the key: it waits so only when it has looked and
/// nothing is asked for, and on the event that it has armed. And sees what the modem is like when a result is
/// reported.
class Witness {
 public:
  static void See(const SeenCall& call) noexcept {
    const std::string_view function = call.function;
    if (function == "RegSetValueExW") SeeValue(reinterpret_cast<const wchar_t*>(call.arguments[1]));
    if (s_callsWhileWriting != 0 && s_modem->State() == ModemState::Writing && --s_callsWhileWriting == 0)
      ::TerminateProcess(::GetCurrentProcess(), s_exitCode);
    if (function == "RegNotifyChangeKeyValue") s_event = call.arguments[3];
    if (function == "WaitForSingleObject" && call.arguments[0] == s_event &&
        static_cast<DWORD>(call.arguments[1]) == INFINITE) {
      ++s_count;
    }
    if (const CallHooks::Observer other = s_other) other(call);
  }
  static void AlsoTell(CallHooks::Observer other) { s_other = other; }
  static unsigned Count() { return s_count; }
  static ModemState ModemAtResult() { return s_modemAtResult; }
  static void Watch(VirtualModem& modem) { s_modem = &modem; }
  static void EndProcessWhileWriting(unsigned calls, unsigned exitCode) {
    s_exitCode = exitCode;
    s_callsWhileWriting = calls;
  }

 private:
  static void SeeValue(const wchar_t* name) noexcept {
    if (std::wstring_view(name) == L"Flash_Result") s_modemAtResult = s_modem->State();
  }

  static inline std::atomic<CallHooks::Observer> s_other{nullptr};
  static inline VirtualModem* s_modem = nullptr;
  static inline std::atomic<unsigned> s_callsWhileWriting{0};
  static inline std::atomic<unsigned> s_exitCode{0};
  static inline std::atomic<ModemState> s_modemAtResult{ModemState::Dead};
  static inline std::atomic<std::uint64_t> s_event{0};
  static inline std::atomic<unsigned> s_count{0};
};

constexpr wchar_t kStateFile[] = L"modem_state.txt";

VirtualPcOptions PcOf(Route route, const std::filesystem::path& folder, Begins begins) {
  Setup setup;
  setup.route = route;
  VirtualPcOptions options = PcOptions(setup, kSpeed, folder);
  options.timing = QuickTiming();
  if (begins == Begins::WithModemAsLeft)
    options.initialState = VirtualModem::StateLeftIn(folder / kStateFile);
  return options;
}

void TurnLogOff(const std::filesystem::path& configuration) {
  std::ifstream file(configuration, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(file), {}};
  file.close();
  constexpr std::string_view kOn = "[TraceLevel]=1";
  text.replace(text.find(kOn), kOn.size(), "[TraceLevel]=0");
  std::ofstream(configuration, std::ios::binary) << text;
}

bool Becomes(const std::function<bool()>& condition) {
  const auto end = RealClock::now() + kPatience;
  while (!condition()) {
    if (RealClock::now() > end) return false;
    ::Sleep(1);
  }
  return true;
}

}  // namespace

Service::Service(Route route, bool log, const std::wstring& key, Begins begins)
    : m_Folder(hosts::ProgramFolder()),
      m_Route(route),
      m_Key{HKEY_CURRENT_USER, L"HKCU", key},
      m_Pc(PcOf(route, m_Folder, begins)) {
  Setup setup;
  setup.route = route;
  m_Configuration = std::make_unique<ConfigurationFile>(m_Folder, setup, m_Key.rootName + L"\\" + m_Key.path,
                                                        m_Folder / L"firmware");
  if (!log) TurnLogOff(m_Folder / L"CorvelConfig.ini");
  Witness::Watch(m_Pc.Modem());
  m_Pc.Modem().KeepStateIn(m_Folder / kStateFile);
}

bool Service::Begin() {
  // Nobody may miss the first wait: whoever watches is there before the library's thread is.
  const LoadWatch watch(kLibrary, [this](HMODULE) { Hooks().Observe(&Witness::See); });
  return m_Pc.LoadUnderSimulation(m_Folder / kLibrary) != nullptr && AwaitRest(0);
}

void Service::PutModemWhereTheRouteBegins() {
  if (m_Route == Route::Bbrst) return m_Pc.Modem().Put(ModemState::Restarting);
  m_Pc.Modem().Put(m_Route == Route::FlashPort ? ModemState::FlashPort : ModemState::Normal);
}

void Service::LayImage(std::uint32_t seed) {
  ExpectImage(seed);
  const auto folder = m_Folder / L"firmware";
  std::filesystem::create_directories(folder);
  if (!SaveImageFile(m_Image, folder / kImage)) throw std::runtime_error("the image cannot be laid");
}

void Service::ExpectImage(std::uint32_t seed) {
  m_Image = BuildImage(SmallImagePlan(seed));
}

bool Service::IsImageLeft() const {
  std::error_code ignored;
  return std::filesystem::exists(m_Folder / L"firmware" / kImage, ignored);
}

unsigned Service::Waits() {
  return Witness::Count();
}

void Service::AlsoTell(CallHooks::Observer observer) {
  Witness::AlsoTell(observer);
}

void Service::EndProcessWhileWriting(unsigned calls, unsigned exitCode) {
  Witness::EndProcessWhileWriting(calls, exitCode);
}

JobEnd Service::Run() {
  m_Pc.ClearJournal();
  const unsigned waits = Waits();
  if (const DWORD error = hosts::WriteHandshakeValue(m_Key, L"Fls_Ready", 1); error != 0)
    throw std::runtime_error("the flag cannot be raised: " + hosts::SystemErrorText(error));
  return Look(AwaitRest(waits));
}

bool Service::AwaitRest(unsigned formerWaits) {
  return Becomes([&] { return Waits() > formerWaits && Values().ready != 1u; });
}

JobEnd Service::Look(bool ended) {
  JobEnd end;
  end.ended = ended;
  end.values = Values();
  end.isMemoryEqual = !m_Image.items.empty() && m_Pc.Modem().CompareWith(nullptr, &m_Image).equal;
  end.modem = m_Pc.Modem().State();
  end.modemAtResult = Witness::ModemAtResult();
  end.isImageLeft = IsImageLeft();
  end.sawImage = m_Pc.LibraryLoads() > 0 || end.values.progress != 0u;
  return end;
}

bool TakeWords(const char* program, std::span<char* const> words, const SwitchTaker& takeSwitch,
               const ValueTaker& takeValue) {
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (takeSwitch(words[i])) continue;
    if (i + 1 == words.size() || !takeValue(words[i], words[i + 1])) {
      std::fprintf(stderr, "%s: what is \"%s\"?\n", program, words[i]);
      return false;
    }
    ++i;
  }
  return true;
}

void EndProcess(int status) {
  std::fflush(stdout);
  ::TerminateProcess(::GetCurrentProcess(), static_cast<unsigned>(status));
  std::abort();
}

}  // namespace campaign
