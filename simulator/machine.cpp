#include "simulator/machine.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "common/handles.h"
#include "simulator/threads/working_threads.h"

using corvel::ScopedLock;

namespace simulator {

namespace {

/// How long the product waits for the modem to come back; its last check follows.
constexpr DWORD kReturnWait = 23000;

VirtualClock ClockOf(const VirtualPcOptions& options) {
  if (options.sharedBy.empty()) return VirtualClock(options.speed, options.pace);
  if (options.pace != Pace::Steady)
    throw std::invalid_argument("a clock knows the threads of its own process alone");
  return {options.speed, options.sharedBy};
}

std::filesystem::path MadeFolder(std::filesystem::path folder) {
  std::filesystem::create_directories(folder);
  return folder;
}

bool Concerns(const LibraryCallFault& fault, const std::string& function, int argument) {
  const bool isDownload = function.starts_with("_ZEMO_DL_download_");
  const bool namesIt = fault.function == function || (fault.function == kAnyDownloadCall && isDownload);
  return namesIt && (fault.argument == -1 || fault.argument == argument);
}

SRWLOCK g_lock = SRWLOCK_INIT;
// A pointer without a destructor: product threads may still look at it while the program ends.
std::shared_ptr<Machine>* g_machine = nullptr;

}  // namespace

std::shared_ptr<Machine> CurrentMachine() {
  const ScopedLock lock(g_lock);
  return g_machine != nullptr ? *g_machine : nullptr;
}

void SetCurrentMachine(std::shared_ptr<Machine> machine) {
  std::shared_ptr<Machine> former;
  const ScopedLock lock(g_lock);
  if (g_machine == nullptr) g_machine = new std::shared_ptr<Machine>;
  former = std::exchange(*g_machine, std::move(machine));
}

Machine::Machine(VirtualPcOptions pcOptions)
    : options(std::move(pcOptions)),
      clock(ClockOf(options)),
      modem(clock, MadeFolder(options.folder) / "modem_flash.bin", options.timing, options.faults.modem,
            options.initialState,
            [this](JournalEvent event, std::string detail) { Note(event, std::move(detail)); },
            {.name = options.sharedBy}),
      m_FaultCalls(options.faults.library.calls.size()) {}

std::optional<std::int32_t> Machine::BeginLibraryCall(const std::string& function, int argument,
                                                      const std::string& detail) {
  Note(JournalEvent::LibraryCall, detail.empty() ? function : function + " " + detail);
  std::unique_lock lock(m_Mutex);
  ++m_LibraryCalls[function];
  std::optional<std::int32_t> answer;
  for (std::size_t i = 0; i < m_FaultCalls.size(); ++i) {
    const auto& fault = options.faults.library.calls[i];
    if (!Concerns(fault, function, argument) || !fault.calls.Hits(++m_FaultCalls[i])) continue;
    Hang(lock, fault);
    if (!answer) answer = fault.result;
  }
  return answer;
}

void Machine::CoverLibrary(Cover cover) {
  const std::lock_guard lock(m_Mutex);
  m_Cover.swap(cover);
}

void* Machine::Covered(const std::string& function, void* target) const {
  const std::lock_guard lock(m_Mutex);
  return m_Cover ? m_Cover(function, target) : target;
}

void Machine::Hang(std::unique_lock<Lock>& lock, const LibraryCallFault& fault) {
  const working_threads::Rest rest;
  if (fault.untilWaitExpires != 0) {
    const int before = m_ExpiredWaits[fault.untilWaitExpires];
    m_Hangs.Wait(lock, [&] { return m_HangsEnded || m_ExpiredWaits[fault.untilWaitExpires] > before; });
  }
  clock.WaitInSlices(static_cast<DWORD>(fault.hang.count()), [&](DWORD real) {
    return m_Hangs.WaitFor(lock, Milliseconds(real), [&] { return m_HangsEnded; });
  });
}

int Machine::CountLook(const std::string& what) {
  const std::lock_guard lock(m_Mutex);
  return ++m_Looks[what];
}

void Machine::WaitExpired(DWORD milliseconds) {
  if (milliseconds == kReturnWait) modem.WaitForReturnExpired();
  {
    const std::lock_guard lock(m_Mutex);
    ++m_ExpiredWaits[milliseconds];
  }
  m_Hangs.NotifyAll();
}

void Machine::EndHangs() {
  {
    const std::lock_guard lock(m_Mutex);
    m_HangsEnded = true;
  }
  m_Hangs.NotifyAll();
}

void Machine::Note(JournalEvent event, std::string detail) {
  const Milliseconds now = clock.Now();
  const std::lock_guard lock(m_Mutex);
  m_Journal.push_back({now, event, std::move(detail)});
}

std::vector<JournalEntry> Machine::Journal() const {
  const std::lock_guard lock(m_Mutex);
  return m_Journal;
}

void Machine::ClearJournal() {
  const std::lock_guard lock(m_Mutex);
  // Its memory too: who watches what the process holds must not see the journal in it.
  std::vector<JournalEntry>().swap(m_Journal);
}

int Machine::Count(JournalEvent event) const {
  const std::lock_guard lock(m_Mutex);
  return static_cast<int>(std::ranges::count(m_Journal, event, &JournalEntry::event));
}

std::map<std::string, int> Machine::LibraryCalls() const {
  const std::lock_guard lock(m_Mutex);
  return m_LibraryCalls;
}

}  // namespace simulator
