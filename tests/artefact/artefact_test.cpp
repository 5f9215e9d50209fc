// What ships, looked at as a file.
//
// usage: artefact_test                   runs the tests
//        artefact_test --print-exports   lists what the library exports, for exports.txt

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "pe_file.h"

namespace {

constexpr std::uintmax_t kLargestLibrary = 2 * 1024 * 1024;

// Parts of every Windows 10, the system's own C runtime among them.
constexpr std::array kLibrariesOfWindows = {
    "advapi32.dll", "cfgmgr32.dll", "kernel32.dll", "msvcrt.dll",
    "ole32.dll",    "oleaut32.dll", "shlwapi.dll",  "user32.dll",
};

std::filesystem::path FolderOfThisProgram() {
  std::array<wchar_t, MAX_PATH> path{};
  ::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
  return std::filesystem::path(path.data()).parent_path();
}

std::filesystem::path Library() {
  return FolderOfThisProgram() / "CorvelToolKit.dll";
}

std::string Lower(std::string text) {
  std::ranges::transform(text, text.begin(),
                         [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
  return text;
}

/// The version resource of the library, which is not loaded for it.
class VersionResource {
 public:
  VersionResource() {
    m_Bytes.resize(::GetFileVersionInfoSizeW(Library().c_str(), nullptr));
    m_Found = !m_Bytes.empty() &&
              ::GetFileVersionInfoW(Library().c_str(), 0, static_cast<DWORD>(m_Bytes.size()), m_Bytes.data());
  }

  std::string Numbers() {
    VS_FIXEDFILEINFO* fixed = nullptr;
    UINT size = 0;
    if (!m_Found || !::VerQueryValueW(m_Bytes.data(), L"\\", reinterpret_cast<void**>(&fixed), &size))
      return {};
    return std::to_string(HIWORD(fixed->dwFileVersionMS)) + "." +
           std::to_string(LOWORD(fixed->dwFileVersionMS)) + "." +
           std::to_string(HIWORD(fixed->dwFileVersionLS)) + "." +
           std::to_string(LOWORD(fixed->dwFileVersionLS));
  }

  std::string Text(const std::wstring& name) {
    wchar_t* text = nullptr;
    UINT size = 0;
    const std::wstring block = L"\\StringFileInfo\\040904B0\\" + name;
    if (!m_Found ||
        !::VerQueryValueW(m_Bytes.data(), block.c_str(), reinterpret_cast<void**>(&text), &size)) {
      return {};
    }
    std::array<char, 256> narrow{};
    ::WideCharToMultiByte(CP_UTF8, 0, text, -1, narrow.data(), static_cast<int>(narrow.size()), nullptr,
                          nullptr);
    return narrow.data();
  }

 private:
  std::vector<std::byte> m_Bytes;
  bool m_Found = false;
};

TEST(Artefact, IsMadeForX64) {
  EXPECT_EQ(PeFile(Library()).Machine(), IMAGE_FILE_MACHINE_AMD64);
}

TEST(Artefact, DoesNotExecuteData) {
  EXPECT_TRUE(PeFile(Library()).Flags() & IMAGE_DLLCHARACTERISTICS_NX_COMPAT);
}

TEST(Artefact, IsLoadedAtRandomAddressesOfTheWholeRange) {
  EXPECT_TRUE(PeFile(Library()).Flags() & IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE);
  EXPECT_TRUE(PeFile(Library()).Flags() & IMAGE_DLLCHARACTERISTICS_HIGH_ENTROPY_VA);
}

TEST(Artefact, ImportsOnlyLibrariesOfWindows) {
  const std::vector<std::string> libraries = PeFile(Library()).ImportedLibraries();
  EXPECT_FALSE(libraries.empty());
  for (const std::string& library : libraries) {
    EXPECT_THAT(kLibrariesOfWindows, testing::Contains(Lower(library)));
  }
}

TEST(Artefact, CarriesTheProjectsVersion) {
  VersionResource version;
  EXPECT_EQ(version.Numbers(), CORVEL_VERSION ".0");
  EXPECT_EQ(version.Text(L"FileVersion"), CORVEL_VERSION);
  EXPECT_EQ(version.Text(L"ProductVersion"), CORVEL_VERSION);
  EXPECT_EQ(version.Text(L"OriginalFilename"), "CorvelToolKit.dll");
}

#if defined(_MSC_VER)

TEST(Artefact, ChecksItsBuffers) {
  EXPECT_NE(PeFile(Library()).SecurityCookie(), 0u);
}

#else

// The C++ runtime that is linked in was built without the check, so every call stands in this project's code.
TEST(Artefact, ChecksItsStackInManyFunctions) {
  EXPECT_GT(PeFile(Library()).CallsTo("__stack_chk_fail").value_or(0), 50);
}

TEST(Artefact, ExportsWhatTheListSays) {
  std::ifstream list(FolderOfThisProgram() / "artefact" / "exports.txt");
  ASSERT_TRUE(list);
  std::vector<std::string> expected;
  for (std::string name; std::getline(list, name);) expected.push_back(name);

  const std::vector<std::string> exported = PeFile(Library()).Exports();
  std::vector<std::string> missing;
  std::vector<std::string> added;
  std::ranges::set_difference(expected, exported, std::back_inserter(missing));
  std::ranges::set_difference(exported, expected, std::back_inserter(added));
  EXPECT_THAT(missing, testing::IsEmpty()) << "no longer exported";
  EXPECT_THAT(added, testing::IsEmpty()) << "new; when intended, run scripts/update-exports";
}

// The list above is renewed by a script when it grows; this one never is.
TEST(Artefact, ExportsWhatTheFirstHostsWereBuiltAgainst) {
  std::ifstream list(FolderOfThisProgram() / "artefact" / "first_exports.def");
  ASSERT_TRUE(list);
  std::string line;
  while (std::getline(list, line) && line != "EXPORTS") continue;
  const std::vector<std::string> exported = PeFile(Library()).Exports();
  int names = 0;
  for (; std::getline(list, line); ++names) EXPECT_THAT(exported, testing::Contains(line));
  EXPECT_GT(names, 100);
}

#if defined(NDEBUG)

TEST(Artefact, TakesLessThanTwoMegabytesStripped) {
  EXPECT_LT(std::filesystem::file_size(FolderOfThisProgram() / "artefact" / "stripped.dll"), kLargestLibrary);
}

#endif
#endif

int PrintExports() {
  for (const std::string& name : PeFile(Library()).Exports()) std::printf("%s\n", name.c_str());
  return 0;
}

}  // namespace

int main(int count, char** arguments) {
  if (count == 2 && std::string_view(arguments[1]) == "--print-exports") return PrintExports();
  testing::InitGoogleMock(&count, arguments);
  return RUN_ALL_TESTS();
}
