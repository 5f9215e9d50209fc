// Drives the AT port through a serial device of the system. Only the calls that find the port are answered
// here; the modem at the other end is modem_on_pty.py, which names the port in the environment.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <iterator>
#include <string>

#include "download/atprocessor.h"
#include "support/device_tree.h"

namespace {

constexpr ULONGLONG kReadLimitMs = 5000;

class AtPortOnRealSerialTest : public testing::Test {
 protected:
  void SetUp() override {
    wchar_t number[8]{};
    if (::GetEnvironmentVariableW(L"CORVEL_TEST_COM_PORT", number, std::size(number)) == 0) {
      GTEST_SKIP() << "there is no serial device with a modem at its other end";
    }
    m_Tree.Has(L"USB\\VID_1D5A&PID_0AE2&MI_00\\6&1234&0&0000", L"Modem (COM" + std::wstring(number) + L")");
  }

  int Send(const std::string& command) {
    return ATProcessor::GetInstance()->sendATCmd(command.data(), static_cast<std::uint32_t>(command.size()),
                                                 nullptr, nullptr);
  }

  std::string ReplyTo(const std::string& command) {
    const ULONGLONG begin = ::GetTickCount64();
    std::string reply(64, '?');
    auto length = static_cast<std::uint32_t>(reply.size());
    EXPECT_EQ(ATProcessor::GetInstance()->sendATCmd(
                  command.data(), static_cast<std::uint32_t>(command.size()), reply.data(), &length),
              0);
    m_Passed = ::GetTickCount64() - begin;
    return reply.substr(0, length);
  }
  ULONGLONG Passed() const { return m_Passed; }

 private:
  DeviceTree m_Tree;
  ULONGLONG m_Passed = 0;
};

TEST_F(AtPortOnRealSerialTest, SendsTheReboot) {
  EXPECT_EQ(Send("at+xlog=4\r"), 0);
}

TEST_F(AtPortOnRealSerialTest, ReadsUntilOk) {
  EXPECT_THAT(ReplyTo("at+ok\r"), testing::EndsWith("OK\r\n"));
  EXPECT_LT(Passed(), kReadLimitMs);
}

TEST_F(AtPortOnRealSerialTest, ReadsUntilError) {
  EXPECT_THAT(ReplyTo("at+error\r"), testing::EndsWith("ERROR\r\n"));
  EXPECT_LT(Passed(), kReadLimitMs);
}

TEST_F(AtPortOnRealSerialTest, ReadsUntilTheTimeLimit) {
  EXPECT_EQ(ReplyTo("at+partial\r"), "\r\n+PART");
  EXPECT_GE(Passed(), kReadLimitMs - 20);
  EXPECT_LT(Passed(), 2 * kReadLimitMs);
}

}  // namespace
