#include "unit/simulator/simulation_test.h"

using corvel::UniqueHandle;

namespace simulator {

namespace {

constexpr DWORD kProbe = 0x220014;
constexpr DWORD kReset = 0x220020;

class UdeDriverTest : public SimulationTest {
 protected:
  ~UdeDriverTest() override { Close(); }

  HANDLE Open(std::size_t instance = 0) {
    Close();
    m_File = platform.CreateFileWide(Interfaces(kUdeFlashClass).at(instance).c_str(),
                                     GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                     nullptr, OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
    return m_File;
  }
  void Close() {
    if (m_File != INVALID_HANDLE_VALUE) platform.Close(m_File);
    m_File = INVALID_HANDLE_VALUE;
  }
  /// @return 0 when the request completed at once, else its error; 997 when it is pending.
  DWORD Request(DWORD code) {
    m_Event.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    m_Overlapped = {};
    m_Overlapped.hEvent = m_Event.get();
    return platform.IoControl(m_File, code, nullptr, 0, nullptr, 0, nullptr, &m_Overlapped)
               ? 0
               : ::GetLastError();
  }
  /// @return 0 when the request completed in time, else the error.
  DWORD Result() {
    return platform.OverlappedResult(m_File, &m_Overlapped, &m_Bytes, 3000, FALSE) ? 0 : ::GetLastError();
  }

  DWORD m_Bytes = 77;
  OVERLAPPED m_Overlapped{};

 private:
  HANDLE m_File = INVALID_HANDLE_VALUE;
  UniqueHandle m_Event;
};

TEST_F(UdeDriverTest, ResetIsPendingAndThenCompletes) {
  options.speed = 1;
  options.timing.restarting = Milliseconds(0);
  Start();
  ASSERT_NE(Open(), INVALID_HANDLE_VALUE);
  EXPECT_EQ(Request(kReset), static_cast<DWORD>(ERROR_IO_PENDING));
  EXPECT_EQ(Result(), 0u);
  EXPECT_EQ(m_Bytes, 0u);
  EXPECT_EQ(pc->BasebandResets(), 1);
  EXPECT_TRUE(Reaches(ModemState::FlashPort));
}

TEST_F(UdeDriverTest, ARequestThatNeverCompletesTimesOutAndIsCancelled) {
  options.faults.driver.neverCompletes = true;
  Start();
  const HANDLE file = Open();
  ASSERT_EQ(Request(kReset), static_cast<DWORD>(ERROR_IO_PENDING));
  EXPECT_EQ(Result(), static_cast<DWORD>(WAIT_TIMEOUT));
  EXPECT_TRUE(platform.CancelIo(file, &m_Overlapped));
  EXPECT_EQ(Result(), static_cast<DWORD>(ERROR_OPERATION_ABORTED));
}

TEST_F(UdeDriverTest, ProbeStaysPendingOnTheRightInstance) {
  options.speed = 1;
  options.faults.driver.twoInstances = true;
  Start();
  ASSERT_NE(Open(1), INVALID_HANDLE_VALUE);
  EXPECT_EQ(Request(kProbe), static_cast<DWORD>(ERROR_IO_PENDING));
  EXPECT_EQ(::WaitForSingleObject(m_Overlapped.hEvent, 10000), WAIT_OBJECT_0);
}

TEST_F(UdeDriverTest, ProbeCompletesAtOnceOnTheWrongInstance) {
  options.faults.driver.twoInstances = true;
  Start();
  ASSERT_NE(Open(0), INVALID_HANDLE_VALUE);
  EXPECT_EQ(Request(kProbe), 0u);
}

TEST_F(UdeDriverTest, AResetOnTheWrongInstanceReachesNoModem) {
  options.speed = 1;
  options.faults.driver.twoInstances = true;
  options.faults.driver.rightInstanceFirst = true;
  Start();
  Open(1);
  Request(kReset);
  EXPECT_EQ(Result(), 0u);
  EXPECT_EQ(pc->BasebandResets(), 0);
}

TEST_F(UdeDriverTest, OpenIsRefused) {
  options.faults.driver.openError = ERROR_ACCESS_DENIED;
  Start();
  EXPECT_EQ(Open(), INVALID_HANDLE_VALUE);
  EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
}

TEST_F(UdeDriverTest, RequestIsRefused) {
  options.faults.driver.requestError = ERROR_GEN_FAILURE;
  options.faults.driver.requestsRefused = Occurrence::Times(1);
  Start();
  Open();
  EXPECT_EQ(Request(kReset), static_cast<DWORD>(ERROR_GEN_FAILURE));
  EXPECT_EQ(pc->BasebandResets(), 0);
  EXPECT_EQ(Request(kReset), static_cast<DWORD>(ERROR_IO_PENDING));
}

TEST_F(UdeDriverTest, AClosedHandleIsNoDeviceAnyMore) {
  Start();
  Open();
  Close();
  EXPECT_EQ(Request(kReset), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_EQ(pc->BasebandResets(), 0);
}

}  // namespace

}  // namespace simulator
