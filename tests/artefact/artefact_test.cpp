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
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "artefact/pe_file.h"

namespace {

constexpr std::uintmax_t kLargestLibrary = std::uintmax_t{2} * 1024 * 1024;

constexpr char kLibraryName[] = "CorvelToolKit.dll";
constexpr char kCommandLineName[] = "corvel_cmdline.exe";
constexpr char kServiceName[] = "corvel_service.exe";
constexpr char kFlashlogName[] = "corvel_flashlog.exe";

// Parts of every Windows 10, the system's own C runtime among them; and the library itself, which the command
// line is linked to.
constexpr std::array kKnownLibraries = {
    "advapi32.dll", "bcrypt.dll",  "cfgmgr32.dll", "kernel32.dll", "msvcrt.dll",        "ole32.dll",
    "oleaut32.dll", "shell32.dll", "shlwapi.dll",  "user32.dll",   "corveltoolkit.dll",
};

std::filesystem::path FolderOfThisProgram() {
  std::array<wchar_t, MAX_PATH> path{};
  ::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
  return std::filesystem::path(path.data()).parent_path();
}

std::filesystem::path Library() {
  return FolderOfThisProgram() / kLibraryName;
}

std::string Lower(std::string text) {
  std::ranges::transform(text, text.begin(),
                         [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
  return text;
}

/// The version resource of a file, which is not loaded for it.
class VersionResource {
 public:
  explicit VersionResource(const std::filesystem::path& file) {
    m_Bytes.resize(::GetFileVersionInfoSizeW(file.c_str(), nullptr));
    m_Found = !m_Bytes.empty() &&
              ::GetFileVersionInfoW(file.c_str(), 0, static_cast<DWORD>(m_Bytes.size()), m_Bytes.data());
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

struct ModuleCloser {
  using pointer = HMODULE;
  void operator()(HMODULE module) const noexcept { ::FreeLibrary(module); }
};
using DataFile = std::unique_ptr<HINSTANCE__, ModuleCloser>;

/// The manifest of a program; empty without one. Nothing of the program runs.
std::string ManifestOf(const std::filesystem::path& program) {
  const DataFile file(
      ::LoadLibraryExW(program.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE));
  const HRSRC place = ::FindResourceW(file.get(), MAKEINTRESOURCEW(1), MAKEINTRESOURCEW(24));
  if (place == nullptr) return {};
  const auto* const text = static_cast<const char*>(::LockResource(::LoadResource(file.get(), place)));
  return {text, ::SizeofResource(file.get(), place)};
}

/// Which names lie where in a file: the packages have that in a file of its own.
PeFile SymbolsOf(const std::filesystem::path& file) {
  std::filesystem::path apart = file;
  apart += ".debug";
  return PeFile(std::filesystem::exists(apart) ? apart : file);
}

/// Each file that ships.
class ShippedFile : public testing::TestWithParam<const char*> {
 protected:
  static std::filesystem::path Path() { return FolderOfThisProgram() / GetParam(); }
};

TEST_P(ShippedFile, IsMadeForX64) {
  EXPECT_EQ(PeFile(Path()).Machine(), IMAGE_FILE_MACHINE_AMD64);
}

TEST_P(ShippedFile, DoesNotExecuteData) {
  EXPECT_TRUE(PeFile(Path()).Flags() & IMAGE_DLLCHARACTERISTICS_NX_COMPAT);
}

TEST_P(ShippedFile, IsLoadedAtRandomAddressesOfTheWholeRange) {
  EXPECT_TRUE(PeFile(Path()).Flags() & IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE);
  EXPECT_TRUE(PeFile(Path()).Flags() & IMAGE_DLLCHARACTERISTICS_HIGH_ENTROPY_VA);
}

// Without them the system cannot move the file, whatever its flags say.
TEST_P(ShippedFile, HasRelocations) {
  EXPECT_FALSE(PeFile(Path()).CannotBeMoved());
  EXPECT_TRUE(PeFile(Path()).HasRelocations());
}

TEST_P(ShippedFile, ImportsOnlyLibrariesOfWindows) {
  const std::vector<std::string> libraries = PeFile(Path()).ImportedLibraries();
  EXPECT_FALSE(libraries.empty());
  for (const std::string& library : libraries)
    EXPECT_THAT(kKnownLibraries, testing::Contains(Lower(library)));
}

TEST_P(ShippedFile, CarriesTheProjectsVersion) {
  VersionResource version(Path());
  EXPECT_EQ(version.Numbers(), CORVEL_VERSION ".0");
  EXPECT_EQ(version.Text(L"FileVersion"), CORVEL_VERSION);
  EXPECT_EQ(version.Text(L"ProductVersion"), CORVEL_VERSION);
  EXPECT_EQ(version.Text(L"OriginalFilename"), GetParam());
}

INSTANTIATE_TEST_SUITE_P(EachOf, ShippedFile,
                         testing::Values(kLibraryName, kCommandLineName, kServiceName, kFlashlogName),
                         [](const auto& tested) {
                           return std::filesystem::path(tested.param).stem().string();
                         });

/// It is what an integrator begins with: the header that it includes asks for no library of this project's.
TEST(ControllingProgram, NeedsNothingButTheRegistry) {
  const std::array expected = {"advapi32.dll", "kernel32.dll", "msvcrt.dll"};
  const auto libraries = PeFile(FolderOfThisProgram() / "controller_example.exe").ImportedLibraries();
  EXPECT_FALSE(libraries.empty());
  for (const std::string& library : libraries) EXPECT_THAT(expected, testing::Contains(Lower(library)));
}

class ShippedProgram : public ShippedFile {};

TEST_P(ShippedProgram, AsksForNoMoreRightsThanItsCaller) {
  EXPECT_THAT(ManifestOf(Path()), testing::HasSubstr("level=\"asInvoker\""));
}

TEST_P(ShippedProgram, TakesPathsOfAnyLength) {
  EXPECT_THAT(ManifestOf(Path()), testing::HasSubstr(">true</longPathAware>"));
}

// With UTF-8 as its ANSI code page the same configuration would mean something else than in other hosts.
TEST_P(ShippedProgram, LeavesTheCodePageToTheSystem) {
  EXPECT_THAT(ManifestOf(Path()), testing::Not(testing::HasSubstr("<activeCodePage")));
}

INSTANTIATE_TEST_SUITE_P(EachOf, ShippedProgram,
                         testing::Values(kCommandLineName, kServiceName, kFlashlogName),
                         [](const auto& tested) {
                           return std::filesystem::path(tested.param).stem().string();
                         });

#if defined(_MSC_VER)

TEST_P(ShippedFile, ChecksItsBuffers) {
  EXPECT_NE(PeFile(Path()).SecurityCookie(), 0u);
}

TEST_P(ShippedFile, GuardsItsIndirectCalls) {
  EXPECT_TRUE(PeFile(Path()).Flags() & IMAGE_DLLCHARACTERISTICS_GUARD_CF);
}

#else

// The C++ runtime that is linked in was built without the check, so every call stands in this project's code.
TEST_P(ShippedFile, ChecksItsStackInManyFunctions) {
  const auto check = SymbolsOf(Path()).AddressOfSymbol("__stack_chk_fail");
  ASSERT_TRUE(check);
  EXPECT_GT(PeFile(Path()).CallsTo(*check), 50);
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

#if defined(CORVEL_TESTS_RELEASE)

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

int main(int count, char** arguments) try {
  if (count == 2 && std::string_view(arguments[1]) == "--print-exports") return PrintExports();
  testing::InitGoogleMock(&count, arguments);
  return RUN_ALL_TESTS();
} catch (const std::exception& error) {
  std::fprintf(stderr, "artefact_test: %s\n", error.what());
  return 1;
}
