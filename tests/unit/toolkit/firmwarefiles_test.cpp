#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "common/handles.h"
#include "common/text.h"
#include "simulator/import_patch.h"
#include "support/scarce_memory.h"
#include "support/temporary_folder.h"
#include "support/test_log.h"
#include "toolkit/toolkit.h"

using corvel::OwnFileHandle;
using corvel::UniqueHandle;
using corvel::Utf8FromWide;

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr std::uintmax_t kThreshold = 0xA00000;

/// Entries that searches find instead of those of the file system.
class ListedEntries {
 public:
  ListedEntries() {
    s_entries.clear();
    s_deleted.clear();
    s_end = 0;
    s_error = ERROR_NO_MORE_FILES;
    m_Patch.Replace("FindFirstFileW", &First);
    m_Patch.Replace("FindNextFileW", &Next);
    m_Patch.Replace("FindClose", &Close);
    m_Patch.Replace("DeleteFileW", &Delete);
  }
  void Add(const std::wstring& name, std::uint64_t size, DWORD attributes = FILE_ATTRIBUTE_NORMAL) {
    WIN32_FIND_DATAW entry{};
    name.copy(entry.cFileName, MAX_PATH - 1);
    entry.dwFileAttributes = attributes;
    entry.nFileSizeHigh = static_cast<DWORD>(size >> 32);
    entry.nFileSizeLow = static_cast<DWORD>(size & 0xFFFFFFFFu);
    s_entries.push_back(entry);
    s_end = s_entries.size();
  }
  /// The next entry after `count` of them cannot be read.
  void BreakOffAfter(std::size_t count, DWORD error) {
    s_end = count;
    s_error = error;
  }
  const std::vector<std::wstring>& Deleted() const { return s_deleted; }

 private:
  static HANDLE WINAPI First(const wchar_t*, WIN32_FIND_DATAW* entry) {
    s_next = 0;
    return Next(nullptr, entry) ? &s_next : INVALID_HANDLE_VALUE;
  }
  static BOOL WINAPI Next(HANDLE, WIN32_FIND_DATAW* entry) {
    if (s_next == s_end) {
      ::SetLastError(s_error);
      return FALSE;
    }
    *entry = s_entries[s_next++];
    return TRUE;
  }
  static BOOL WINAPI Close(HANDLE) { return TRUE; }
  static BOOL WINAPI Delete(const wchar_t* path) {
    s_deleted.emplace_back(path);
    return FALSE;
  }

  static inline std::vector<WIN32_FIND_DATAW> s_entries;
  static inline std::vector<std::wstring> s_deleted;
  static inline std::size_t s_next = 0;
  static inline std::size_t s_end = 0;
  static inline DWORD s_error = ERROR_NO_MORE_FILES;
  simulator::ImportPatch m_Patch{::GetModuleHandleW(L"toolkit_internals.dll")};
};

class FirmwareFilesTest : public testing::Test {
 protected:
  bool Fetch() { return ToolKit::FetchModemNVMFls(CTString(folder.Path().wstring())); }
  static std::wstring Modem() { return ToolKit::GetModemFlsFile(); }
  static std::wstring Nvm() { return ToolKit::GetNVMFlsFile(); }
  std::string Narrow(const std::wstring& path) { return Utf8FromWide(path); }

  TemporaryFolder folder;
  TestLog log;
};

TEST_F(FirmwareFilesTest, TheLargeFileIsTheModemImageAndTheSmallOneTheNvmImage) {
  const std::wstring large = folder.WriteOfSize(L"a.fls", 12u << 20);
  const std::wstring small = folder.WriteOfSize(L"b.fls", 200u << 10);
  EXPECT_TRUE(Fetch());
  EXPECT_EQ(Modem(), large);
  EXPECT_EQ(Nvm(), small);
}

TEST_F(FirmwareFilesTest, TheNamesOfTheImagesDoNotMatter) {
  const std::wstring small = folder.WriteOfSize(L"modem.fls", 200u << 10);
  const std::wstring large = folder.WriteOfSize(L"nvm.fls", 12u << 20);
  EXPECT_TRUE(Fetch());
  EXPECT_EQ(Modem(), large);
  EXPECT_EQ(Nvm(), small);
}

TEST_F(FirmwareFilesTest, AFileOfTheThresholdIsAModemImage) {
  const std::wstring image = folder.WriteOfSize(L"a.fls", kThreshold);
  EXPECT_TRUE(Fetch());
  EXPECT_EQ(Modem(), image);
  EXPECT_EQ(Nvm(), L"");
}

TEST_F(FirmwareFilesTest, AFileOneByteBelowTheThresholdIsAnNvmImage) {
  const std::wstring image = folder.WriteOfSize(L"a.fls", kThreshold - 1);
  EXPECT_TRUE(Fetch());
  EXPECT_EQ(Modem(), L"");
  EXPECT_EQ(Nvm(), image);
}

TEST_F(FirmwareFilesTest, TheLaterListedOfTwoSmallFilesIsTheNvmImage) {
  ListedEntries entries;
  entries.Add(L"second.fls", 10);
  entries.Add(L"first.fls", 20);
  EXPECT_TRUE(Fetch());
  EXPECT_EQ(Modem(), L"");
  EXPECT_EQ(Nvm(), folder.File(L"first.fls"));
}

TEST_F(FirmwareFilesTest, AFileOfFourGibibytesExactlyIsAModemImage) {
  ListedEntries entries;
  entries.Add(L"a.fls", 0x100000000u);
  EXPECT_TRUE(Fetch());
  EXPECT_EQ(Modem(), folder.File(L"a.fls"));
  EXPECT_THAT(log.Said(), Contains(HasSubstr(", ffd.nFileSizeHigh:1, ffd.nFileSizeLow:0")));
}

TEST_F(FirmwareFilesTest, AFileOfMoreThanTwoGibibytesIsAModemImageThoughItsSizePrintsNegative) {
  ListedEntries entries;
  entries.Add(L"a.fls", 3'000'000'000u);
  EXPECT_TRUE(Fetch());
  EXPECT_EQ(Modem(), folder.File(L"a.fls"));
  EXPECT_THAT(log.Said(), Contains(HasSubstr(", ffd.nFileSizeHigh:0, ffd.nFileSizeLow:-1294967296")));
}

TEST_F(FirmwareFilesTest, WhatTheFileSystemMatchesByItsShortNameIsTaken) {
  ListedEntries entries;
  entries.Add(L"img.flsx", 10);
  EXPECT_TRUE(Fetch());
  EXPECT_EQ(Nvm(), folder.File(L"img.flsx"));
}

TEST_F(FirmwareFilesTest, AFolderNamedLikeAnImageIsNotOne) {
  std::filesystem::create_directory(folder.Path() / L"a.fls");
  EXPECT_TRUE(Fetch());
  EXPECT_EQ(Nvm(), L"");
}

TEST_F(FirmwareFilesTest, AFolderWithoutImagesIsAFailure) {
  folder.Write(L"readme.txt", "none");
  EXPECT_FALSE(Fetch());
  EXPECT_THAT(log.Said(), ElementsAre("FetchModemNVMFls ++", "folder: dir=" + folder.Path().string(),
                                      "ToolKit::FetchModemNVMFls: FindFirstFile failed"));
}

TEST_F(FirmwareFilesTest, AMissingFolderIsAFailure) {
  const std::wstring missing = folder.File(L"missing");
  EXPECT_FALSE(ToolKit::FetchModemNVMFls(CTString(missing)));
  EXPECT_THAT(log.Said(),
              ElementsAre("FetchModemNVMFls ++", "E:folder(" + Narrow(missing) + ") is not a folder, exit",
                          "FetchModemNVMFls --"));
}

TEST_F(FirmwareFilesTest, AnEmptyFolderNameIsAFailure) {
  EXPECT_FALSE(ToolKit::FetchModemNVMFls(CTString()));
}

TEST_F(FirmwareFilesTest, AFileInThePlaceOfTheFolderIsNoFailureButHoldsNoImages) {
  const std::wstring file = folder.Write(L"file", "");
  EXPECT_TRUE(ToolKit::FetchModemNVMFls(CTString(file)));
  EXPECT_EQ(Modem(), L"");
  EXPECT_EQ(Nvm(), L"");
  EXPECT_THAT(log.Said(), ElementsAre("FetchModemNVMFls ++", "FetchModemNVMFls --"));
}

/// Entries of which the second cannot be read.
class BrokenSearchTest : public FirmwareFilesTest {
 protected:
  BrokenSearchTest() {
    entries.Add(L"a.fls", kThreshold);
    entries.Add(L"b.fls", 10);
    entries.BreakOffAfter(1, ERROR_NETNAME_DELETED);
  }

  ListedEntries entries;
};

// What was found by then would be flashed as if it were all that there is.
TEST_F(BrokenSearchTest, IsAFailureAndTakesNoImage) {
  EXPECT_FALSE(Fetch());
  EXPECT_EQ(Modem(), L"");
  EXPECT_EQ(Nvm(), L"");
}

TEST_F(BrokenSearchTest, IsLoggedAsAnErrorBeforeTheEnd) {
  Fetch();
  const std::string image = Narrow(folder.File(L"a.fls"));
  EXPECT_THAT(
      log.Said(),
      ElementsAre("FetchModemNVMFls ++", "folder: dir=" + folder.Path().string(), "   pathFlz:" + image,
                  "   pathFlz:" + image + ", ffd.nFileSizeHigh:0, ffd.nFileSizeLow:10485760",
                  "   Found, modem fls file: " + image,
                  "E:\t The search in folder(" + folder.Path().string() +
                      "\\) broke off, no image is taken, error: 64",
                  "FetchModemNVMFls --"));
}

TEST_F(BrokenSearchTest, ForLogsDeletesNone) {
  ToolKit::KeepLogFileNum(CTString(folder.File(L"*.log")), 0);
  EXPECT_THAT(entries.Deleted(), testing::IsEmpty());
}

TEST_F(FirmwareFilesTest, WithoutMemoryTheSearchFailsAndTakesNoImage) {
  folder.WriteOfSize(L"a.fls", 12u << 20);
  folder.WriteOfSize(L"b.fls", 10);
  ToolKit::TurnLoggingOff();
  ScarceMemory memory;
  const CTString path(folder.Path().wstring());
  // The first one is the argument's own.
  memory.FailEachOf(
      [&] {
        const bool found = ToolKit::FetchModemNVMFls(path);
        EXPECT_EQ(found, !memory.HasFailed());
        EXPECT_EQ(ToolKit::m_ModemFlsFile.IsEmpty(), !found);
        EXPECT_EQ(ToolKit::m_NVMFlsFile.IsEmpty(), !found);
      },
      2);
}

TEST_F(FirmwareFilesTest, EverySearchForgetsTheImagesOfTheOneBefore) {
  folder.WriteOfSize(L"a.fls", 12u << 20);
  folder.WriteOfSize(L"b.fls", 10);
  Fetch();
  ToolKit::FetchModemNVMFls(CTString(folder.File(L"missing")));
  EXPECT_EQ(Modem(), L"");
  EXPECT_EQ(Nvm(), L"");
}

TEST_F(FirmwareFilesTest, TheSearchIsLogged) {
  const std::string large = Narrow(folder.WriteOfSize(L"a.fls", 12u << 20));
  const std::string small = Narrow(folder.WriteOfSize(L"b.fls", 10));
  Fetch();
  EXPECT_THAT(
      log.Said(),
      ElementsAre("FetchModemNVMFls ++", "folder: dir=" + folder.Path().string(), "   pathFlz:" + large,
                  "   pathFlz:" + large + ", ffd.nFileSizeHigh:0, ffd.nFileSizeLow:12582912",
                  "   Found, modem fls file: " + large, "   pathFlz:" + small,
                  "   pathFlz:" + small + ", ffd.nFileSizeHigh:0, ffd.nFileSizeLow:10",
                  "   Found, NVM fls file: " + small, "FetchModemNVMFls --"));
}

class LongImagePathTest : public FirmwareFilesTest {
 protected:
  /// Lists one small image whose full path has `length` characters, and returns the path.
  std::wstring ListImageWithPathOf(std::size_t length) {
    const std::size_t nameLength = length - folder.Path().wstring().size() - 1;
    const std::wstring name = std::wstring(nameLength - 4, L'x') + L".fls";
    entries.Add(name, 10);
    return folder.File(name);
  }

  ListedEntries entries;
};

TEST_F(LongImagePathTest, APathOf259CharactersIsTaken) {
  const std::wstring path = ListImageWithPathOf(259);
  EXPECT_TRUE(Fetch());
  EXPECT_EQ(Nvm(), path);
}

TEST_F(LongImagePathTest, APathOf260CharactersIsSkippedWithALogLine) {
  const std::wstring path = ListImageWithPathOf(260);
  EXPECT_TRUE(Fetch());
  EXPECT_EQ(Nvm(), L"");
  EXPECT_EQ(log.LevelOf("FetchModemNVMFls: over MAX PATH, flz paths=" + Narrow(path)), "Trace");
  EXPECT_THAT(log.Said(), Not(Contains(HasSubstr("nFileSizeHigh"))));
}

// --- Names, links and paths that somebody chose -----------------------------------------------------------

class ForeignNameTest : public FirmwareFilesTest, public testing::WithParamInterface<const wchar_t*> {};

TEST_P(ForeignNameTest, OfFolderAndImagesAreFoundToldAndDeleted) {
  const std::filesystem::path inner = folder.Path() / GetParam();
  ASSERT_TRUE(std::filesystem::create_directory(inner));
  const std::wstring name = std::wstring(GetParam()) + L"\\" + GetParam();
  const std::wstring large = folder.WriteOfSize(name + L" modem.fls", 12u << 20);
  const std::wstring small = folder.WriteOfSize(name + L".fls", 10);
  ASSERT_TRUE(ToolKit::FetchModemNVMFls(CTString(inner.wstring())));
  EXPECT_EQ(Modem(), large);
  EXPECT_EQ(Nvm(), small);
  EXPECT_EQ(log.LevelOf("   Found, modem fls file: " + Narrow(large)), "Trace");
  EXPECT_EQ(log.LevelOf("   Found, NVM fls file: " + Narrow(small)), "Trace");
  ToolKit::DeleteFLSFiles();
  EXPECT_TRUE(std::filesystem::is_empty(inner));
}
INSTANTIATE_TEST_SUITE_P(Scripts, ForeignNameTest,
                         testing::Values(L"\u56FA\u4EF6", L"\u043F\u0440\u043E\u0448\u0438\u0432\u043A\u0430",
                                         L"\u0628\u0631\u0646\u0627\u0645\u062C", L"\u0E40\u0E1F\u0E34",
                                         L"\u05E7\u05D5\u05E9\u05D7\u05D4", L"\u03C5\u03BB\u03B9\u03BA\u03CC",
                                         L"\u092B\u0930\u094D\u092E", L"\uD38C\uC6E8\uC5B4",
                                         L"\u30D5\u30A1\u30FC\u30E0", L"\u10E4\u10D0\u10D8\u10DA\u10D8"));
INSTANTIATE_TEST_SUITE_P(Signs, ForeignNameTest,
                         testing::Values(L"\U0001F4F6", L"e\u0301\u200B", L"100% %s %n", L"a;b,c=d [e]"));

/// The file system takes any 16-bit units for a name.
TEST_F(FirmwareFilesTest, ANameThatIsNoUtf16IsKeptUnitByUnit) {
  const std::wstring name = std::wstring(1, wchar_t{0xD83D}) + L".fls";
  ListedEntries entries;
  entries.Add(name, 10);
  EXPECT_TRUE(Fetch());
  EXPECT_EQ(Nvm(), folder.File(name));
  ToolKit::DeleteFLSFiles();
  EXPECT_THAT(entries.Deleted(), ElementsAre(folder.File(name)));
}

/// A folder by the path that the system takes as it is.
class PlainPathTest : public FirmwareFilesTest {
 protected:
  static bool FetchFrom(const std::wstring& path) { return ToolKit::FetchModemNVMFls(CTString(path)); }
  static std::wstring Plain(const std::filesystem::path& path) { return L"\\\\?\\" + path.wstring(); }
};

TEST_F(PlainPathTest, LeadsToImagesThatAreDeletedByIt) {
  folder.WriteOfSize(L"a.fls", 12u << 20);
  folder.WriteOfSize(L"b.fls", 10);
  ASSERT_TRUE(FetchFrom(Plain(folder.Path())));
  EXPECT_EQ(Modem(), Plain(folder.Path()) + L"\\a.fls");
  EXPECT_EQ(Nvm(), Plain(folder.Path()) + L"\\b.fls");
  ToolKit::DeleteFLSFiles();
  EXPECT_TRUE(std::filesystem::is_empty(folder.Path()));
}

TEST_F(PlainPathTest, OfMoreThan260CharactersLeadsToImagesThatAreSkipped) {
  std::vector<std::wstring> folders{Plain(folder.Path())};
  while (folders.back().size() < 300) {
    folders.push_back(folders.back() + L"\\" + std::wstring(100, L'x'));
    ASSERT_TRUE(::CreateDirectoryW(folders.back().c_str(), nullptr)) << ::GetLastError();
  }
  const std::wstring image = folders.back() + L"\\a.fls";
  ASSERT_TRUE(::MoveFileW(folder.WriteOfSize(L"small", 10).c_str(), image.c_str())) << ::GetLastError();
  EXPECT_TRUE(FetchFrom(folders.back()));
  EXPECT_EQ(Nvm(), L"");
  EXPECT_EQ(log.LevelOf("FetchModemNVMFls: over MAX PATH, flz paths=" + Narrow(image)), "Trace");
  // Nothing of it is in reach of who does not take such paths.
  EXPECT_TRUE(::DeleteFileW(image.c_str()));
  for (; folders.size() > 1; folders.pop_back()) EXPECT_TRUE(::RemoveDirectoryW(folders.back().c_str()));
}

TEST_F(FirmwareFilesTest, ALinkToAFileCountsByTheSizeThatTheListTells) {
  ListedEntries entries;
  entries.Add(L"linked.fls", 0, FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_REPARSE_POINT);
  EXPECT_TRUE(Fetch());
  EXPECT_EQ(Modem(), L"");
  EXPECT_EQ(Nvm(), folder.File(L"linked.fls"));
}

TEST_F(FirmwareFilesTest, ALinkToAFolderIsNoImage) {
  ListedEntries entries;
  entries.Add(L"linked.fls", kThreshold, FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT);
  EXPECT_TRUE(Fetch());
  EXPECT_EQ(Modem(), L"");
  EXPECT_EQ(Nvm(), L"");
}

// Its size makes an image one of the modem, so that the later listed of both is all that is flashed.
TEST_F(FirmwareFilesTest, AnNvmFileOfTenMebibytesTakesTheModemImagesPlace) {
  ListedEntries entries;
  entries.Add(L"modem.fls", 12u << 20);
  entries.Add(L"nvm.fls", kThreshold);
  EXPECT_TRUE(Fetch());
  EXPECT_EQ(Modem(), folder.File(L"nvm.fls"));
  EXPECT_EQ(Nvm(), L"");
  EXPECT_EQ(log.LevelOf("   Found, modem fls file: " + Narrow(folder.File(L"modem.fls"))), "Trace");
  EXPECT_EQ(log.LevelOf("   Found, modem fls file: " + Narrow(folder.File(L"nvm.fls"))), "Trace");
}

/// Nearly as long as a path can be for the system.
class LongestPathTest : public FirmwareFilesTest {
 protected:
  std::wstring Path() const {
    std::wstring path = folder.Path().wstring();
    while (path.size() < 32000) path += L"\\" + std::wstring(199, L'x');
    return path;
  }
};

TEST_F(LongestPathTest, OfAMissingFolderIsAFailureThatIsToldWhole) {
  EXPECT_FALSE(ToolKit::FetchModemNVMFls(CTString(Path())));
  EXPECT_EQ(log.LevelOf("folder(" + Narrow(Path()) + ") is not a folder, exit"), "Error");
}

TEST_F(LongestPathTest, OfAnImageThatIsNotThereCannotBeDeletedAndIsToldWhole) {
  ToolKit::m_ModemFlsFile = CTString(Path() + L".fls");
  ToolKit::m_NVMFlsFile.Empty();
  ToolKit::DeleteFLSFiles();
  ToolKit::m_ModemFlsFile.Empty();
  EXPECT_THAT(log.Said(),
              Contains(testing::StartsWith("E:\t DeleteFile(" + Narrow(Path()) + ".fls) failed with: ")));
}

TEST_F(LongestPathTest, OfLogsDeletesNothing) {
  folder.Write(L"a.log", "");
  ToolKit::KeepLogFileNum(CTString(Path() + L"\\*.log"), 0);
  EXPECT_TRUE(folder.Holds(L"a.log"));
}

TEST_F(LongestPathTest, CannotBeMadeAndIsToldWhere) {
  std::string path = std::filesystem::path(Path()).string();
  EXPECT_FALSE(ToolKit::MakeDirectory(path.c_str()));
  EXPECT_THAT(log.Said(),
              Contains(testing::StartsWith("E:CreateDirectory(" + folder.Path().string() + "\\xxx")));
}

TEST_F(LongestPathTest, OfTheLogLosesTheRecordsAndNothingElse) {
  CDebugLogger::GetInstance()->SetFileName(std::filesystem::path(Path() + L"\\x.log").string().c_str());
  ::SetLastError(4711);
  ToolKit::OutputDebug(1, "c", "f", "x.cpp", 1, "lost");
  EXPECT_EQ(::GetLastError(), 4711u);
  CDebugLogger::GetInstance()->SetFileName(log.Path().c_str());
  ToolKit::OutputDebug(1, "c", "f", "x.cpp", 1, "kept");
  EXPECT_THAT(log.Said(), ElementsAre("E:kept"));
}

TEST_F(FirmwareFilesTest, AFileInThePlaceOfTheLogsFolderLosesTheRecordsAndStays) {
  const std::wstring file = folder.Write(L"folder", "content");
  CDebugLogger::GetInstance()->SetFileName(std::filesystem::path(file + L"\\x.log").string().c_str());
  ToolKit::OutputDebug(1, "c", "f", "x.cpp", 1, "lost");
  CDebugLogger::GetInstance()->SetFileName("");
  EXPECT_EQ(folder.Content(L"folder"), "content");
}

TEST_F(FirmwareFilesTest, DeletingRemovesBothImagesAndKeepsTheirPaths) {
  const std::wstring large = folder.WriteOfSize(L"a.fls", 12u << 20);
  const std::wstring small = folder.WriteOfSize(L"b.fls", 10);
  Fetch();
  ToolKit::DeleteFLSFiles();
  EXPECT_FALSE(folder.Holds(L"a.fls"));
  EXPECT_FALSE(folder.Holds(L"b.fls"));
  EXPECT_EQ(Modem(), large);
  EXPECT_EQ(Nvm(), small);
}

TEST_F(FirmwareFilesTest, DeletingIsLoggedAmongTheErrors) {
  ToolKit::m_ModemFlsFile.Empty();
  ToolKit::m_NVMFlsFile.Empty();
  ToolKit::DeleteFLSFiles();
  EXPECT_THAT(log.Said(), ElementsAre("E:\t DeleteFLSFiles ++", "E:\t DeleteFLSFiles --"));
}

TEST_F(FirmwareFilesTest, AnImageThatCannotBeDeletedIsLoggedWithTheSystemsError) {
  const std::wstring large = folder.WriteOfSize(L"a.fls", 12u << 20);
  folder.WriteOfSize(L"b.fls", 10);
  Fetch();
  const UniqueHandle opened =
      OwnFileHandle(::CreateFileW(large.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  ToolKit::DeleteFLSFiles();
  EXPECT_EQ(log.LevelOf("\t DeleteFile(" + Narrow(large) + ") failed with: 20"), "Error");
  EXPECT_FALSE(folder.Holds(L"b.fls"));
}

TEST_F(FirmwareFilesTest, WithoutMemoryForTheRecordTheOtherImageIsDeletedAllTheSame) {
  ToolKit::m_ModemFlsFile = CTString(folder.File(L"there is no image of this name, which is a long one.fls"));
  const std::wstring small = folder.WriteOfSize(L"b.fls", 10);
  ToolKit::m_NVMFlsFile = CTString(small);
  ScarceMemory memory;
  memory.FailEachOf([&] {
    folder.WriteOfSize(L"b.fls", 10);
    ToolKit::DeleteFLSFiles();
    EXPECT_FALSE(folder.Holds(L"b.fls"));
  });
}

class KeepLogFileNumTest : public FirmwareFilesTest {
 protected:
  void Keep(const std::wstring& pattern, unsigned int count) {
    ToolKit::KeepLogFileNum(CTString(folder.File(pattern)), count);
  }
  void WriteLogs(int count) {
    for (int i = 1; i <= count; ++i) folder.Write(L"ZEMO_DownloadDll_" + std::to_wstring(i) + L".log", "");
  }
  std::vector<std::string> Left() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder.Path())) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }
};

TEST_F(KeepLogFileNumTest, FiveLogsAndACountOfFourDeleteExactlyTheFirstListed) {
  WriteLogs(5);
  Keep(L"ZEMO_DownloadDll_*.log", 4);
  EXPECT_THAT(Left(), ElementsAre("ZEMO_DownloadDll_2.log", "ZEMO_DownloadDll_3.log",
                                  "ZEMO_DownloadDll_4.log", "ZEMO_DownloadDll_5.log"));
}

TEST_F(KeepLogFileNumTest, NoMoreThanTheCountAreAllKept) {
  WriteLogs(4);
  Keep(L"ZEMO_DownloadDll_*.log", 4);
  EXPECT_EQ(Left().size(), 4u);
}

TEST_F(KeepLogFileNumTest, ACountOfZeroDeletesEveryMatchAndNothingElse) {
  WriteLogs(3);
  folder.Write(L"other.log", "");
  Keep(L"ZEMO_DownloadDll_*.log", 0);
  EXPECT_THAT(Left(), ElementsAre("other.log"));
}

TEST_F(KeepLogFileNumTest, NothingThatMatchesDeletesNothing) {
  folder.Write(L"other.log", "");
  Keep(L"ZEMO_DownloadDll_*.log", 0);
  EXPECT_THAT(Left(), ElementsAre("other.log"));
}

TEST_F(KeepLogFileNumTest, AFolderThatMatchesTakesADeletionThatFails) {
  std::filesystem::create_directory(folder.Path() / L"ZEMO_DownloadDll_0.log");
  WriteLogs(2);
  Keep(L"ZEMO_DownloadDll_*.log", 2);
  EXPECT_THAT(Left(),
              ElementsAre("ZEMO_DownloadDll_0.log", "ZEMO_DownloadDll_1.log", "ZEMO_DownloadDll_2.log"));
}

TEST_F(KeepLogFileNumTest, ALockedLogTakesADeletionThatFails) {
  WriteLogs(3);
  const UniqueHandle opened = OwnFileHandle(::CreateFileW(
      folder.File(L"ZEMO_DownloadDll_1.log").c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  Keep(L"ZEMO_DownloadDll_*.log", 1);
  EXPECT_THAT(Left(), ElementsAre("ZEMO_DownloadDll_1.log", "ZEMO_DownloadDll_3.log"));
}

TEST_F(KeepLogFileNumTest, TheFoldersOwnEntriesCountToo) {
  WriteLogs(2);
  Keep(L"*", 2);
  EXPECT_EQ(Left().size(), 2u);
}

TEST_F(KeepLogFileNumTest, AnEmptyPatternDeletesNothing) {
  ListedEntries entries;
  entries.Add(L"a", 1);
  ToolKit::KeepLogFileNum(CTString(), 0);
  EXPECT_THAT(entries.Deleted(), testing::IsEmpty());
}

TEST_F(KeepLogFileNumTest, TheNamesAreDeletedInTheFolderOfThePatternInTheirListedOrder) {
  ListedEntries entries;
  entries.Add(L"b.log", 1);
  entries.Add(L"a.log", 1);
  entries.Add(L"c.log", 1);
  ToolKit::KeepLogFileNum(CTString(L"C:\\logs\\\\*.log"), 1);
  EXPECT_THAT(entries.Deleted(), ElementsAre(L"C:\\logs\\\\b.log", L"C:\\logs\\\\a.log"));
}

TEST(MaxModemDownloadLogNumTest, IsFive) {
  EXPECT_EQ(ToolKit::GetMaxModemDownloadLogNum(), 5);
}

}  // namespace
