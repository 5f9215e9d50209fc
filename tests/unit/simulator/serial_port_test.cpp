#include <string>
#include <string_view>
#include <vector>

#include "unit/simulator/simulation_test.h"

namespace simulator {

namespace {

class SerialPortTest : public SimulationTest {
 protected:
  ~SerialPortTest() override {
    if (m_Port != INVALID_HANDLE_VALUE) platform.Close(m_Port);
  }

  HANDLE Open(const char* name = "\\\\.\\COM7") {
    return platform.CreateFileNarrow(name, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0,
                                     nullptr);
  }
  void StartAndOpen() {
    Start();
    m_Port = Open();
    ASSERT_NE(m_Port, INVALID_HANDLE_VALUE);
  }
  bool Write(std::string_view text) {
    DWORD written = 0;
    return platform.Write(m_Port, text.data(), static_cast<DWORD>(text.size()), &written, nullptr) != FALSE &&
           written == text.size();
  }

  HANDLE m_Port = INVALID_HANDLE_VALUE;
};

TEST_F(SerialPortTest, TheRebootCommandReachesTheModem) {
  StartAndOpen();
  EXPECT_TRUE(Write("at+xlog=4\r"));
  EXPECT_EQ(pc->AtCommands(), std::vector<std::string>{"at+xlog=4\r"});
  EXPECT_TRUE(Reaches(ModemState::FlashPort));
}

TEST_F(SerialPortTest, RepliesCanBeReadAndPurged) {
  StartAndOpen();
  ASSERT_TRUE(Write("at\r"));
  COMSTAT status{};
  DWORD errors = 0;
  ASSERT_TRUE(platform.ClearError(m_Port, &errors, &status));
  EXPECT_EQ(status.cbInQue, 6u);
  char first = 0;
  DWORD read = 0;
  ASSERT_TRUE(platform.Read(m_Port, &first, 1, &read, nullptr));
  EXPECT_EQ(first, '\r');
  ASSERT_TRUE(platform.Purge(m_Port, PURGE_RXCLEAR));
  ASSERT_TRUE(platform.ClearError(m_Port, &errors, &status));
  EXPECT_EQ(status.cbInQue, 0u);
}

TEST_F(SerialPortTest, KeepsTheSettingsThatItWasGiven) {
  StartAndOpen();
  DCB settings{};
  settings.DCBlength = sizeof(settings);
  ASSERT_TRUE(platform.GetState(m_Port, &settings));
  settings.BaudRate = CBR_115200;
  ASSERT_TRUE(platform.SetState(m_Port, &settings));
  DCB read{};
  ASSERT_TRUE(platform.GetState(m_Port, &read));
  EXPECT_EQ(read.BaudRate, static_cast<DWORD>(CBR_115200));
}

TEST_F(SerialPortTest, RefusesFlowControlCharactersThatAreTheSame) {
  StartAndOpen();
  DCB settings{};
  ASSERT_TRUE(platform.GetState(m_Port, &settings));
  settings.XoffChar = settings.XonChar;
  EXPECT_FALSE(platform.SetState(m_Port, &settings));
}

TEST_F(SerialPortTest, IsOpenedByOneAtATime) {
  StartAndOpen();
  EXPECT_EQ(Open(), INVALID_HANDLE_VALUE);
  EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
}

TEST_F(SerialPortTest, ACloseFreesThePort) {
  StartAndOpen();
  platform.Close(m_Port);
  m_Port = Open();
  EXPECT_NE(m_Port, INVALID_HANDLE_VALUE);
}

TEST_F(SerialPortTest, AnotherPortIsNotThere) {
  Start();
  EXPECT_EQ(Open("\\\\.\\COM0"), INVALID_HANDLE_VALUE);
  EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
}

TEST_F(SerialPortTest, IsGoneWithTheModem) {
  StartAndOpen();
  ASSERT_TRUE(Write("at+xlog=4\r"));
  ASSERT_TRUE(Reaches(ModemState::FlashPort));
  EXPECT_FALSE(Write("at\r"));
}

struct SerialFault {
  const char* name;
  DWORD AtPortFaults::*error;
};

class SerialFaultTest : public SerialPortTest, public testing::WithParamInterface<SerialFault> {};

TEST_P(SerialFaultTest, FailsWithItsError) {
  options.faults.atPort.*GetParam().error = ERROR_GEN_FAILURE;
  Start();
  m_Port = Open();
  DCB settings{};
  const bool works = m_Port != INVALID_HANDLE_VALUE && platform.GetState(m_Port, &settings) &&
                     platform.SetState(m_Port, &settings) && Write("at\r");
  const DWORD error = ::GetLastError();
  EXPECT_FALSE(works);
  EXPECT_EQ(error, static_cast<DWORD>(ERROR_GEN_FAILURE));
}

INSTANTIATE_TEST_SUITE_P(Calls, SerialFaultTest,
                         testing::Values(SerialFault{"open", &AtPortFaults::openError},
                                         SerialFault{"get", &AtPortFaults::getStateError},
                                         SerialFault{"set", &AtPortFaults::setStateError},
                                         SerialFault{"write", &AtPortFaults::writeError}),
                         [](const auto& fault) { return std::string(fault.param.name); });

}  // namespace

}  // namespace simulator
