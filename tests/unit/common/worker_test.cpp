#include "common/worker.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <new>
#include <utility>

#include "simulator/import_patch.h"
#include "support/scarce_memory.h"

using corvel::PinThisModule;
using corvel::StartWorker;
using corvel::StartWorkerThread;
using corvel::UniqueHandle;
using corvel::WorkerStack;

namespace {

constexpr DWORD kLongEnough = 30000;

HMODULE Library() {
  return ::GetModuleHandleW(L"toolkit_internals.dll");
}

struct Asked {
  SECURITY_ATTRIBUTES* security = nullptr;
  SIZE_T stackSize = 0;
  DWORD threadFlags = 0;
  DWORD moduleFlags = 0;
  int references = 0;
} g_asked;

HANDLE WINAPI RecordThread(SECURITY_ATTRIBUTES* security, SIZE_T stackSize, LPTHREAD_START_ROUTINE start,
                           LPVOID parameter, DWORD flags, LPDWORD id) {
  g_asked.security = security;
  g_asked.stackSize = stackSize;
  g_asked.threadFlags = flags;
  return ::CreateThread(security, stackSize, start, parameter, flags, id);
}

HANDLE WINAPI RefuseThread(SECURITY_ATTRIBUTES*, SIZE_T, LPTHREAD_START_ROUTINE, LPVOID, DWORD, LPDWORD) {
  ::SetLastError(ERROR_NO_SYSTEM_RESOURCES);
  return nullptr;
}

BOOL WINAPI CountModuleReference(DWORD flags, LPCWSTR address, HMODULE* module) {
  g_asked.moduleFlags = flags;
  ++g_asked.references;
  return ::GetModuleHandleExW(flags, address, module);
}

BOOL WINAPI RefuseModule(DWORD, LPCWSTR, HMODULE* module) {
  *module = nullptr;
  ::SetLastError(ERROR_MOD_NOT_FOUND);
  return FALSE;
}

BOOL WINAPI CountReleaseOfModule(HMODULE module) {
  --g_asked.references;
  return ::FreeLibrary(module);
}

std::atomic<int> g_releasesAtExit{0};
VOID WINAPI CountReleaseAtExit(HMODULE module, DWORD code) {
  ++g_releasesAtExit;
  EXPECT_EQ(code, 0u);
  EXPECT_EQ(module, Library());
  ::FreeLibraryAndExitThread(module, code);
}

DWORD ExitCodeOf(const char* program) {
  std::array<wchar_t, MAX_PATH> test{};
  ::GetModuleFileNameW(nullptr, test.data(), static_cast<DWORD>(test.size()));
  const auto path = std::filesystem::path(test.data()).replace_filename(program);
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process{};
  if (!::CreateProcessW(path.c_str(), nullptr, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                        &process)) {
    return ~0u;
  }
  const UniqueHandle child(process.hProcess);
  const UniqueHandle thread(process.hThread);
  DWORD code = STILL_ACTIVE;
  if (::WaitForSingleObject(child.get(), kLongEnough) == WAIT_OBJECT_0)
    ::GetExitCodeProcess(child.get(), &code);
  return code;
}

class WorkerTest : public testing::Test {
 protected:
  void SetUp() override {
    g_asked = {};
    g_releasesAtExit = 0;
  }
  static void Join(const UniqueHandle& thread) {
    ASSERT_NE(thread, nullptr);
    ASSERT_EQ(::WaitForSingleObject(thread.get(), kLongEnough), WAIT_OBJECT_0);
  }

  simulator::ImportPatch patch{Library()};
};

TEST_F(WorkerTest, RunsItsBodyOnAThreadOfItsOwn) {
  DWORD id = 0;
  Join(StartWorker([&] { id = ::GetCurrentThreadId(); }));
  EXPECT_NE(id, 0u);
  EXPECT_NE(id, ::GetCurrentThreadId());
}

TEST_F(WorkerTest, AsksForTheAllocationGranularityAsInitialStack) {
  SYSTEM_INFO info{};
  ::GetSystemInfo(&info);
  patch.Replace("CreateThread", &RecordThread);
  Join(StartWorker([] {}));
  EXPECT_EQ(g_asked.stackSize, info.dwAllocationGranularity);
  EXPECT_EQ(g_asked.threadFlags, 0u);
  EXPECT_EQ(g_asked.security, nullptr);
}

TEST_F(WorkerTest, AsksForTheStackOfTheProgramsFileWhenToldTo) {
  patch.Replace("CreateThread", &RecordThread);
  g_asked.stackSize = 1;
  Join(StartWorker([] {}, WorkerStack::Default));
  EXPECT_EQ(g_asked.stackSize, 0u);
}

// A stack of 64 KiB in all would be too little for COM and for long records.
TEST_F(WorkerTest, HasFarMoreStackThanTheInitialOne) {
  int sum = 0;
  Join(StartWorker([&] {
    volatile char large[400 * 1024];
    large[0] = 1;
    large[sizeof large - 1] = 2;
    sum = large[0] + large[sizeof large - 1];
  }));
  EXPECT_EQ(sum, 3);
}

TEST_F(WorkerTest, KeepsTheLibraryLoadedForAsLongAsItRuns) {
  patch.Replace("GetModuleHandleExW", &CountModuleReference);
  patch.Replace("FreeLibrary", &CountReleaseOfModule);
  patch.Replace("FreeLibraryAndExitThread", &CountReleaseAtExit);
  int releasedDuringTheBody = -1;
  Join(StartWorker([&] { releasedDuringTheBody = g_releasesAtExit; }));
  EXPECT_EQ(g_asked.references, 1);
  EXPECT_EQ(g_asked.moduleFlags, static_cast<DWORD>(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS));
  EXPECT_EQ(releasedDuringTheBody, 0);
  EXPECT_EQ(g_releasesAtExit, 1);
}

TEST_F(WorkerTest, DestroysItsBodyWhenItEnds) {
  auto owned = std::make_shared<int>(1);
  const std::weak_ptr<int> watched = owned;
  Join(StartWorker([kept = std::move(owned)] {}));
  EXPECT_TRUE(watched.expired());
}

TEST_F(WorkerTest, SurvivesABodyThatThrows) {
  patch.Replace("FreeLibraryAndExitThread", &CountReleaseAtExit);
  auto owned = std::make_shared<int>(1);
  const std::weak_ptr<int> watched = owned;
  bool threw = false;
  Join(StartWorker([&threw, kept = std::move(owned)] {
    threw = true;
    throw std::bad_alloc();
  }));
  EXPECT_TRUE(threw);
  // It ended as any worker does.
  EXPECT_TRUE(watched.expired());
  EXPECT_EQ(g_releasesAtExit, 1);
}

// What throws where nothing may, ends the process: in another one.
TEST_F(WorkerTest, ThatCannotBeContainedEndsTheProcessWithAnExitCodeOfItsOwn) {
  EXPECT_EQ(ExitCodeOf("worker_child.exe"), 0xE0000008u);
}

TEST_F(WorkerTest, ThatCannotBeStartedIsEmptyAndTellsWhy) {
  patch.Replace("CreateThread", &RefuseThread);
  bool ran = false;
  EXPECT_EQ(StartWorker([&] { ran = true; }), nullptr);
  EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_NO_SYSTEM_RESOURCES));
  EXPECT_FALSE(ran);
}

/// Leaves an error of its own behind when it goes.
struct OverwritesLastError {
  OverwritesLastError() = default;
  OverwritesLastError(const OverwritesLastError&) = default;
  OverwritesLastError& operator=(const OverwritesLastError&) = default;
  ~OverwritesLastError() { ::SetLastError(ERROR_INVALID_DATA); }
};

TEST_F(WorkerTest, ThatCannotBeStartedTellsWhyWhateverTheEndOfItsBodyLeaves) {
  patch.Replace("CreateThread", &RefuseThread);
  const std::function<void()> body = [kept = OverwritesLastError()] { static_cast<void>(kept); };
  EXPECT_EQ(StartWorkerThread(body, WorkerStack::Default), nullptr);
  EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_NO_SYSTEM_RESOURCES));
}

TEST_F(WorkerTest, ThatTheLibraryHasNoMemoryForCannotBeStarted) {
  patch.Replace("GetModuleHandleExW", &CountModuleReference);
  patch.Replace("FreeLibrary", &CountReleaseOfModule);
  ScarceMemory memory;
  bool ran = false;
  ::SetLastError(NO_ERROR);
  memory.Fail(1);
  EXPECT_EQ(StartWorker([&ran] { ran = true; }), nullptr);
  EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
  EXPECT_TRUE(memory.HasFailed());
  EXPECT_FALSE(ran);
  EXPECT_EQ(g_asked.references, 0);
}

using LargeCapture = std::array<char, 1000>;
void* __cdecl RefuseTheLargeCapture(std::size_t size) {
  const bool isCapture = size >= sizeof(LargeCapture) && size <= sizeof(LargeCapture) + sizeof(void*);
  // Not malloc: in this program that would come back here.
  return isCapture ? nullptr : std::calloc(1, size);
}

// The body is allocated where it is handed over, in this program.
TEST_F(WorkerTest, ThatThereIsNoMemoryForIsOneThatCannotBeStarted) {
  simulator::ImportPatch own(::GetModuleHandleW(nullptr));
  own.Replace("malloc", &RefuseTheLargeCapture);
  EXPECT_EQ(StartWorker([capture = LargeCapture()] { static_cast<void>(capture); }), nullptr);
  EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
}

TEST_F(WorkerTest, ThatCannotBeStartedReleasesItsBodyAndTheLibrary) {
  patch.Replace("CreateThread", &RefuseThread);
  patch.Replace("GetModuleHandleExW", &CountModuleReference);
  patch.Replace("FreeLibrary", &CountReleaseOfModule);
  auto owned = std::make_shared<int>(1);
  const std::weak_ptr<int> watched = owned;
  EXPECT_EQ(StartWorker([kept = std::move(owned)] {}), nullptr);
  EXPECT_TRUE(watched.expired());
  EXPECT_EQ(g_asked.references, 0);
}

TEST_F(WorkerTest, IsNotStartedWithoutAReferenceOnTheLibrary) {
  patch.Replace("GetModuleHandleExW", &RefuseModule);
  bool ran = false;
  EXPECT_EQ(StartWorker([&] { ran = true; }), nullptr);
  EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_MOD_NOT_FOUND));
  EXPECT_FALSE(ran);
}

TEST_F(WorkerTest, PinningAsksForTheLibraryToStayForGood) {
  patch.Replace("GetModuleHandleExW", &CountModuleReference);
  PinThisModule();
  EXPECT_EQ(g_asked.moduleFlags,
            static_cast<DWORD>(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS));
}

}  // namespace
