#include "simulator/call_hooks.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

#include "common/handles.h"
#include "simulator/call_thunk.h"
#include "simulator/import_table.h"
#include "simulator/threads/lock.h"
#include "simulator/threads/working_threads.h"

namespace simulator {

namespace {

using Way = CallFault::Way;

constexpr std::size_t kMostFaults = 16;
constexpr std::size_t kMostReturns = 64;

/// A fault as the hooks look at it, without a lock: `hook` is written last, and taken back first.
struct ArmedFault {
  std::atomic<const CallHooks::Hook*> hook{nullptr};
  unsigned before = 0;  ///< calls that came before it was armed
  Occurrence calls;
  Way way = Way::Refused;
  std::uint64_t result = 0;
  DWORD lastError = 0;
  std::chrono::milliseconds delay{0};
  void (*leaves)(std::uint64_t argument) = nullptr;
  int leavesFor = 0;
};

/// Where a call goes on that comes back through the hooks, and with what. A thread may have several.
struct PendingReturn {
  DWORD thread = 0;  ///< 0: unused
  void* address = nullptr;
  std::uint64_t result = 0;
  DWORD lastError = 0;
};

class PendingReturns {
 public:
  bool Push(const PendingReturn& pending) {
    const std::lock_guard lock(m_Lock);
    if (m_Count == m_Pending.size()) return false;
    m_Pending[m_Count++] = pending;
    return true;
  }
  /// The calling thread's latest one.
  PendingReturn Pop() {
    const std::lock_guard lock(m_Lock);
    std::size_t at = m_Count - 1;
    while (m_Pending[at].thread != ::GetCurrentThreadId()) --at;
    const PendingReturn found = m_Pending[at];
    std::move(m_Pending.begin() + static_cast<std::ptrdiff_t>(at) + 1,
              m_Pending.begin() + static_cast<std::ptrdiff_t>(m_Count),
              m_Pending.begin() + static_cast<std::ptrdiff_t>(at));
    --m_Count;
    return found;
  }

 private:
  Lock m_Lock;
  std::array<PendingReturn, kMostReturns> m_Pending;
  std::size_t m_Count = 0;
};
PendingReturns g_returns;

std::uint64_t FinishCall(void** returnAddress) noexcept {
  const PendingReturn pending = g_returns.Pop();
  *returnAddress = pending.address;
  if (pending.lastError != 0) ::SetLastError(pending.lastError);
  return pending.result;
}

void* ReturnThunk() {
  static void* const thunk = [] {
    ThunkPage page(1);
    void* const code = page.AddReturn(&FinishCall);
    page.Seal();
    return code;
  }();
  return thunk;
}

struct Answer {
  std::uint64_t result = 0;
  DWORD lastError = 0;
};

/// What a call returns that a fault has hit; nothing when it is not known, or the fault leaves that alone.
std::optional<Answer> AnswerOf(const KnownCall* known, const CallFault& fault) {
  const auto without = [](const std::optional<std::uint64_t>& result) {
    return result ? std::optional(Answer{*result}) : std::nullopt;
  };
  if (known == nullptr || fault.way == Way::Delayed || fault.way == Way::NeverReturns) return std::nullopt;
  if (fault.way == Way::Undocumented) return without(known->undocumented);
  if (fault.way == Way::DoesNothing) return without(known->success);
  if (!known->CanFail()) return std::nullopt;
  if (known->tells == KnownCall::Tells::ByResult) return Answer{fault.error ? *fault.error : known->result};
  return Answer{known->result, fault.error.value_or(known->lastError)};
}

/// Code, and nothing else that a module may import. An entry that the system has not bound yet is none
/// either.
bool IsCode(const void* address) {
  MEMORY_BASIC_INFORMATION memory{};
  constexpr DWORD kExecutable =
      PAGE_EXECUTE | PAGE_EXECUTE_READ | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;
  return ::VirtualQuery(address, &memory, sizeof memory) != 0 && (memory.Protect & kExecutable) != 0;
}

}  // namespace

struct CallHooks::Hook {
  std::atomic<void*> target{nullptr};
  State* state = nullptr;
  std::string name;
  const KnownCall* known = nullptr;
  bool isPlatformCall = true;
  bool isForeign = false;  ///< not imported
  void* thunk = nullptr;
  std::vector<void**> slots;
  std::atomic<unsigned> count{0};
};

struct CallHooks::State {
  std::deque<Hook> hooks;
  std::array<ArmedFault, kMostFaults> faults;
  std::atomic<unsigned> hits{0};
  std::atomic<unsigned> missed{0};
  std::atomic<unsigned> platformCalls{0};
  std::atomic<unsigned> platformCallsToLive{0};  ///< 0: for ever
  std::atomic<unsigned> exitCode{0};
  std::atomic<Observer> observer{nullptr};
  void* returnThunk = nullptr;

  Lock lock;
  Condition changed;
  unsigned releases = 0;
  std::vector<DWORD> held;
  bool isLifted = false;  ///< nothing new is covered

  void CountPlatformCall() noexcept {
    working_threads::NoteActivity();
    ++platformCalls;
    if (platformCallsToLive != 0 && --platformCallsToLive == 0)
      ::TerminateProcess(::GetCurrentProcess(), exitCode);
  }

  /// Until somebody lets them all go on.
  void Hold() noexcept {
    const working_threads::Rest rest;
    std::unique_lock guard(lock);
    const unsigned before = releases;
    held.push_back(::GetCurrentThreadId());
    changed.Wait(guard, [&] { return releases != before; });
    std::erase(held, ::GetCurrentThreadId());
  }

  void LetGo() {
    {
      const std::lock_guard guard(lock);
      ++releases;
    }
    changed.NotifyAll();
  }

  /// Lets the call return by way of the hooks.
  void Intercept(const ArmedFault& fault, CallFrame& frame) noexcept {
    if (!g_returns.Push({::GetCurrentThreadId(), frame.returnAddress, fault.result, fault.lastError})) {
      ++missed;
      return;
    }
    frame.returnAddress = returnThunk;
  }

  Verdict Apply(const ArmedFault& fault, CallFrame& frame) noexcept {
    switch (fault.way) {
      case Way::Refused:
      case Way::Undocumented:
      case Way::DoesNothing:
        if (fault.leaves != nullptr) fault.leaves(frame.Argument(fault.leavesFor));
        frame.SetResult(fault.result);
        return Verdict::Answered;
      case Way::RefusedAfterEffect:
        Intercept(fault, frame);
        return Verdict::PassOn;
      case Way::Delayed: {
        const working_threads::Rest rest;
        ::Sleep(static_cast<DWORD>(fault.delay.count()));
        return Verdict::PassOn;
      }
      case Way::NeverReturns:
        Hold();
        return Verdict::PassOn;
    }
    return Verdict::PassOn;
  }

  static void MakeThunks(const std::vector<Hook*>& hooks) {
    if (hooks.empty()) return;
    ThunkPage page(hooks.size());
    for (Hook* hook : hooks) hook->thunk = page.AddCall(&State::Decide, hook, &hook->target);
    page.Seal();
  }

  const ArmedFault* FaultOf(const Hook& hook, unsigned number) const noexcept {
    for (const ArmedFault& fault : faults) {
      if (fault.hook.load(std::memory_order_acquire) != &hook) continue;
      if (fault.calls.Hits(static_cast<int>(number - fault.before))) return &fault;
    }
    return nullptr;
  }

  static Verdict Decide(void* context, CallFrame* frame) noexcept {
    Hook& hook = *static_cast<Hook*>(context);
    State& state = *hook.state;
    DWORD lastError = ::GetLastError();
    const unsigned number = ++hook.count;
    if (const Observer observer = state.observer) {
      observer({hook.name.c_str(),
                {frame->Argument(0), frame->Argument(1), frame->Argument(2), frame->Argument(3)},
                frame->StackedArguments(),
                frame->returnAddress});
    }
    if (hook.isPlatformCall) state.CountPlatformCall();
    Verdict verdict = Verdict::PassOn;
    if (const ArmedFault* const fault = state.FaultOf(hook, number)) {
      ++state.hits;
      verdict = state.Apply(*fault, *frame);
      if (verdict == Verdict::Answered && fault->lastError != 0) lastError = fault->lastError;
    }
    ::SetLastError(lastError);
    return verdict;
  }
};

namespace {

std::atomic<CallHooks::State*> g_free{nullptr};

}  // namespace

CallHooks::CallHooks() : m_State(TakeState()) {
  m_State->returnThunk = ReturnThunk();
}

CallHooks::~CallHooks() {
  Disarm();
  Observe(nullptr);
  EndProcessAt(0, 0);
  Lift();
  g_free = m_State;
}

/// That of the hooks before, once they are gone: whoever puts hooks in front of one module after the other
/// does not grow. A thread that is still in it goes on to the same function.
CallHooks::State* CallHooks::TakeState() {
  State* const former = g_free.exchange(nullptr);
  if (former == nullptr) return new State;
  for (Hook& hook : former->hooks) hook.count = 0;
  former->platformCalls = 0;
  former->isLifted = false;
  return former;
}

void CallHooks::Place(HMODULE module) {
  struct Entry {
    Hook* hook;
    void** slot;
  };
  std::vector<Entry> entries;
  std::vector<Hook*> without;
  const std::lock_guard lock(m_State->lock);
  m_State->isLifted = false;
  VisitImports(module, [&](const ImportEntry& import) {
    if (InspectsItsCaller(import.function) || !IsCode(*import.slot)) return;
    Hook* hook = Find(import.function);
    if (hook == nullptr) {
      hook = &Add(import.function, FindKnownCall(import.function));
      without.push_back(hook);
    }
    entries.push_back({hook, import.slot});
  });
  State::MakeThunks(without);
  for (const auto& [hook, slot] : entries) {
    if (*slot == hook->thunk) continue;
    hook->target = *slot;
    if (std::ranges::find(hook->slots, slot) == hook->slots.end()) hook->slots.push_back(slot);
    WriteSlot(slot, hook->thunk);
  }
}

void CallHooks::Lift() {
  {
    const std::lock_guard lock(m_State->lock);
    m_State->isLifted = true;
    for (Hook& hook : m_State->hooks) {
      for (void** const slot : hook.slots) {
        if (*slot == hook.thunk) WriteSlot(slot, hook.target);
      }
      hook.slots.clear();
    }
  }
  LetGo();
}

void CallHooks::Expect(std::span<const KnownCall> calls) {
  std::vector<Hook*> without;
  for (const KnownCall& call : calls) {
    if (Find(call.name) != nullptr) continue;
    Hook& hook = Add(call.name, &call);
    hook.isForeign = true;
    without.push_back(&hook);
  }
  State::MakeThunks(without);
}

void* CallHooks::InFrontOf(std::string_view function, void* target) {
  Hook* const hook = Find(function);
  const std::lock_guard lock(m_State->lock);
  if (hook == nullptr || target == nullptr || m_State->isLifted) return target;
  hook->target = target;
  return hook->thunk;
}

void CallHooks::CoverObject(std::span<const char* const> calls, void* object) {
  void** const table = *static_cast<void***>(object);
  const std::lock_guard lock(m_State->lock);
  if (m_State->isLifted) return;
  for (std::size_t i = 0; i < calls.size(); ++i) {
    Hook* const hook = Find(calls[i]);
    if (hook == nullptr || table[i] == hook->thunk) continue;
    hook->target = table[i];
    hook->slots.push_back(&table[i]);
    WriteSlot(&table[i], hook->thunk);
  }
}

CallHooks::Hook& CallHooks::Add(std::string_view function, const KnownCall* known) {
  Hook& hook = m_State->hooks.emplace_back();
  hook.state = m_State;
  hook.name = function;
  hook.known = known;
  hook.isPlatformCall = known == nullptr || known->kind == KnownCall::Kind::Platform;
  return hook;
}

CallHooks::Hook* CallHooks::Find(std::string_view function) const {
  const auto found = std::ranges::find(m_State->hooks, function, &Hook::name);
  return found == m_State->hooks.end() ? nullptr : &*found;
}

bool CallHooks::Knows(std::string_view function) const {
  const Hook* const hook = Find(function);
  return hook != nullptr && (!hook->slots.empty() || hook->isForeign);
}

void CallHooks::Arm(const CallFault& fault) {
  const Hook* const hook = Find(fault.function);
  if (!Knows(fault.function))
    throw std::runtime_error("a fault names " + fault.function + ", which is not imported");
  const std::optional<Answer> answer = AnswerOf(hook->known, fault);
  if (!answer && fault.way != Way::Delayed && fault.way != Way::NeverReturns)
    throw std::runtime_error("nobody has described how " + fault.function + " fails");
  const auto unused =
      std::ranges::find(m_State->faults, nullptr, [](const ArmedFault& each) { return each.hook.load(); });
  if (unused == m_State->faults.end()) throw std::runtime_error("too many faults at a time");

  unused->before = hook->count;
  unused->calls = fault.calls;
  unused->way = fault.way;
  unused->delay = fault.delay;
  unused->leaves = fault.way == Way::Refused && hook->known != nullptr ? hook->known->leaves : nullptr;
  unused->leavesFor = unused->leaves != nullptr ? hook->known->leavesFor : 0;
  unused->result = answer ? answer->result : 0;
  unused->lastError = answer ? answer->lastError : 0;
  unused->hook.store(hook, std::memory_order_release);
}

void CallHooks::Disarm() {
  for (ArmedFault& fault : m_State->faults) fault.hook = nullptr;
  m_State->hits = 0;
  m_State->missed = 0;
}

unsigned CallHooks::Hits() const {
  return m_State->hits;
}

unsigned CallHooks::Missed() const {
  return m_State->missed;
}

std::vector<DWORD> CallHooks::HeldThreads() const {
  const std::lock_guard lock(m_State->lock);
  return m_State->held;
}

void CallHooks::LetGo() {
  m_State->LetGo();
}

void CallHooks::ResetCounts() {
  for (Hook& hook : m_State->hooks) {
    // Faults count from their arming, whatever is asked here.
    const unsigned before = hook.count.exchange(0);
    for (ArmedFault& fault : m_State->faults) {
      if (fault.hook == &hook) fault.before -= before;
    }
  }
  m_State->platformCalls = 0;
}

std::map<std::string, int> CallHooks::Counts() const {
  std::map<std::string, int> counts;
  for (const Hook& hook : m_State->hooks) {
    if (hook.count != 0) counts[hook.name] = static_cast<int>(hook.count);
  }
  return counts;
}

int CallHooks::Count(std::string_view function) const {
  const Hook* const hook = Find(function);
  return hook == nullptr ? 0 : static_cast<int>(hook->count);
}

unsigned CallHooks::PlatformCalls() const {
  return m_State->platformCalls;
}

void CallHooks::EndProcessAt(unsigned platformCall, unsigned exitCode) {
  m_State->exitCode = exitCode;
  m_State->platformCallsToLive = platformCall;
}

void CallHooks::Observe(Observer observer) {
  m_State->observer = observer;
}

}  // namespace simulator
