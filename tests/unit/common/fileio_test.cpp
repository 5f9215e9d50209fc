#include "common/fileio.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <string>

#include "simulator/import_patch.h"
#include "support/temporary_folder.h"

namespace {

constexpr auto kNoHandle = static_cast<HRESULT>(0x80070006u);
constexpr auto kNotFound = static_cast<HRESULT>(0x80070002u);
constexpr auto kSharingViolation = static_cast<HRESULT>(0x80070020u);
constexpr auto kLockViolation = static_cast<HRESULT>(0x80070021u);
constexpr auto kEndOfFile = static_cast<HRESULT>(0x80070026u);
constexpr auto kNegativeSeek = static_cast<HRESULT>(0x80070083u);
constexpr DWORD kStaleError = 55;

class FileIoTest : public testing::Test {
 protected:
  std::string Path(const char* name = "file.bin") const { return folder.File(name); }
  std::string HundredBytes() const { return folder.Write("hundred.bin", std::string(100, 'x')); }

  static HRESULT OpenShared(CFileIo& target, const std::string& path) {
    return target.OpenEx(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                         OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr, nullptr);
  }

  static std::uint64_t PositionOf(CFileIo& target) {
    std::uint64_t position = 0;
    EXPECT_EQ(target.GetPosition(&position), S_OK);
    return position;
  }

  TemporaryFolder folder;
  CFileIo file;
};

TEST_F(FileIoTest, StartsClosedAndWithoutAName) {
  EXPECT_FALSE(file.IsOpen());
  EXPECT_EQ(file.GetFileName(), "");
}

// Open and Close

TEST_F(FileIoTest, OpeningForWritingCreatesTheFileAndKeepsItsName) {
  EXPECT_EQ(file.Open(Path().c_str(), true), S_OK);
  EXPECT_TRUE(file.IsOpen());
  EXPECT_EQ(file.GetFileName(), Path());
  EXPECT_TRUE(folder.Holds("file.bin"));
}

TEST_F(FileIoTest, OpeningForWritingEmptiesAnExistingFile) {
  folder.Write("file.bin", "before");
  EXPECT_EQ(file.Open(Path().c_str(), true), S_OK);
  file.Close();
  EXPECT_TRUE(folder.Holds("file.bin"));
  EXPECT_EQ(folder.Content("file.bin"), "");
}

TEST_F(FileIoTest, OpeningAMissingFileForReadingFails) {
  EXPECT_EQ(file.Open(Path().c_str(), false), kNotFound);
  EXPECT_FALSE(file.IsOpen());
}

TEST_F(FileIoTest, AFailedOpenLeavesItsErrorToBeLookedUp) {
  file.Open(Path().c_str(), false);
  EXPECT_EQ(file.LastError(), kNotFound);
}

TEST_F(FileIoTest, OpeningWithoutANameFails) {
  EXPECT_TRUE(FAILED(file.Open(nullptr, true)));
  EXPECT_TRUE(FAILED(file.Open("", false)));
  EXPECT_FALSE(file.IsOpen());
}

TEST_F(FileIoTest, ASecondWriterIsRefusedSinceOnlyReadingIsShared) {
  CFileIo other;
  ASSERT_EQ(file.Open(Path().c_str(), true), S_OK);
  EXPECT_EQ(other.Open(Path().c_str(), true), kSharingViolation);
}

TEST_F(FileIoTest, AReaderWhoForbidsWritersIsRefusedWhileTheFileIsWritten) {
  CFileIo reader;
  ASSERT_EQ(file.Open(Path().c_str(), true), S_OK);
  EXPECT_EQ(reader.Open(Path().c_str(), false), kSharingViolation);
}

TEST_F(FileIoTest, AReaderWhoSharesWritingSeesTheFileWhileItIsWritten) {
  ASSERT_EQ(file.Open(Path().c_str(), true), S_OK);
  ASSERT_EQ(file.Write("live", 4, nullptr), S_OK);
  EXPECT_EQ(folder.Content("file.bin"), "live");
}

TEST_F(FileIoTest, AFileCannotBeOpenedForWritingAgainThroughTheObjectThatWritesIt) {
  ASSERT_EQ(file.Open(Path().c_str(), true), S_OK);
  EXPECT_EQ(file.Open(Path().c_str(), true), kSharingViolation);
  EXPECT_FALSE(file.IsOpen());
}

TEST_F(FileIoTest, OpeningAnotherFileLetsTheFirstOneGo) {
  CFileIo other;
  ASSERT_EQ(file.Open(Path("first").c_str(), true), S_OK);
  ASSERT_EQ(file.Open(Path("second").c_str(), true), S_OK);
  EXPECT_EQ(file.GetFileName(), Path("second"));
  EXPECT_EQ(other.Open(Path("first").c_str(), true), S_OK);
}

BOOL WINAPI CloseWithAnErrorOfItsOwn(HANDLE handle) {
  const BOOL closed = ::CloseHandle(handle);
  ::SetLastError(kStaleError);
  return closed;
}

TEST_F(FileIoTest, LettingTheFirstFileGoDoesNotHideWhyTheNextCouldNotBeOpened) {
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  ASSERT_EQ(file.Open(Path("first").c_str(), true), S_OK);
  patch.Replace("CloseHandle", &CloseWithAnErrorOfItsOwn);
  EXPECT_EQ(file.Open(Path("missing").c_str(), false), kNotFound);
  EXPECT_EQ(file.LastError(), kNotFound);
}

TEST_F(FileIoTest, OpensAfterAFailedOpen) {
  ASSERT_EQ(file.Open(Path().c_str(), false), kNotFound);
  EXPECT_EQ(file.Open(Path().c_str(), true), S_OK);
  EXPECT_TRUE(file.IsOpen());
}

struct AskedOpening {
  std::string path;
  DWORD access = 0;
  DWORD sharing = 0;
  SECURITY_ATTRIBUTES* security = nullptr;
  DWORD creation = 0;
  DWORD attributes = 0;
  HANDLE pattern = nullptr;
  bool operator==(const AskedOpening&) const = default;
} g_asked;
HANDLE WINAPI RecordOpening(LPCSTR path, DWORD access, DWORD sharing, SECURITY_ATTRIBUTES* security,
                            DWORD creation, DWORD attributes, HANDLE pattern) {
  g_asked = {path, access, sharing, security, creation, attributes, pattern};
  return INVALID_HANDLE_VALUE;
}

TEST_F(FileIoTest, OpeningForReadingAsksForAnExistingFileThatOthersMayRead) {
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  patch.Replace("CreateFileA", &RecordOpening);
  file.Open("name", false);
  EXPECT_EQ(g_asked, (AskedOpening{"name", GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                   FILE_ATTRIBUTE_NORMAL, nullptr}));
}

TEST_F(FileIoTest, OpeningForWritingAsksForANewFileThatOthersMayRead) {
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  patch.Replace("CreateFileA", &RecordOpening);
  file.Open("name", true);
  EXPECT_EQ(g_asked, (AskedOpening{"name", GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                                   FILE_ATTRIBUTE_NORMAL, nullptr}));
}

TEST_F(FileIoTest, OpeningByThePlatformsArgumentsPassesAllOfThem) {
  SECURITY_ATTRIBUTES security{};
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  patch.Replace("CreateFileA", &RecordOpening);
  const HANDLE pattern = ::GetCurrentProcess();
  file.OpenEx("name", GENERIC_ALL, FILE_SHARE_DELETE, CREATE_NEW, FILE_FLAG_OVERLAPPED, &security, pattern);
  EXPECT_EQ(g_asked, (AskedOpening{"name", GENERIC_ALL, FILE_SHARE_DELETE, &security, CREATE_NEW,
                                   FILE_FLAG_OVERLAPPED, pattern}));
}

TEST_F(FileIoTest, OpeningByThePlatformsArgumentsDoesNotKeepTheName) {
  EXPECT_EQ(OpenShared(file, Path()), S_OK);
  EXPECT_TRUE(file.IsOpen());
  EXPECT_EQ(file.GetFileName(), "");
}

TEST_F(FileIoTest, OpeningByThePlatformsArgumentsObeysThem) {
  folder.Write("file.bin", "kept");
  EXPECT_EQ(file.OpenEx(Path().c_str(), GENERIC_WRITE, 0, CREATE_NEW, 0, nullptr, nullptr),
            static_cast<HRESULT>(0x80070050u));
  EXPECT_FALSE(file.IsOpen());
}

TEST_F(FileIoTest, ClosingWithoutAnOpenFileIsFine) {
  EXPECT_EQ(file.Close(), S_OK);
  file.Open(Path().c_str(), false);
  EXPECT_EQ(file.Close(), S_OK);
  EXPECT_EQ(file.Write("x", 1, nullptr), kNoHandle);
}

TEST_F(FileIoTest, ClosesWhenItGoes) {
  {
    CFileIo shortLived;
    ASSERT_EQ(shortLived.Open(Path().c_str(), true), S_OK);
  }
  EXPECT_EQ(file.Open(Path().c_str(), true), S_OK);
}

int g_flushes = 0;
BOOL WINAPI RefuseToFlush(HANDLE) {
  ++g_flushes;
  return FALSE;
}

TEST_F(FileIoTest, ClosingFlushesAndIgnoresAFailureOfIt) {
  g_flushes = 0;
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  patch.Replace("FlushFileBuffers", &RefuseToFlush);
  ASSERT_EQ(file.Open(Path().c_str(), true), S_OK);
  EXPECT_EQ(file.Close(), S_OK);
  EXPECT_EQ(g_flushes, 1);
  EXPECT_FALSE(file.IsOpen());
}

// Reading and writing

TEST_F(FileIoTest, ReadsExactlyTheBytesAskedFor) {
  std::array<char, 3> bytes{};
  ASSERT_EQ(file.Open(folder.Write("abc", "abcdef").c_str(), false), S_OK);
  EXPECT_EQ(file.Read(bytes.data(), 3), S_OK);
  EXPECT_EQ(std::string(bytes.data(), 3), "abc");
}

TEST_F(FileIoTest, ReadingAHundredBytesFortyBeforeTheEndGivesEndOfFileAndTheForty) {
  std::array<char, 100> bytes{};
  ASSERT_EQ(file.Open(HundredBytes().c_str(), false), S_OK);
  ASSERT_EQ(file.Seek(-40, FILE_END), S_OK);
  EXPECT_EQ(file.Read(bytes.data(), 100), kEndOfFile);
  EXPECT_EQ(std::string(bytes.data()), std::string(40, 'x'));
}

TEST_F(FileIoTest, ReadingSomeReportsTheCount) {
  std::array<char, 100> bytes{};
  std::uint32_t read = 0;
  ASSERT_EQ(file.Open(folder.Write("abc", "abc").c_str(), false), S_OK);
  EXPECT_EQ(file.ReadSome(bytes.data(), 100, &read), S_OK);
  EXPECT_EQ(read, 3u);
}

TEST_F(FileIoTest, ReadingAFileOpenedForWritingFails) {
  char byte = 0;
  ASSERT_EQ(file.Open(Path().c_str(), true), S_OK);
  EXPECT_EQ(file.Read(&byte, 1), static_cast<HRESULT>(0x80070005u));
}

TEST_F(FileIoTest, WritesAtTheCurrentPositionAndReportsTheCount) {
  std::uint32_t written = 0;
  ASSERT_EQ(file.Open(Path().c_str(), true), S_OK);
  EXPECT_EQ(file.Write("abc", 3, &written), S_OK);
  EXPECT_EQ(written, 3u);
  EXPECT_EQ(file.Write("def", 3, &written), S_OK);
  EXPECT_EQ(folder.Content("file.bin"), "abcdef");
}

TEST_F(FileIoTest, ReadingAndWritingBeforeAnyOpenGiveNoHandle) {
  char byte = 0;
  std::uint32_t count = 0;
  EXPECT_EQ(file.Write("x", 1, &count), kNoHandle);
  EXPECT_EQ(file.Read(&byte, 1), kNoHandle);
  EXPECT_EQ(file.ReadSome(&byte, 1, &count), kNoHandle);
}

TEST_F(FileIoTest, ReadingAndWritingAfterAFailedOpenGiveNoHandle) {
  char byte = 0;
  ASSERT_EQ(file.Open(Path().c_str(), false), kNotFound);
  EXPECT_EQ(file.Write("x", 1, nullptr), kNoHandle);
  EXPECT_EQ(file.Read(&byte, 1), kNoHandle);
}

// Position and size

TEST_F(FileIoTest, SeeksFromTheBeginningTheCurrentPlaceAndTheEnd) {
  ASSERT_EQ(file.Open(HundredBytes().c_str(), false), S_OK);
  EXPECT_EQ(file.Seek(10, FILE_BEGIN), S_OK);
  EXPECT_EQ(PositionOf(file), 10u);
  EXPECT_EQ(file.Seek(5, FILE_CURRENT), S_OK);
  EXPECT_EQ(PositionOf(file), 15u);
  EXPECT_EQ(file.Seek(-1, FILE_CURRENT), S_OK);
  EXPECT_EQ(PositionOf(file), 14u);
  EXPECT_EQ(file.Seek(-40, FILE_END), S_OK);
  EXPECT_EQ(PositionOf(file), 60u);
}

TEST_F(FileIoTest, SeekingBeforeTheBeginningFails) {
  ASSERT_EQ(file.Open(HundredBytes().c_str(), false), S_OK);
  EXPECT_EQ(file.Seek(-101, FILE_END), kNegativeSeek);
}

TEST_F(FileIoTest, SeeksBeyondFourGigabytes) {
  constexpr std::int64_t kFar = 5'000'000'000;
  ASSERT_EQ(file.Open(Path().c_str(), true), S_OK);
  EXPECT_EQ(file.Seek(kFar, FILE_BEGIN), S_OK);
  EXPECT_EQ(PositionOf(file), static_cast<std::uint64_t>(kFar));
}

TEST_F(FileIoTest, APositionWhoseLowHalfLooksInvalidIsNoFailure) {
  constexpr std::int64_t kLooksInvalid = 0xFFFFFFFF;
  ASSERT_EQ(file.Open(Path().c_str(), true), S_OK);
  ::SetLastError(kStaleError);
  EXPECT_EQ(file.Seek(kLooksInvalid, FILE_BEGIN), S_OK);
  ::SetLastError(kStaleError);
  EXPECT_EQ(PositionOf(file), static_cast<std::uint64_t>(kLooksInvalid));
}

TEST_F(FileIoTest, AnErrorLeftByAnEarlierCallIsNoFailureOfSeekOrSize) {
  std::uint64_t size = 0;
  ASSERT_EQ(file.Open(HundredBytes().c_str(), false), S_OK);
  ::SetLastError(kStaleError);
  EXPECT_EQ(file.Seek(1, FILE_BEGIN), S_OK);
  EXPECT_EQ(file.GetSize(&size), S_OK);
  EXPECT_EQ(size, 100u);
}

DWORD g_sizeLow = 0;
DWORD g_sizeHigh = 0;
DWORD g_sizeError = NO_ERROR;
DWORD WINAPI StandInFileSize(HANDLE, LPDWORD high) {
  if (high != nullptr) *high = g_sizeHigh;
  ::SetLastError(g_sizeError);
  return g_sizeLow;
}

class FileSizeTest : public FileIoTest {
 protected:
  void SetUp() override { patch.Replace("GetFileSize", &StandInFileSize); }
  void TheSystemSays(DWORD low, DWORD high, DWORD error) {
    g_sizeLow = low;
    g_sizeHigh = high;
    g_sizeError = error;
  }

  simulator::ImportPatch patch{::GetModuleHandleW(L"toolkit_internals.dll")};
  std::uint64_t size = 0;
};

TEST_F(FileSizeTest, JoinsBothHalves) {
  TheSystemSays(2, 1, kStaleError);
  EXPECT_EQ(file.GetSize(&size), S_OK);
  EXPECT_EQ(size, 0x100000002u);
}

TEST_F(FileSizeTest, ALowHalfThatLooksInvalidIsNoFailureWithoutAnError) {
  TheSystemSays(0xFFFFFFFF, 0, NO_ERROR);
  EXPECT_EQ(file.GetSize(&size), S_OK);
  EXPECT_EQ(size, 0xFFFFFFFFu);
}

TEST_F(FileSizeTest, TheInvalidValueWithAnErrorIsAFailure) {
  TheSystemSays(0xFFFFFFFF, 0, ERROR_ACCESS_DENIED);
  EXPECT_EQ(file.GetSize(&size), static_cast<HRESULT>(0x80070005u));
}

TEST_F(FileIoTest, SettingTheSizeCutsAndExtends) {
  std::uint64_t size = 0;
  ASSERT_EQ(OpenShared(file, HundredBytes()), S_OK);
  EXPECT_EQ(file.SetSize(10), S_OK);
  EXPECT_EQ(file.GetSize(&size), S_OK);
  EXPECT_EQ(size, 10u);
  EXPECT_EQ(file.SetSize(70000), S_OK);
  EXPECT_EQ(file.GetSize(&size), S_OK);
  EXPECT_EQ(size, 70000u);
}

TEST_F(FileIoTest, PositionAndSizeOfNoFileFail) {
  std::uint64_t value = 0;
  EXPECT_EQ(file.Seek(0, FILE_BEGIN), kNoHandle);
  EXPECT_EQ(file.GetPosition(&value), kNoHandle);
  EXPECT_EQ(file.GetSize(&value), kNoHandle);
  EXPECT_EQ(file.SetSize(1), kNoHandle);
}

TEST_F(FileIoTest, Flushes) {
  ASSERT_EQ(file.Open(Path().c_str(), true), S_OK);
  EXPECT_EQ(file.Flush(), S_OK);
  file.Close();
  EXPECT_EQ(file.Flush(), kNoHandle);
}

// Locks

TEST_F(FileIoTest, ALockedRangeIsRefusedToOthersUntilItIsUnlocked) {
  CFileIo other;
  ASSERT_EQ(OpenShared(file, HundredBytes()), S_OK);
  ASSERT_EQ(OpenShared(other, HundredBytes()), S_OK);
  EXPECT_EQ(file.Lock(10, 20), S_OK);
  EXPECT_EQ(other.Lock(29, 1), kLockViolation);
  EXPECT_EQ(other.Lock(30, 1), S_OK);
  EXPECT_EQ(file.Unlock(10, 20), S_OK);
  EXPECT_EQ(other.Lock(29, 1), S_OK);
}

TEST_F(FileIoTest, LocksRangesBeyondFourGigabytes) {
  constexpr std::uint64_t kFar = 0x100000000;
  CFileIo other;
  ASSERT_EQ(OpenShared(file, Path()), S_OK);
  ASSERT_EQ(OpenShared(other, Path()), S_OK);
  EXPECT_EQ(file.Lock(kFar, kFar), S_OK);
  EXPECT_EQ(other.Lock(0, 1), S_OK);
  EXPECT_EQ(other.Lock(2 * kFar - 1, 1), kLockViolation);
}

TEST_F(FileIoTest, UnlockingWhatIsNotLockedFails) {
  ASSERT_EQ(OpenShared(file, Path()), S_OK);
  EXPECT_TRUE(FAILED(file.Unlock(0, 1)));
}

// Names, deletion, existence

TEST_F(FileIoTest, GivesTheCallersLastError) {
  ::SetLastError(ERROR_DISK_FULL);
  EXPECT_EQ(file.LastError(), static_cast<HRESULT>(0x80070070u));
  ::SetLastError(0);
  EXPECT_EQ(file.LastError(), S_OK);
}

TEST_F(FileIoTest, DeletesTheFileUnderItsName) {
  file.SetFileName(folder.Write("file.bin", "x"));
  EXPECT_EQ(file.GetFileName(), Path());
  EXPECT_TRUE(file.Delete());
  EXPECT_FALSE(folder.Holds("file.bin"));
  EXPECT_FALSE(file.Delete());
}

TEST_F(FileIoTest, DeletesANamedFile) {
  EXPECT_TRUE(CFileIo::DeleteFile(folder.Write("file.bin", "x").c_str()));
  EXPECT_FALSE(folder.Holds("file.bin"));
  EXPECT_FALSE(CFileIo::DeleteFile(Path().c_str()));
}

TEST_F(FileIoTest, AFileExists) {
  EXPECT_TRUE(CFileIo::Exists(HundredBytes().c_str()));
  EXPECT_FALSE(CFileIo::Exists(Path("missing").c_str()));
}

TEST_F(FileIoTest, AFolderExistsWithAndWithoutItsSeparator) {
  EXPECT_TRUE(CFileIo::Exists(folder.Path().string().c_str()));
  EXPECT_TRUE(CFileIo::Exists((folder.Path().string() + "\\").c_str()));
}

TEST_F(FileIoTest, NothingExistsUnderAnEmptyName) {
  EXPECT_FALSE(CFileIo::Exists(""));
}

}  // namespace
