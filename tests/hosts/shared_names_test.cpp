#include "hosts/common/shared_names.h"

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sddl.h>

#include <string>

namespace hosts {

using testing::HasSubstr;

namespace {

/// Grants nobody anything, and whoever made the object nothing but to say who may use it.
constexpr wchar_t kForNobody[] = L"D:P";

/// Security that lets nobody in.
class ForNobody {
 public:
  ForNobody() {
    ::ConvertStringSecurityDescriptorToSecurityDescriptorW(kForNobody, SDDL_REVISION_1, &m_Descriptor,
                                                           nullptr);
    m_Attributes.lpSecurityDescriptor = m_Descriptor;
  }
  ~ForNobody() { ::LocalFree(m_Descriptor); }
  ForNobody(const ForNobody&) = delete;
  ForNobody& operator=(const ForNobody&) = delete;

  SECURITY_ATTRIBUTES* Attributes() { return &m_Attributes; }

 private:
  PSECURITY_DESCRIPTOR m_Descriptor = nullptr;
  SECURITY_ATTRIBUTES m_Attributes{sizeof(SECURITY_ATTRIBUTES), nullptr, FALSE};
};

/// A name of this test's own, and whoever takes it.
class SharedNamesTest : public testing::Test {
 protected:
  DWORD EventError() const { return ErrorOf(LookAtEvent(name.c_str())); }
  DWORD SemaphoreError(PortSearch search) const { return ErrorOf(LookAtSemaphore(name.c_str(), search)); }
  static DWORD ErrorOf(const std::optional<TakenName>& taken) { return taken ? taken->error : ERROR_SUCCESS; }

  std::wstring name = L"corvel-shared-names-test-" + std::to_wstring(::GetCurrentProcessId());
  ForNobody forNobody;
};

constexpr DWORD kFree = ERROR_SUCCESS;
constexpr DWORD kOtherKind = ERROR_INVALID_HANDLE;
constexpr DWORD kRefused = ERROR_ACCESS_DENIED;

TEST_F(SharedNamesTest, ThatNobodyHasAreFree) {
  EXPECT_EQ(EventError(), kFree);
  EXPECT_EQ(SemaphoreError(PortSearch::IsNotRunning), kFree);
  EXPECT_EQ(SemaphoreError(PortSearch::MayBeRunning), kFree);
}

TEST_F(SharedNamesTest, OfTheRightKindWillDo) {
  {
    const OwnedHandle event(::CreateEventW(nullptr, FALSE, TRUE, name.c_str()));
    EXPECT_EQ(EventError(), kFree);
  }
  const OwnedHandle semaphore(::CreateSemaphoreW(nullptr, 0, 1, name.c_str()));
  EXPECT_EQ(SemaphoreError(PortSearch::IsNotRunning), kFree);
  EXPECT_EQ(SemaphoreError(PortSearch::MayBeRunning), kFree);
}

TEST_F(SharedNamesTest, OfAnotherKindAreTaken) {
  const auto expectTaken = [this](HANDLE made, DWORD asEvent) {
    const OwnedHandle object(made);
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(EventError(), asEvent);
    EXPECT_EQ(SemaphoreError(PortSearch::IsNotRunning), kOtherKind);
    EXPECT_EQ(SemaphoreError(PortSearch::MayBeRunning), kOtherKind);
  };
  expectTaken(::CreateEventW(nullptr, FALSE, FALSE, name.c_str()), kFree);
  expectTaken(::CreateMutexW(nullptr, FALSE, name.c_str()), kOtherKind);
  expectTaken(::CreateWaitableTimerW(nullptr, FALSE, name.c_str()), kOtherKind);
  expectTaken(::CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 16, name.c_str()),
              kOtherKind);
  expectTaken(::CreateJobObjectW(nullptr, name.c_str()), kOtherKind);
}

TEST_F(SharedNamesTest, OfAnotherKindThatRefuseAccessAreTaken) {
  const OwnedHandle mutex(::CreateMutexW(forNobody.Attributes(), FALSE, name.c_str()));
  EXPECT_EQ(EventError(), kOtherKind);
  EXPECT_EQ(SemaphoreError(PortSearch::MayBeRunning), kOtherKind);
}

TEST_F(SharedNamesTest, ThatRefuseAccessAreTaken) {
  {
    const OwnedHandle event(::CreateEventW(forNobody.Attributes(), FALSE, TRUE, name.c_str()));
    EXPECT_EQ(EventError(), kRefused);
  }
  const OwnedHandle semaphore(::CreateSemaphoreW(forNobody.Attributes(), 0, 1, name.c_str()));
  EXPECT_EQ(SemaphoreError(PortSearch::IsNotRunning), kRefused);
}

/// The semaphore goes with the search that made it, also while a host looks on.
TEST_F(SharedNamesTest, OfASearchAreNotOpenedWhileItMayBeRunning) {
  const OwnedHandle semaphore(::CreateSemaphoreW(forNobody.Attributes(), 0, 1, name.c_str()));
  EXPECT_EQ(SemaphoreError(PortSearch::MayBeRunning), kFree);
}

TEST_F(SharedNamesTest, AreLetGoOfAfterALook) {
  OwnedHandle semaphore(::CreateSemaphoreW(nullptr, 0, 1, name.c_str()));
  LookAtSemaphore(name.c_str(), PortSearch::IsNotRunning);
  semaphore.reset();
  EXPECT_EQ(OwnedHandle(::OpenSemaphoreW(SYNCHRONIZE, FALSE, name.c_str())), nullptr);
  OwnedHandle event(::CreateEventW(nullptr, FALSE, TRUE, name.c_str()));
  LookAtEvent(name.c_str());
  event.reset();
  EXPECT_EQ(OwnedHandle(::OpenEventW(SYNCHRONIZE, FALSE, name.c_str())), nullptr);
}

TEST_F(SharedNamesTest, HeldEventCannotBeTaken) {
  HeldRequestEvent held(name.c_str());
  EXPECT_EQ(ErrorOf(held.Take()), kFree);
  EXPECT_EQ(OwnedHandle(::CreateMutexW(nullptr, FALSE, name.c_str())), nullptr);
  EXPECT_EQ(EventError(), kFree);
}

/// A command line that an administrator runs in the session of the service waits by the same event.
TEST_F(SharedNamesTest, HeldEventIsOpenToAdministrators) {
  HeldRequestEvent held(name.c_str());
  ASSERT_EQ(ErrorOf(held.Take()), kFree);
  const OwnedHandle event(::OpenEventW(READ_CONTROL, FALSE, name.c_str()));
  BYTE descriptor[1024];
  DWORD needed = 0;
  ASSERT_TRUE(::GetKernelObjectSecurity(event.get(), DACL_SECURITY_INFORMATION, descriptor, sizeof descriptor,
                                        &needed));
  wchar_t* text = nullptr;
  ASSERT_TRUE(::ConvertSecurityDescriptorToStringSecurityDescriptorW(
      descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text, nullptr));
  EXPECT_THAT(std::wstring(text), HasSubstr(L";;;BA)"));
  ::LocalFree(text);
}

TEST_F(SharedNamesTest, EventIsHeldAsSoonAsItsNameIsFree) {
  HeldRequestEvent held(name.c_str());
  OwnedHandle mutex(::CreateMutexW(nullptr, FALSE, name.c_str()));
  EXPECT_EQ(ErrorOf(held.Take()), kOtherKind);
  mutex.reset();
  EXPECT_EQ(ErrorOf(held.Take()), kFree);
  EXPECT_NE(OwnedHandle(::OpenEventW(SYNCHRONIZE, FALSE, name.c_str())), nullptr);
}

TEST(TakenNameTest, SaysWhatIsWrongAndWhatItComesTo) {
  EXPECT_EQ((TakenName{kRequestEventName, ERROR_ACCESS_DENIED}.Message()),
            "another program has the name \"RegistryNotify\" and refuses access to it, so the library cannot "
            "hear of "
            "a request");
  EXPECT_EQ(
      (TakenName{kPortSemaphoreName, ERROR_INVALID_HANDLE}.Message()),
      "another program has the name \"CFirmwareDownloader\" for an object of another kind, so the library "
      "cannot hear of the modem's flash port");
  EXPECT_THAT((TakenName{kRequestEventName, ERROR_NOT_ENOUGH_MEMORY}.Message()), HasSubstr("(8)"));
}

}  // namespace

}  // namespace hosts
