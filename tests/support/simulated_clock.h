#pragma once

#include <windows.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "simulator/import_patch.h"

/// Time and threads of the library under test. Its waits cost no real time, and its threads take turns: one
/// runs until it waits or ends, then the next; when all of them wait, the clock moves on to the end of the
/// shortest wait. So the order of everything is the same in every run.
///
/// Stays apart from the simulator's clock, which keeps pace with the real one and leaves the order of threads
/// to the system. The thread that makes this one is one of those that take turns. Threads that the library
/// did not start itself see real time.
class SimulatedClock {
  using Turn = std::unique_lock<std::mutex>;

 public:
  SimulatedClock() {
    s_clock = this;
    m_Threads[::GetCurrentThreadId()] = std::make_shared<Thread>();
    m_Patch.Replace("Sleep", &Sleep);
    m_Patch.Replace("WaitForSingleObject", &WaitForSingleObject);
    m_Patch.Replace("GetTickCount64", &GetTickCount64);
    m_Patch.Replace("CreateThread", &CreateThread);
    m_Patch.Replace("ReleaseSemaphore", &ReleaseSemaphore);
    m_Patch.Replace("FreeLibraryAndExitThread", &FreeLibraryAndExitThread);
  }
  ~SimulatedClock() {
    RunUntilIdle();
    EndEndlessWaits();
    m_Patch.Restore();
    s_clock = nullptr;
  }
  SimulatedClock(const SimulatedClock&) = delete;
  SimulatedClock& operator=(const SimulatedClock&) = delete;

  /// Milliseconds since the clock was made.
  ULONGLONG Now() const { return m_Now; }
  /// The initial stack sizes that the library asked for its threads, in order; refused ones count.
  const std::vector<SIZE_T>& StackSizes() const { return m_StackSizes; }
  /// What the library slept so far, in order.
  const std::vector<DWORD>& Sleeps() const { return m_Sleeps; }

  /// Refuses the library's `number`th thread from now on, the first being 0.
  void RefuseThread(int number, DWORD error) { m_Refused[m_Created + number] = error; }
  void RefuseEveryThread(DWORD error) { m_RefusesAll = error; }
  void RefuseNoThread() {
    m_Refused.clear();
    m_RefusesAll.reset();
  }
  /// Has the library's `number`th thread from now on, the first being 0, begin only once the gate is open.
  void HoldThread(int number, int gate) { m_Held[m_Created + number] = gate; }
  /// Lets a new thread run before the one that made it goes on.
  void RunNewThreadsFirst() { m_NewThreadsFirst = true; }
  /// Has a thread of its own run `body`, as if the library had started it.
  void Start(std::function<void()> body) {
    auto* const start = new std::function<void()>(std::move(body));
    ::CloseHandle(CreateThread(nullptr, 0, &RunFunction, start, 0, nullptr));
  }

  /// Lets `milliseconds` pass on the calling thread.
  void Pause(DWORD milliseconds) {
    Turn turn(m_Mutex);
    Wait(turn, nullptr, milliseconds, kNoGate);
  }

  /// For a fake that hangs: waits until Open(gate), on the library's thread.
  void WaitAtGate(int gate) {
    Turn turn(m_Mutex);
    if (m_OpenGates.contains(gate)) return;
    Wait(turn, nullptr, INFINITE, gate);
  }
  void Open(int gate) {
    const std::lock_guard turn(m_Mutex);
    m_OpenGates.insert(gate);
    for (auto waiter = m_Waiters.begin(); waiter != m_Waiters.end();) {
      const auto next = std::next(waiter);
      if ((*waiter)->gate == gate) Wake(waiter, WAIT_OBJECT_0);
      waiter = next;
    }
  }

  /// Lets all other threads run until none has anything left to do but to wait for ever.
  void RunUntilIdle() {
    Turn turn(m_Mutex);
    Wait(turn, nullptr, INFINITE, kIdle);
  }
  /// How many threads of the library have not ended.
  std::size_t LivingThreads() const { return m_Threads.size() - 1; }

  /// Ends waits without a time limit whose object the system has signalled meanwhile.
  void DeliverSignals() {
    constexpr DWORD kRealTimeLimitMs = 5000;
    const std::lock_guard turn(m_Mutex);
    for (auto waiter = m_Waiters.begin(); waiter != m_Waiters.end(); ++waiter) {
      if ((*waiter)->handle == nullptr || (*waiter)->deadline != kNever) continue;
      if (::WaitForSingleObject((*waiter)->handle, kRealTimeLimitMs) == WAIT_OBJECT_0) {
        Wake(waiter, WAIT_OBJECT_0);
        return;
      }
    }
  }

 private:
  static constexpr ULONGLONG kNever = ~0ull;
  static constexpr int kNoGate = -1;
  static constexpr int kIdle = -2;

  /// One of the threads that take turns.
  struct Thread {
    std::condition_variable turn;
    bool granted = false;
    HANDLE handle = nullptr;
    ULONGLONG deadline = kNever;
    int gate = kNoGate;
    DWORD result = WAIT_OBJECT_0;
    bool ends = false;
  };
  using ThreadRef = std::shared_ptr<Thread>;

  struct NewThread {
    ThreadRef self;
    LPTHREAD_START_ROUTINE start;
    LPVOID parameter;
    int gate;
  };

  ThreadRef Self() const {
    const auto found = m_Threads.find(::GetCurrentThreadId());
    return found == m_Threads.end() ? nullptr : found->second;
  }

  DWORD Wait(Turn& turn, HANDLE handle, DWORD milliseconds, int gate) {
    const ThreadRef self = Self();
    self->handle = handle;
    self->deadline = milliseconds == INFINITE ? kNever : m_Now + milliseconds;
    self->gate = gate;
    m_Waiters.push_back(self);
    return HandOn(turn, self);
  }

  /// Gives the turn to the next thread and waits for one's own.
  DWORD HandOn(Turn& turn, const ThreadRef& self) {
    self->granted = false;
    GrantNext();
    AwaitTurn(turn, self);
    return self->result;
  }

  static void AwaitTurn(Turn& turn, const ThreadRef& self) {
    constexpr std::chrono::seconds kRealTimeLimit{60};
    if (!self->turn.wait_for(turn, kRealTimeLimit, [&] { return self->granted; })) Fail("nobody moves on");
    if (self->ends) {
      turn.unlock();
      ::ExitThread(0);
    }
  }

  void Wake(std::list<ThreadRef>::iterator waiter, DWORD result) {
    (*waiter)->result = result;
    m_Ready.push_back(*waiter);
    m_Waiters.erase(waiter);
  }

  void GrantNext() {
    if (m_Ready.empty()) EndShortestWait();
    const ThreadRef next = m_Ready.front();
    m_Ready.pop_front();
    next->granted = true;
    next->turn.notify_one();
  }

  void EndShortestWait() {
    auto shortest = m_Waiters.end();
    auto idle = m_Waiters.end();
    for (auto waiter = m_Waiters.begin(); waiter != m_Waiters.end(); ++waiter) {
      if ((*waiter)->gate == kIdle) idle = waiter;
      if ((*waiter)->deadline == kNever) continue;
      if (shortest == m_Waiters.end() || (*waiter)->deadline < (*shortest)->deadline) shortest = waiter;
    }
    if (shortest != m_Waiters.end()) {
      m_Now = (*shortest)->deadline;
      Wake(shortest, WAIT_TIMEOUT);
    } else if (idle != m_Waiters.end()) {
      Wake(idle, WAIT_OBJECT_0);
    } else {
      Fail("all threads wait for ever");
    }
  }

  [[noreturn]] static void Fail(const char* why) {
    std::fprintf(stderr, "simulated clock: %s\n", why);
    std::fflush(stderr);
    std::_Exit(EXIT_FAILURE);
  }

  /// Ends the threads that would otherwise outlive the test. They end where they wait.
  void EndEndlessWaits() {
    Turn turn(m_Mutex);
    for (const ThreadRef& waiter : m_Waiters) {
      waiter->ends = waiter->granted = true;
      waiter->turn.notify_one();
    }
    m_Waiters.clear();
    turn.unlock();
    for (const HANDLE handle : m_Handles) {
      ::WaitForSingleObject(handle, INFINITE);
      ::CloseHandle(handle);
    }
  }

  void End() {
    const std::lock_guard turn(m_Mutex);
    const DWORD id = ::GetCurrentThreadId();
    m_Threads.erase(id);
    m_Ended.insert(id);
    for (auto waiter = m_Waiters.begin(); waiter != m_Waiters.end();) {
      const auto next = std::next(waiter);
      if ((*waiter)->handle != nullptr && ::GetThreadId((*waiter)->handle) == id) Wake(waiter, WAIT_OBJECT_0);
      waiter = next;
    }
    GrantNext();
  }

  // What the library calls instead of the system.

  static void WINAPI Sleep(DWORD milliseconds) {
    Turn turn(s_clock->m_Mutex);
    if (s_clock->Self() == nullptr) {
      turn.unlock();
      return ::Sleep(milliseconds);
    }
    s_clock->m_Sleeps.push_back(milliseconds);
    s_clock->Wait(turn, nullptr, milliseconds, kNoGate);
  }

  static DWORD WINAPI WaitForSingleObject(HANDLE handle, DWORD milliseconds) {
    Turn turn(s_clock->m_Mutex);
    if (s_clock->Self() == nullptr) {
      turn.unlock();
      return ::WaitForSingleObject(handle, milliseconds);
    }
    // A thread that has given up its turn for good is about to end.
    const bool ending = s_clock->m_Ended.contains(::GetThreadId(handle));
    const DWORD now = ::WaitForSingleObject(handle, ending ? INFINITE : 0);
    if (now != WAIT_TIMEOUT || milliseconds == 0) return now;
    const DWORD result = s_clock->Wait(turn, handle, milliseconds, kNoGate);
    const bool isThread = s_clock->m_Ended.contains(::GetThreadId(handle));
    if (result == WAIT_OBJECT_0 && isThread) ::WaitForSingleObject(handle, INFINITE);
    return result;
  }

  static ULONGLONG WINAPI GetTickCount64() {
    const std::lock_guard turn(s_clock->m_Mutex);
    return s_clock->m_Now;
  }

  static HANDLE WINAPI CreateThread(SECURITY_ATTRIBUTES* security, SIZE_T stackSize,
                                    LPTHREAD_START_ROUTINE start, LPVOID parameter, DWORD flags, LPDWORD id) {
    Turn turn(s_clock->m_Mutex);
    s_clock->m_StackSizes.push_back(stackSize);
    const auto held = s_clock->m_Held.find(s_clock->m_Created);
    const int gate = held == s_clock->m_Held.end() ? kNoGate : held->second;
    const auto refused = s_clock->m_Refused.find(s_clock->m_Created++);
    if (s_clock->m_RefusesAll || refused != s_clock->m_Refused.end()) {
      ::SetLastError(s_clock->m_RefusesAll ? *s_clock->m_RefusesAll : refused->second);
      return nullptr;
    }
    const auto thread = std::make_shared<Thread>();
    DWORD threadId = 0;
    const HANDLE handle = ::CreateThread(security, stackSize, &RunThread,
                                         new NewThread{thread, start, parameter, gate}, flags, &threadId);
    if (id != nullptr) *id = threadId;
    s_clock->m_Ended.erase(threadId);
    s_clock->m_Threads[threadId] = thread;
    s_clock->m_Ready.push_back(thread);
    s_clock->KeepHandle(handle);
    if (s_clock->m_NewThreadsFirst) {
      const ThreadRef self = s_clock->Self();
      s_clock->m_Ready.push_back(self);
      s_clock->HandOn(turn, self);
    }
    return handle;
  }

  void KeepHandle(HANDLE handle) {
    HANDLE kept = nullptr;
    ::DuplicateHandle(::GetCurrentProcess(), handle, ::GetCurrentProcess(), &kept, 0, FALSE,
                      DUPLICATE_SAME_ACCESS);
    m_Handles.push_back(kept);
  }

  static DWORD WINAPI RunThread(LPVOID parameter) {
    NewThread* const given = static_cast<NewThread*>(parameter);
    const LPTHREAD_START_ROUTINE start = given->start;
    const LPVOID startParameter = given->parameter;
    const int gate = given->gate;
    {
      Turn turn(s_clock->m_Mutex);
      const ThreadRef self = given->self;
      delete given;
      AwaitTurn(turn, self);
    }
    if (gate != kNoGate) s_clock->WaitAtGate(gate);
    return start(startParameter);
  }

  static DWORD WINAPI RunFunction(LPVOID parameter) {
    {
      const std::unique_ptr<std::function<void()>> body(static_cast<std::function<void()>*>(parameter));
      (*body)();
    }
    s_clock->End();
    return 0;
  }

  static BOOL WINAPI ReleaseSemaphore(HANDLE semaphore, LONG count, LPLONG previous) {
    const BOOL released = ::ReleaseSemaphore(semaphore, count, previous);
    const std::lock_guard turn(s_clock->m_Mutex);
    // The one that is woken depends on the order of waiting, as with the system's own.
    for (auto waiter = s_clock->m_Waiters.begin(); waiter != s_clock->m_Waiters.end(); ++waiter) {
      if ((*waiter)->handle == nullptr || ::GetThreadId((*waiter)->handle) != 0) continue;
      if (::WaitForSingleObject((*waiter)->handle, 0) != WAIT_OBJECT_0) continue;
      s_clock->Wake(waiter, WAIT_OBJECT_0);
      break;
    }
    return released;
  }

  static void WINAPI FreeLibraryAndExitThread(HMODULE module, DWORD code) {
    s_clock->End();
    ::FreeLibraryAndExitThread(module, code);
  }

  static inline SimulatedClock* s_clock = nullptr;

  simulator::ImportPatch m_Patch{::GetModuleHandleW(L"toolkit_internals.dll")};
  std::mutex m_Mutex;
  ULONGLONG m_Now = 0;
  std::map<DWORD, ThreadRef> m_Threads;
  std::list<ThreadRef> m_Waiters;
  std::deque<ThreadRef> m_Ready;
  std::set<DWORD> m_Ended;
  std::set<int> m_OpenGates;
  std::vector<DWORD> m_Sleeps;
  std::vector<SIZE_T> m_StackSizes;
  std::vector<HANDLE> m_Handles;
  std::map<int, DWORD> m_Refused;
  std::map<int, int> m_Held;
  std::optional<DWORD> m_RefusesAll;
  bool m_NewThreadsFirst = false;
  int m_Created = 0;
};
