#include "common/mutex.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "simulator/import_patch.h"

namespace {

constexpr auto kAbandoned = static_cast<long>(0x80070080u);
constexpr auto kTimedOut = static_cast<long>(0x80070102u);
constexpr auto kNotOwner = static_cast<long>(0x80070120u);
constexpr auto kNoMutex = static_cast<long>(0x80004005u);
constexpr unsigned long kNoLimit = 0xFFFFFFFFul;

template <typename Action>
auto OnAnotherThread(Action action) {
  decltype(action()) result{};
  std::thread([&] { result = action(); }).join();
  return result;
}

std::string NameOfThisTest() {
  return "CorvelMutexTest." + std::to_string(::GetCurrentProcessId()) + "." +
         testing::UnitTest::GetInstance()->current_test_info()->name();
}

TEST(MutexTest, WithoutArgumentsHasNoOwner) {
  CMutex mutex;
  EXPECT_EQ(OnAnotherThread([&] { return mutex.Lock(0); }), 0);
}

TEST(MutexTest, LocksAndUnlocks) {
  CMutex mutex;
  EXPECT_EQ(mutex.Lock(kNoLimit), 0);
  EXPECT_EQ(mutex.Unlock(), 0);
}

TEST(MutexTest, LocksAgainOnTheThreadThatOwnsIt) {
  CMutex mutex;
  EXPECT_EQ(mutex.Lock(0), 0);
  EXPECT_EQ(mutex.Lock(0), 0);
  EXPECT_EQ(mutex.Unlock(), 0);
  EXPECT_EQ(OnAnotherThread([&] { return mutex.Lock(0); }), kTimedOut);
}

TEST(MutexTest, TimesOutAtOnceWhileAnotherThreadOwnsIt) {
  CMutex mutex;
  ASSERT_EQ(mutex.Lock(0), 0);
  EXPECT_EQ(OnAnotherThread([&] { return mutex.Lock(0); }), kTimedOut);
}

TEST(MutexTest, RefusesToBeUnlockedByAThreadThatDoesNotOwnIt) {
  CMutex mutex;
  EXPECT_EQ(mutex.Unlock(), kNotOwner);
  ASSERT_EQ(mutex.Lock(0), 0);
  EXPECT_EQ(OnAnotherThread([&] { return mutex.Unlock(); }), kNotOwner);
}

TEST(MutexTest, OfAThreadThatEndedIsAbandonedButOwned) {
  CMutex mutex;
  ASSERT_EQ(OnAnotherThread([&] { return mutex.Lock(0); }), 0);
  EXPECT_EQ(mutex.Lock(0), kAbandoned);
  EXPECT_EQ(mutex.Unlock(), 0);
}

TEST(MutexTest, CreatedAsOwnedBelongsToItsMaker) {
  CMutex mutex(true);
  EXPECT_EQ(OnAnotherThread([&] { return mutex.Lock(0); }), kTimedOut);
  EXPECT_EQ(mutex.Unlock(), 0);
}

TEST(MutexTest, OpensAnExistingOneByItsName) {
  const std::string name = NameOfThisTest();
  CMutex created(true, name.c_str());
  CMutex opened(false, name.c_str(), false);
  EXPECT_EQ(OnAnotherThread([&] { return opened.Lock(0); }), kTimedOut);
  EXPECT_EQ(created.Unlock(), 0);
  EXPECT_EQ(opened.Lock(0), 0);
}

TEST(MutexTest, CreatedUnderAUsedNameIsTheSameOne) {
  const std::string name = NameOfThisTest();
  CMutex first(true, name.c_str());
  CMutex second(false, name.c_str());
  EXPECT_EQ(OnAnotherThread([&] { return second.Lock(0); }), kTimedOut);
}

TEST(MutexTest, OpenedUnderAnUnknownNameFailsEveryCall) {
  CMutex mutex(false, NameOfThisTest().c_str(), false);
  EXPECT_EQ(mutex.Lock(0), kNoMutex);
  EXPECT_EQ(mutex.Unlock(), kNoMutex);
}

TEST(MutexTest, OpenedWithoutANameFailsEveryCall) {
  CMutex mutex(false, nullptr, false);
  EXPECT_EQ(mutex.Lock(0), kNoMutex);
}

TEST(MutexTest, ClosesItsHandleWhenItGoes) {
  const std::string name = NameOfThisTest();
  { CMutex created(false, name.c_str()); }
  EXPECT_EQ(::OpenMutexA(SYNCHRONIZE, FALSE, name.c_str()), nullptr);
}

// What the system is asked for

struct Asked {
  DWORD access = 0;
  BOOL flag = FALSE;
  std::string name;
  SECURITY_ATTRIBUTES* attributes = nullptr;
} g_asked;

HANDLE WINAPI RecordCreate(SECURITY_ATTRIBUTES* attributes, BOOL flag, LPCSTR name) {
  g_asked = {0, flag, name, attributes};
  return nullptr;
}

HANDLE WINAPI RecordOpen(DWORD access, BOOL flag, LPCSTR name) {
  g_asked = {access, flag, name, nullptr};
  return nullptr;
}

DWORD WINAPI FailToWait(HANDLE, DWORD) {
  ::SetLastError(ERROR_ACCESS_DENIED);
  return WAIT_FAILED;
}

class MutexCallsTest : public testing::Test {
 protected:
  simulator::ImportPatch patch{::GetModuleHandleW(L"toolkit_internals.dll")};
};

TEST_F(MutexCallsTest, CreatingPassesSecurityOwnershipAndName) {
  SECURITY_ATTRIBUTES attributes{};
  patch.Replace("CreateMutexA", &RecordCreate);
  CMutex mutex(true, "name", true, &attributes);
  EXPECT_EQ(g_asked.attributes, &attributes);
  EXPECT_EQ(g_asked.flag, TRUE);
  EXPECT_EQ(g_asked.name, "name");
}

TEST_F(MutexCallsTest, OpeningAsksForSynchronisationOnlyAndTakesTheFlagForInheritance) {
  SECURITY_ATTRIBUTES attributes{};
  patch.Replace("OpenMutexA", &RecordOpen);
  CMutex mutex(true, "name", false, &attributes);
  EXPECT_EQ(g_asked.access, static_cast<DWORD>(SYNCHRONIZE));
  EXPECT_EQ(g_asked.flag, TRUE);
  EXPECT_EQ(g_asked.name, "name");
}

TEST_F(MutexCallsTest, AFailedCreationFailsEveryCall) {
  patch.Replace("CreateMutexA", &RecordCreate);
  CMutex mutex(false, "name");
  EXPECT_EQ(mutex.Lock(0), kNoMutex);
  EXPECT_EQ(mutex.Unlock(), kNoMutex);
}

TEST_F(MutexCallsTest, AFailedWaitGivesItsError) {
  patch.Replace("WaitForSingleObject", &FailToWait);
  CMutex mutex;
  EXPECT_EQ(mutex.Lock(0), static_cast<long>(0x80070005u));
}

}  // namespace
