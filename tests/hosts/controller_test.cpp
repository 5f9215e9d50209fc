// The client for controlling programs, against a service that the test plays.

#include "controller.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "hosts/common/owners.h"
#include "simulator/host/kept_key.h"
#include "simulator/import_patch.h"
#include "tests/hosts/cmdline_test.h"

namespace hosts {

using corvel::FlashEnding;
using corvel::FlashOutcome;
using corvel::FlashRequest;
using testing::ElementsAre;

namespace {

using namespace std::chrono_literals;

HandshakeKey KeyOfThisTest(const std::wstring& name) {
  return {.root = HKEY_CURRENT_USER,
          .rootName = L"HKCU",
          .path = L"Software\\Corvel\\Test\\" + std::to_wstring(::GetCurrentProcessId()) + L"\\" + name};
}

/// The service is the callback: whenever the client has looked, the next step of the service is done.
class ControllerTest : public testing::Test {
 protected:
  FlashOutcome FlashBeside(std::deque<std::function<void()>> service, std::chrono::milliseconds limit = 60s,
                           HANDLE cancellation = nullptr) {
    FlashRequest request;
    request.limit = limit;
    request.cancellation = cancellation;
    request.onProgress = [&](const corvel::FlashValues& now) {
      seen.push_back(now.result.value_or(99));
      EXPECT_FALSE(seen.size() == 1 && now.ready != 1u) << "the flag is raised before the first look";
      if (service.empty()) return;
      const auto step = service.front();
      service.pop_front();
      step();
    };
    return corvel::Flash({key.Location().root, key.Location().path}, request);
  }
  std::function<void()> Writes(std::uint32_t result) {
    return [this, result] { key.Write(L"Flash_Result", result); };
  }
  std::function<void()> TakesTheFlagBack() {
    return [this] { key.Write(L"Fls_Ready", 0); };
  }

  simulator::KeptKey key{KeyOfThisTest(L"Client")};
  std::vector<std::uint32_t> seen;
};

TEST_F(ControllerTest, TellsOfSuccessAndOfEachStateOnTheWay) {
  key.Write(L"Flash_Result", 3);
  const FlashOutcome outcome = FlashBeside({Writes(0), Writes(1), Writes(2), Writes(4), TakesTheFlagBack()});
  EXPECT_EQ(outcome.ending, FlashEnding::Succeeded);
  EXPECT_EQ(outcome.values.result, 4u);
  EXPECT_EQ(outcome.error, static_cast<DWORD>(ERROR_SUCCESS));
  EXPECT_THAT(seen, ElementsAre(3, 0, 1, 2, 4, 4));
}

TEST_F(ControllerTest, TellsOfAFailure) {
  const FlashOutcome outcome = FlashBeside({Writes(1), Writes(3), TakesTheFlagBack()});
  EXPECT_EQ(outcome.ending, FlashEnding::Failed);
}

/// Somebody else took the request back before a service saw it: the old success is not this request's.
TEST_F(ControllerTest, TakesNoOldSuccessForItsOwn) {
  key.Write(L"Flash_Result", 4);
  const FlashOutcome outcome = FlashBeside({TakesTheFlagBack()});
  EXPECT_EQ(outcome.ending, FlashEnding::Unknown);
  EXPECT_EQ(outcome.values.result, 4u);
}

TEST_F(ControllerTest, TakesASecondSuccessForItsOwnWhenItSawTheJob) {
  key.Write(L"Flash_Result", 4);
  const FlashOutcome outcome = FlashBeside({Writes(1), Writes(4), TakesTheFlagBack()});
  EXPECT_EQ(outcome.ending, FlashEnding::Succeeded);
}

TEST_F(ControllerTest, KnowsNoEndWhenTheResultWasNotWritten) {
  const FlashOutcome outcome = FlashBeside({Writes(1), TakesTheFlagBack()});
  EXPECT_EQ(outcome.ending, FlashEnding::Unknown);
}

TEST_F(ControllerTest, TakesTheRequestBackWhenItsTimeIsUpBeforeAnybodyTookIt) {
  key.Write(L"Flash_Result", 1);
  const FlashOutcome outcome = FlashBeside({}, 50ms);
  EXPECT_EQ(outcome.ending, FlashEnding::NotTaken);
  EXPECT_EQ(key.Read().ready, 0u);
}

TEST_F(ControllerTest, LeavesAJobAloneWhenItsTimeIsUp) {
  for (const std::uint32_t state : {0u, 1u, 2u}) {
    const FlashOutcome outcome = FlashBeside({Writes(state)}, 500ms);
    EXPECT_EQ(outcome.ending, FlashEnding::TimedOut) << state;
    EXPECT_EQ(key.Read().ready, 1u) << state;
  }
}

TEST_F(ControllerTest, LeavesTheRequestOfAServiceThatDiedInAFlash) {
  key.Write(L"Time_Out", 50);
  for (const std::uint32_t state : {1u, 2u}) {
    const FlashOutcome outcome = FlashBeside({Writes(state)});
    EXPECT_EQ(outcome.ending, FlashEnding::Silent) << state;
    EXPECT_EQ(key.Read().ready, 1u) << state;
  }
}

TEST_F(ControllerTest, TakesTheRequestOfAServiceThatDiedBeforeTheFlashBack) {
  key.Write(L"Time_Out", 50);
  const FlashOutcome outcome = FlashBeside({Writes(0)});
  EXPECT_EQ(outcome.ending, FlashEnding::Silent);
  EXPECT_EQ(key.Read().ready, 0u);
}

TEST_F(ControllerTest, WaitsTheUsualTimeWhenNoneIsWritten) {
  key.Write(L"Time_Out", 0);
  const FlashOutcome outcome = FlashBeside({Writes(1)}, 300ms);
  EXPECT_EQ(outcome.ending, FlashEnding::TimedOut);
}

class CancelledControllerTest : public ControllerTest {
 protected:
  std::function<void()> Cancels() {
    return [this] { ::SetEvent(cancellation.get()); };
  }

  OwnedHandle cancellation = NewEvent();
};

TEST_F(CancelledControllerTest, TakesTheRequestBackBeforeAnybodyTookIt) {
  const FlashOutcome outcome = FlashBeside({Cancels()}, 60s, cancellation.get());
  EXPECT_EQ(outcome.ending, FlashEnding::Cancelled);
  EXPECT_EQ(key.Read().ready, 0u);
}

TEST_F(CancelledControllerTest, AsksForNothingWhenItIsCancelledAlready) {
  ::SetEvent(cancellation.get());
  const FlashOutcome outcome = FlashBeside({}, 60s, cancellation.get());
  EXPECT_EQ(outcome.ending, FlashEnding::Cancelled);
  EXPECT_FALSE(key.Read().ready.has_value());
  EXPECT_TRUE(seen.empty());
}

TEST_F(CancelledControllerTest, LeavesAFlashAlone) {
  const FlashOutcome outcome = FlashBeside({Writes(1), Cancels()}, 60s, cancellation.get());
  EXPECT_EQ(outcome.ending, FlashEnding::Cancelled);
  EXPECT_EQ(key.Read().ready, 1u);
}

TEST_F(ControllerTest, EndsWhenItsEventIsNone) {
  const FlashOutcome outcome = FlashBeside({}, 60s, key.Location().root);
  EXPECT_EQ(outcome.ending, FlashEnding::Refused);
  EXPECT_EQ(outcome.error, static_cast<DWORD>(ERROR_INVALID_HANDLE));
}

/// By its own limit where the system does not announce the deletion.
TEST_F(ControllerTest, IsRefusedWhenTheKeyIsDeleted) {
  const auto deletes = [this] { ::RegDeleteTreeW(key.Location().root, key.Location().path.c_str()); };
  const FlashOutcome outcome = FlashBeside({deletes}, 200ms);
  EXPECT_EQ(outcome.ending, FlashEnding::Refused);
  EXPECT_EQ(outcome.error, static_cast<DWORD>(ERROR_KEY_DELETED));
}

TEST_F(ControllerTest, IsRefusedAKeyThatItMayNotWrite) {
  const HandshakeKey place = KeyOfThisTest(L"ReadOnlyClient");
  const UnwritableKey refused(place.root, place.path);
  const FlashOutcome outcome = corvel::Flash({place.root, place.path});
  EXPECT_EQ(outcome.ending, FlashEnding::Refused);
  EXPECT_EQ(outcome.error, static_cast<DWORD>(ERROR_ACCESS_DENIED));
}

TEST_F(ControllerTest, LeavesTheRequestWhenItsCallerThrows) {
  const auto gone = [] { throw std::runtime_error("the caller's own"); };
  EXPECT_THROW(FlashBeside({gone}), std::runtime_error);
  EXPECT_EQ(key.Read().ready, 1u);
}

/// The service looks at the 64-bit view, whatever the controlling program is built for.
TEST_F(ControllerTest, UsesTheViewOfTheService) {
  static std::vector<REGSAM> accesses;
  accesses.clear();
  simulator::ImportPatch patch(::GetModuleHandleW(nullptr));
  patch.Replace(
      "RegCreateKeyExW",
      +[](HKEY, LPCWSTR, DWORD, LPWSTR, DWORD, REGSAM access, const LPSECURITY_ATTRIBUTES, PHKEY,
          LPDWORD) -> LSTATUS {
        accesses.push_back(access & KEY_WOW64_64KEY);
        return ERROR_ACCESS_DENIED;
      });
  patch.Replace(
      "RegOpenKeyExW", +[](HKEY, LPCWSTR, DWORD, REGSAM access, PHKEY) -> LSTATUS {
        accesses.push_back(access & KEY_WOW64_64KEY);
        return ERROR_ACCESS_DENIED;
      });
  EXPECT_EQ(corvel::Flash({HKEY_CURRENT_USER, L"Software\\Corvel\\Test"}).error,
            static_cast<DWORD>(ERROR_ACCESS_DENIED));
  corvel::FlashKeyWatch watch({HKEY_CURRENT_USER, L"Software\\Corvel\\Test"});
  EXPECT_EQ(watch.Arm(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
  EXPECT_THAT(accesses, ElementsAre(KEY_WOW64_64KEY, KEY_WOW64_64KEY));
}

TEST_F(ControllerTest, ReadsTheViewOfTheService) {
  static std::vector<DWORD> views;
  views.clear();
  simulator::ImportPatch patch(::GetModuleHandleW(nullptr));
  patch.Replace(
      "RegGetValueW", +[](HKEY, LPCWSTR, LPCWSTR, DWORD flags, LPDWORD, PVOID, LPDWORD) -> LSTATUS {
        constexpr DWORD kSubkeyIn64BitView = 0x00010000;
        views.push_back(flags & kSubkeyIn64BitView);
        return ERROR_FILE_NOT_FOUND;
      });
  corvel::ReadFlashValues(HKEY_CURRENT_USER, L"Software\\Corvel\\Test");
  EXPECT_THAT(views, testing::AllOf(testing::SizeIs(6), testing::Each(0x00010000)));
}

/// A service may take the request when the time for it is just over.
TEST_F(ControllerTest, LeavesAJobThatWasTakenAtTheLastMoment) {
  static const simulator::KeptKey* taken;
  static bool isTaken;
  taken = &key;
  isTaken = false;
  simulator::ImportPatch patch(::GetModuleHandleW(nullptr));
  patch.Replace(
      "WaitForMultipleObjects", +[](DWORD count, const HANDLE* events, BOOL all, DWORD limit) -> DWORD {
        const auto wait = reinterpret_cast<decltype(&::WaitForMultipleObjects)>(
            ::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "WaitForMultipleObjects"));
        if (std::exchange(isTaken, true)) return wait(count, events, all, limit);
        taken->Write(L"Flash_Result", 1);
        return WAIT_TIMEOUT;
      });
  EXPECT_EQ(FlashBeside({}, 200ms).ending, FlashEnding::TimedOut);
  EXPECT_EQ(key.Read().ready, 1u);
}

TEST(FlashValuesTest, AreOthersWhicheverHasChanged) {
  const corvel::FlashValues values{
      .ready = 1, .retryTimes = 3, .timeOut = 153000, .onGoing = 0, .progress = 0, .result = 0};
  EXPECT_TRUE(values.AreSameAs(values));
  for (const auto value :
       {&corvel::FlashValues::ready, &corvel::FlashValues::retryTimes, &corvel::FlashValues::timeOut,
        &corvel::FlashValues::onGoing, &corvel::FlashValues::progress, &corvel::FlashValues::result}) {
    corvel::FlashValues other = values;
    other.*value = 7;
    EXPECT_FALSE(values.AreSameAs(other));
    (other.*value).reset();
    EXPECT_FALSE(values.AreSameAs(other));
  }
}

TEST(FlashKeyTest, IsReadFromTheTextOfAConfiguration) {
  const auto key = corvel::FlashKey::Parse(L"HKLM\\SOFTWARE\\Quenta\\FlashService");
  ASSERT_TRUE(key.has_value());
  EXPECT_EQ(key->root, HKEY_LOCAL_MACHINE);
  EXPECT_EQ(key->path, L"SOFTWARE\\Quenta\\FlashService");
  EXPECT_EQ(corvel::FlashKey::Parse(L"HKCU\\A")->root, HKEY_CURRENT_USER);
  EXPECT_EQ(corvel::FlashKey::Parse(L"HKU\\A")->root, HKEY_USERS);
}

TEST(FlashKeyTest, IsNoneWithoutAKnownRootAndAPath) {
  for (const wchar_t* text :
       {L"", L"HKLM", L"HKLM\\", L"hklm\\A", L"\\A", L"HKEY_LOCAL_MACHINE\\A", L"SOFTWARE\\A"}) {
    EXPECT_FALSE(corvel::FlashKey::Parse(text).has_value()) << std::wstring_view(text).size();
  }
}

}  // namespace

}  // namespace hosts
