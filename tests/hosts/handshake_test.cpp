#include "hosts/common/handshake.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <iterator>
#include <optional>
#include <string>

#include "simulator/host/kept_key.h"
#include "simulator/import_patch.h"
#include "tests/hosts/cmdline_test.h"

namespace hosts {

namespace {

HandshakeKey KeyOfThisTest(const std::wstring& name) {
  return {.root = HKEY_CURRENT_USER,
          .rootName = L"HKCU",
          .path = L"Software\\Corvel\\Test\\" + name + std::to_wstring(::GetCurrentProcessId())};
}

// --- What the values say ---------------------------------------------------------------------------------

std::string MeaningOf(const std::wstring& name, const Handshake& values, Writer writer = Writer::Lives) {
  for (const HandshakeLine& line : Describe(values, writer)) {
    if (line.name == name) return line.meaning;
  }
  return "no such value";
}

/// All absent but one.
Handshake With(std::optional<std::uint32_t> Handshake::*member, std::uint32_t value) {
  Handshake values;
  values.*member = value;
  return values;
}

TEST(HandshakeMeaningTest, OfTheRequest) {
  EXPECT_EQ(MeaningOf(L"Fls_Ready", {}), "never raised");
  EXPECT_EQ(MeaningOf(L"Fls_Ready", With(&Handshake::ready, 0)), "no flash is asked for");
  EXPECT_EQ(MeaningOf(L"Fls_Ready", With(&Handshake::ready, 1)), "a flash is asked for");
  EXPECT_EQ(MeaningOf(L"Fls_Ready", With(&Handshake::ready, 2)), "no flash is asked for");
}

TEST(HandshakeMeaningTest, OfTheRetries) {
  EXPECT_EQ(MeaningOf(L"Retry_Times", {}), "absent: up to 3 retries");
  EXPECT_EQ(MeaningOf(L"Retry_Times", With(&Handshake::retryTimes, 0)), "up to 0 retries");
  EXPECT_EQ(MeaningOf(L"Retry_Times", With(&Handshake::retryTimes, 1)), "up to 1 retry");
}

TEST(HandshakeMeaningTest, OfTheTimeLimit) {
  EXPECT_EQ(MeaningOf(L"Time_Out", {}), "not yet written");
  EXPECT_EQ(MeaningOf(L"Time_Out", With(&Handshake::timeOut, 153000)),
            "153 s for one attempt and the modem's return");
}

TEST(HandshakeMeaningTest, OfARunningJob) {
  EXPECT_EQ(MeaningOf(L"Flash_OnGoing", {}), "not yet written");
  EXPECT_EQ(MeaningOf(L"Flash_OnGoing", With(&Handshake::onGoing, 0)), "no job is running");
  EXPECT_EQ(MeaningOf(L"Flash_OnGoing", With(&Handshake::onGoing, 2)), "no job is running");
  EXPECT_EQ(MeaningOf(L"Flash_OnGoing", With(&Handshake::onGoing, 1)),
            "a job is running, or its last attempt ended in failure");
  EXPECT_EQ(MeaningOf(L"Flash_OnGoing", With(&Handshake::onGoing, 1), Writer::Gone),
            "no job is running: the last one was cut short, or ended in failure");
}

TEST(HandshakeMeaningTest, OfProgressAndResult) {
  EXPECT_EQ(MeaningOf(L"Flash_Progress", {}), "not yet written");
  EXPECT_EQ(MeaningOf(L"Flash_Progress", With(&Handshake::progress, 7)), "7 % of the images are written");
  EXPECT_EQ(MeaningOf(L"Flash_Result", {}), "never written");
  const char* const meanings[] = {"idle", "flashing", "retrying", "failed", "succeeded", "unknown"};
  for (std::uint32_t result = 0; result < std::size(meanings); ++result) {
    EXPECT_EQ(MeaningOf(L"Flash_Result", With(&Handshake::result, result)), meanings[result]);
  }
}

// --- The key ---------------------------------------------------------------------------------------------

TEST(HandshakeKeyTest, HoldsNumbersOnly) {
  const simulator::KeptKey key(KeyOfThisTest(L"Numbers"));
  key.Write(L"Flash_Result", 4);
  ::RegSetKeyValueW(HKEY_CURRENT_USER, key.Location().path.c_str(), L"Fls_Ready", REG_SZ, L"1",
                    2 * sizeof(wchar_t));
  const std::uint64_t large = 1;
  ::RegSetKeyValueW(HKEY_CURRENT_USER, key.Location().path.c_str(), L"Flash_Progress", REG_BINARY, &large, 1);
  EXPECT_EQ(key.Read().result, 4u);
  EXPECT_FALSE(key.Read().ready);
  EXPECT_FALSE(key.Read().progress);
}

TEST(HandshakeKeyTest, IsNotWritableWhenItMayOnlyBeRead) {
  const HandshakeKey key = KeyOfThisTest(L"ReadOnly");
  EXPECT_EQ(CheckHandshakeKeyWritable(key), static_cast<DWORD>(ERROR_SUCCESS));
  const UnwritableKey protectedKey(key.root, key.path);
  EXPECT_EQ(CheckHandshakeKeyWritable(key), static_cast<DWORD>(ERROR_ACCESS_DENIED));
  HandshakeKey below = key;
  below.path += L"\\Below\\It";
  EXPECT_EQ(CheckHandshakeKeyWritable(below), static_cast<DWORD>(ERROR_ACCESS_DENIED));
}

// --- The watch -------------------------------------------------------------------------------------------

class HandshakeWatchTest : public testing::Test {
 protected:
  static bool HasChanged(const HandshakeWatch& watch, DWORD limitMs = 10000) {
    return ::WaitForSingleObject(watch.Event(), limitMs) == WAIT_OBJECT_0;
  }

  simulator::KeptKey key{KeyOfThisTest(L"Watch")};
};

TEST_F(HandshakeWatchTest, SignalsAChangeOfAValueAndIsArmedAnew) {
  key.Write(L"Flash_Progress", 0);
  HandshakeWatch watch(key.Location());
  for (const std::uint32_t progress : {1u, 2u}) {
    ASSERT_EQ(watch.Arm(), static_cast<DWORD>(ERROR_SUCCESS));
    EXPECT_FALSE(HasChanged(watch, 0));
    key.Write(L"Flash_Progress", progress);
    EXPECT_TRUE(HasChanged(watch));
  }
}

TEST_F(HandshakeWatchTest, FindsAKeyThatWasDeletedAndMadeAgain) {
  key.Write(L"Flash_Progress", 0);
  HandshakeWatch watch(key.Location());
  ASSERT_EQ(watch.Arm(), static_cast<DWORD>(ERROR_SUCCESS));
  key.Write(L"Flash_Progress", 1);
  ASSERT_TRUE(HasChanged(watch));
  ::RegDeleteTreeW(key.Location().root, key.Location().path.c_str());
  EXPECT_NE(watch.Arm(), static_cast<DWORD>(ERROR_SUCCESS));
  EXPECT_EQ(watch.Arm(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  key.Write(L"Flash_Progress", 0);
  ASSERT_EQ(watch.Arm(), static_cast<DWORD>(ERROR_SUCCESS));
  key.Write(L"Flash_Progress", 1);
  EXPECT_TRUE(HasChanged(watch));
}

int g_notifications = 0;

LSTATUS WINAPI CountNotification(HKEY, BOOL, DWORD, HANDLE, BOOL) {
  ++g_notifications;
  return ERROR_SUCCESS;
}

/// Each one that is asked for lasts until the next change.
TEST_F(HandshakeWatchTest, AsksForOneNotificationPerChange) {
  key.Write(L"Flash_Progress", 0);
  simulator::ImportPatch patch(::GetModuleHandleW(nullptr));
  patch.Replace("RegNotifyChangeKeyValue", &CountNotification);
  HandshakeWatch watch(key.Location());
  watch.Arm();
  watch.Arm();
  EXPECT_EQ(g_notifications, 1);
}

}  // namespace

}  // namespace hosts
