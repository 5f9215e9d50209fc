#include "benchmarks/service/instant_service.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <limits>
#include <stdexcept>

#include "benchmarks/service/stopwatch.h"
#include "controller.h"
#include "hosts/common/facts.h"
#include "hosts/common/owners.h"
#include "simulator/call_hooks.h"
#include "simulator/program/firmware_folder.h"

namespace benchmarks {

namespace {

using simulator::ModemState;
using simulator::Route;
using namespace std::chrono_literals;

constexpr auto kPatience = 60s;
constexpr DWORD kLookMs = 2;

// What the procedure waits for, apart from its limits.
constexpr DWORD kPauseAfterItemMs = 10;
constexpr int kItems = 10;  // nine of the modem image, one of the NVM image
constexpr DWORD kPausesOfResetMs[] = {500, 500, 1000};

std::atomic<Ticks> g_attempt{0};

void SeeCall(const simulator::SeenCall& call) noexcept {
  if (g_attempt == 0 && std::strcmp(call.function, "CreateThread") == 0) g_attempt = Now();
}

ModemState StateBefore(Route route) {
  if (route == Route::Bbrst) return ModemState::Restarting;
  return route == Route::FlashPort ? ModemState::FlashPort : ModemState::Normal;
}

simulator::VirtualPcOptions InstantPc(const std::filesystem::path& folder, Route route) {
  simulator::VirtualPcOptions pc;
  pc.folder = folder;
  pc.initialState = StateBefore(route);
  pc.timing.leaving = pc.timing.restarting = pc.timing.openPort = pc.timing.boot = pc.timing.returning = 0ms;
  pc.timing.driverAnswer = 0ms;
  pc.timing.bytesPerSecond = std::numeric_limits<std::uint32_t>::max();
  return pc;
}

simulator::Setup SetupFor(Route route, bool logs) {
  simulator::Setup setup;
  setup.route = route;
  setup.logs = logs;
  return setup;
}

template <typename Condition>
void Await(const Condition& condition, const char* what) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) throw std::runtime_error(what);
    ::Sleep(kLookMs);
  }
}

}  // namespace

std::wstring OwnKey(const wchar_t* suffix) {
  return L"Software\\Corvel\\Benchmark\\" + std::to_wstring(::GetCurrentProcessId()) + suffix;
}

InstantService::InstantService(const std::filesystem::path& folder, Route route, bool logs)
    : m_Folder(folder),
      m_Route(route),
      m_Key(OwnKey(), false),
      m_Configuration(folder, SetupFor(route, logs), m_Key.Location(), folder / L"firmware"),
      m_Pc(InstantPc(folder, route)) {
  if (m_Pc.LoadUnderSimulation(folder / hosts::kLibraryName) == nullptr)
    hosts::ThrowLastError("The library cannot be loaded");
  Await([this] { return Rounds() > 0; }, "the service does not begin");
}

int InstantService::Rounds() const {
  const auto calls = m_Pc.PlatformCalls();
  const auto found = calls.find("RegNotifyChangeKeyValue");
  return found == calls.end() ? 0 : found->second;
}

InstantService::Times InstantService::Flash() {
  const simulator::FirmwareFolder firmware(m_Folder / L"firmware", simulator::ImageSet::ModemAndNvm,
                                           simulator::ImageHolder::Nobody);
  m_Pc.Modem().Put(StateBefore(m_Route));
  m_Pc.ClearJournal();
  const int rounds = Rounds();
  m_Pc.Hooks().Observe(&SeeCall);
  g_attempt = 0;
  const Ticks begin = Now();
  const Ticks end = RaiseFlagAndAwaitResult();
  m_Pc.Hooks().Observe(nullptr);
  Await([&] { return Rounds() > rounds && m_Key.Read().ready == 0u; }, "the service does not wait again");
  return {.untilAttempt = NanosecondsBetween(begin, g_attempt),
          .untilResult = NanosecondsBetween(begin, end)};
}

Ticks InstantService::RaiseFlagAndAwaitResult() {
  m_Key.Write(corvel::kReadyValue, 1);
  bool hasBegun = false;
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (std::chrono::steady_clock::now() < end) {
    m_Key.ArmWatch();
    const hosts::Handshake values = m_Key.Read();
    const Ticks now = Now();
    // The result of the flash before stands there until this one begins.
    hasBegun = hasBegun || values.Is(hosts::FlashResult::Flashing);
    if (hasBegun && values.Is(hosts::FlashResult::Succeeded)) return now;
    if (values.Is(hosts::FlashResult::Failed) || values.Is(hosts::FlashResult::Retrying))
      throw std::runtime_error("the flash fails");
    m_Key.WaitForChange(kPatience);
  }
  throw std::runtime_error("the flash does not end");
}

void InstantService::WaitAsTheProcedure(Route route) {
  if (route == Route::Bbrst) {
    for (const DWORD pause : kPausesOfResetMs) ::Sleep(pause);
  }
  for (int item = 0; item < kItems; ++item) ::Sleep(kPauseAfterItemMs);
}

}  // namespace benchmarks
