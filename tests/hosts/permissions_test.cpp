#include "hosts/service/permissions.h"

#include <windows.h>

#include <aclapi.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sddl.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "hosts/common/facts.h"
#include "hosts/common/handshake.h"
#include "hosts/common/owners.h"
#include "hosts/common/text.h"
#include "messages.h"
#include "simulator/host/kept_key.h"
#include "simulator/import_patch.h"
#include "tests/hosts/child_process.h"
#include "tests/hosts/host_workspace.h"

namespace hosts {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

constexpr char kOfFolder[] = "D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)";
constexpr char kAdministrators[] = "S-1-5-32-544";
constexpr char kOfKey[] = "D:P(A;CI;KA;;;SY)(A;CI;KA;;;BA)(A;CI;KR;;;BU)";

/// What an account beside administrators may write, as the system tells it of a file.
constexpr wchar_t kFromOneAccount[] = L"O:BAD:(A;;FA;;;BA)(A;;0x2;;;S-1-5-21-1-2-3-1001)";

std::string TextOf(PSECURITY_DESCRIPTOR descriptor) {
  wchar_t* text = nullptr;
  ::ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1,
                                                         DACL_SECURITY_INFORMATION, &text, nullptr);
  std::string utf8 = text == nullptr ? "" : ToUtf8(text);
  ::LocalFree(text);
  return utf8;
}

/// What the system was asked for: owners and permissions by the folder's name, and those of the key.
std::map<std::wstring, std::string> g_owners;
std::map<std::wstring, std::string> g_folders;
std::vector<std::string> g_order;
std::vector<std::string> g_keys;
DWORD g_refusal = ERROR_SUCCESS;

std::string NumberOf(PSID account) {
  wchar_t* text = nullptr;
  ::ConvertSidToStringSidW(account, &text);
  const LocalMemory owner(text);
  return text == nullptr ? "" : ToUtf8(text);
}

DWORD WINAPI RecordFolder(LPWSTR name, SE_OBJECT_TYPE type, SECURITY_INFORMATION what, PSID owner, PSID,
                          PACL list, PACL) {
  EXPECT_EQ(type, SE_FILE_OBJECT);
  if (what == OWNER_SECURITY_INFORMATION) {
    g_order.emplace_back("owner");
    g_owners[name] = NumberOf(owner);
    return g_refusal;
  }
  g_order.emplace_back("permissions");
  EXPECT_EQ(what, DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION);
  SECURITY_DESCRIPTOR descriptor{};
  ::InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION);
  ::SetSecurityDescriptorDacl(&descriptor, TRUE, list, FALSE);
  ::SetSecurityDescriptorControl(&descriptor, SE_DACL_PROTECTED, SE_DACL_PROTECTED);
  g_folders[name] = TextOf(&descriptor);
  return g_refusal;
}

LSTATUS WINAPI RecordKey(HKEY, SECURITY_INFORMATION what, PSECURITY_DESCRIPTOR descriptor) {
  EXPECT_EQ(what, static_cast<SECURITY_INFORMATION>(DACL_SECURITY_INFORMATION));
  g_keys.push_back(TextOf(descriptor));
  return static_cast<LSTATUS>(g_refusal);
}

/// Whether the key was given back to whom its parent leaves it.
bool g_inherits = false;

DWORD WINAPI RecordInheritance(HANDLE, SE_OBJECT_TYPE type, SECURITY_INFORMATION what, PSID, PSID, PACL list,
                               PACL) {
  EXPECT_EQ(type, SE_REGISTRY_KEY);
  EXPECT_EQ(what, DACL_SECURITY_INFORMATION | UNPROTECTED_DACL_SECURITY_INFORMATION);
  EXPECT_EQ(list->AceCount, 3);
  g_inherits = true;
  return g_refusal;
}

/// Permissions that a test gives to files and folders, as text; those of all others are the system's answer.
std::map<std::wstring, std::wstring> g_given;

/// By its name alone this program would call what the test has put in its place.
const auto g_getPermissions = reinterpret_cast<decltype(&::GetNamedSecurityInfoW)>(
    reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"advapi32.dll"), "GetNamedSecurityInfoW")));

DWORD WINAPI TellPermissions(LPCWSTR name, SE_OBJECT_TYPE type, SECURITY_INFORMATION what, PSID* owner,
                             PSID* group, PACL* list, PACL* audit, PSECURITY_DESCRIPTOR* descriptor) {
  const auto given = g_given.find(name);
  if (given == g_given.end()) {
    return g_getPermissions(name, type, what, owner, group, list, audit, descriptor);
  }
  BOOL present = FALSE;
  BOOL defaulted = FALSE;
  EXPECT_TRUE(::ConvertStringSecurityDescriptorToSecurityDescriptorW(given->second.c_str(), SDDL_REVISION_1,
                                                                     descriptor, nullptr));
  ::GetSecurityDescriptorOwner(*descriptor, owner, &defaulted);
  ::GetSecurityDescriptorDacl(*descriptor, &present, list, &defaulted);
  return ERROR_SUCCESS;
}

/// What went into the event log.
std::vector<std::pair<DWORD, std::string>> g_events;

HANDLE WINAPI OpenEventLog(LPCWSTR, LPCWSTR source) {
  EXPECT_STREQ(source, kServiceName);
  return &g_events;
}

BOOL WINAPI RecordEvent(HANDLE, WORD type, WORD, DWORD event, PSID, WORD count, DWORD, LPCWSTR* texts,
                        void*) {
  EXPECT_EQ(type, EVENTLOG_WARNING_TYPE);
  EXPECT_EQ(count, 1);
  g_events.emplace_back(event, ToUtf8(texts[0]));
  return TRUE;
}

BOOL WINAPI CloseEventLog(HANDLE) {
  return TRUE;
}

/// A folder that is a link; empty: none is.
std::wstring g_link;

DWORD WINAPI TellAttributes(LPCWSTR name) {
  WIN32_FILE_ATTRIBUTE_DATA facts{};
  if (!::GetFileAttributesExW(name, GetFileExInfoStandard, &facts)) return INVALID_FILE_ATTRIBUTES;
  return facts.dwFileAttributes | (name == g_link ? FILE_ATTRIBUTE_REPARSE_POINT : 0);
}

/// Whether that link is a drive that is mounted there.
bool g_isDrive = false;

BOOL WINAPI TellVolume(LPCWSTR, LPWSTR, DWORD) {
  return g_isDrive;
}

/// A program's folder of the test's own, in which the code under test takes itself to be.
std::wstring g_program;

DWORD WINAPI TellProgram(HMODULE, LPWSTR buffer, DWORD size) {
  return static_cast<DWORD>(g_program.copy(buffer, size));
}

class PermissionsTest : public testing::Test {
 protected:
  PermissionsTest() {
    g_owners.clear();
    g_folders.clear();
    g_order.clear();
    g_keys.clear();
    g_given.clear();
    g_events.clear();
    g_link.clear();
    g_isDrive = false;
    g_inherits = false;
    g_refusal = ERROR_SUCCESS;
    g_program = workspace.Service().wstring();
    workspace.SetServiceKey(ToWide(key.Location().Text()));
    m_Patch.Replace("SetNamedSecurityInfoW", &RecordFolder);
    m_Patch.Replace("GetNamedSecurityInfoW", &TellPermissions);
    m_Patch.Replace("GetFileAttributesW", &TellAttributes);
    m_Patch.Replace("GetVolumeNameForVolumeMountPointW", &TellVolume);
    m_Patch.Replace("RegSetKeySecurity", &RecordKey);
    m_Patch.Replace("SetSecurityInfo", &RecordInheritance);
    m_Patch.Replace("RegisterEventSourceW", &OpenEventLog);
    m_Patch.Replace("ReportEventW", &RecordEvent);
    m_Patch.Replace("DeregisterEventSource", &CloseEventLog);
    m_Patch.Replace("GetModuleFileNameW", &TellProgram);
  }

  std::wstring Folder() const { return workspace.Service().parent_path().wstring(); }
  static void LetEverybodyWrite(const std::wstring& path) {
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ::ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:(A;;FA;;;WD)", SDDL_REVISION_1, &descriptor,
                                                           nullptr);
    ASSERT_TRUE(::SetFileSecurityW(path.c_str(), DACL_SECURITY_INFORMATION, descriptor));
    ::LocalFree(descriptor);
  }

  HostWorkspace workspace;
  simulator::KeptKey key{
      {.path = L"SOFTWARE\\Corvel\\Test\\Permissions-" + std::to_wstring(::GetCurrentProcessId())}};

 private:
  simulator::ImportPatch m_Patch{::GetModuleHandleW(nullptr)};
};

TEST_F(PermissionsTest, LeaveWritingToAdministratorsAndTheSystem) {
  EXPECT_THAT(ProtectInstallation(), IsEmpty());
  const std::map<std::wstring, std::string> both{{Folder(), kOfFolder},
                                                 {workspace.ImageFolder().wstring(), kOfFolder}};
  EXPECT_EQ(g_folders, both);
  EXPECT_THAT(g_keys, ElementsAre(kOfKey));
  EXPECT_TRUE(key.Exists());
  EXPECT_THAT(g_events, IsEmpty());
}

TEST_F(PermissionsTest, OfAKeyThatWasThereAreGivenBack) {
  key.Write(L"Retry_Times", 2);
  ProtectInstallation();
  EXPECT_EQ(ReleaseHandshakeKey(Folder()), "");
  EXPECT_TRUE(g_inherits);
  EXPECT_TRUE(key.Exists());
  g_refusal = ERROR_ACCESS_DENIED;
  EXPECT_EQ(ReleaseHandshakeKey(Folder() + L"\\."),
            "The key " + key.Location().Text() + " stays as it is: " + SystemErrorText(ERROR_ACCESS_DENIED) +
                ". Delete it as an administrator.");
}

TEST_F(PermissionsTest, GoWithAKeyThatWasMadeForThem) {
  ProtectInstallation();
  ASSERT_TRUE(key.Exists());
  EXPECT_EQ(ReleaseHandshakeKey(Folder()), "");
  EXPECT_FALSE(g_inherits);
  EXPECT_FALSE(key.Exists());
  EXPECT_EQ(ReleaseHandshakeKey(Folder()), "");
}

/// Who made a folder owns it, and gives himself any right that is taken from him.
TEST_F(PermissionsTest, OfAFolderThatAUserOwnsAreGivenToAdministrators) {
  ProtectInstallation();
  const std::map<std::wstring, std::string> both{{Folder(), kAdministrators},
                                                 {workspace.ImageFolder().wstring(), kAdministrators}};
  EXPECT_EQ(g_owners, both);
  // First: the former owner may have left administrators no other right.
  EXPECT_THAT(g_order, ElementsAre("owner", "permissions", "owner", "permissions"));
}

TEST_F(PermissionsTest, ThatTheSystemRefusesAreTold) {
  g_refusal = ERROR_ACCESS_DENIED;
  const std::vector<std::string> warnings = ProtectInstallation();
  ASSERT_EQ(warnings.size(), 3u);
  EXPECT_EQ(warnings[0], "The permissions of " + ToUtf8(Folder()) +
                             " could not be set: " + SystemErrorText(ERROR_ACCESS_DENIED) +
                             ". Leave writing to administrators and the system there, or install again as an "
                             "administrator.");
  EXPECT_THAT(warnings[2], HasSubstr("The permissions of " + key.Location().Text() + " could not be set"));
}

TEST_F(PermissionsTest, ThatLetUsersWriteAreTold) {
  LetEverybodyWrite(workspace.File(L"CorvelConfig.ini").wstring());
  LetEverybodyWrite(workspace.ModemImage().wstring());
  const std::vector<std::string> warnings = ProtectInstallation();
  ASSERT_EQ(warnings.size(), 2u);
  EXPECT_THAT(warnings[0],
              AllOf(StartsWith(ToUtf8(workspace.File(L"CorvelConfig.ini").wstring()) + " may be written by "),
                    EndsWith(": whoever changes it has the rights of the service, or flashes an "
                             "image of their own. Leave it to administrators and the system.")));
  EXPECT_THAT(warnings[1], HasSubstr("modem.fls"));
}

/// Behind an installer nobody reads what the program says.
TEST_F(PermissionsTest, ThatAreNotAsTheyShouldBeAreLeftInTheEventLog) {
  g_given[workspace.File(L"CorvelConfig.ini").wstring()] = kFromOneAccount;
  workspace.Remove(L"firmware");
  const std::vector<std::string> warnings = ProtectInstallation();
  ASSERT_EQ(warnings.size(), 2u);
  EXPECT_THAT(g_events, ElementsAre(std::pair(static_cast<DWORD>(MSG_OPEN_TO_OTHERS),
                                              warnings[0] + "\r\n" + warnings[1])));
}

TEST_F(PermissionsTest, ThatLetOneAccountWriteAreTold) {
  g_given[workspace.NvmImage().wstring()] = kFromOneAccount;
  EXPECT_THAT(ProtectInstallation(), ElementsAre(StartsWith(ToUtf8(workspace.NvmImage().wstring()) +
                                                            " may be written by S-1-5-21-1-2-3-1001: ")));
}

TEST_F(PermissionsTest, ThatAnOwnerGivesHimselfAreTold) {
  g_given[workspace.NvmImage().wstring()] = L"O:S-1-5-21-1-2-3-1001D:(A;;FA;;;SY)";
  EXPECT_THAT(ProtectInstallation(), ElementsAre(StartsWith(ToUtf8(workspace.NvmImage().wstring()) +
                                                            " belongs to S-1-5-21-1-2-3-1001: ")));
}

TEST_F(PermissionsTest, OfEachLibraryBesideTheProgramAreLookedAt) {
  const std::wstring library = workspace.File(L"Other.DLL").wstring();
  const std::wstring text = workspace.File(L"other.txt").wstring();
  for (const std::wstring& file : {library, text}) {
    std::ofstream(std::filesystem::path(file)) << "anything";
    g_given[file] = kFromOneAccount;
  }
  EXPECT_THAT(ProtectInstallation(), ElementsAre(StartsWith(ToUtf8(library) + " may be written by ")));
}

/// Whoever may write there may do anything with what lies in it: that is not said of each file.
TEST_F(PermissionsTest, OfAnOpenFolderAreToldOnce) {
  g_given[workspace.ImageFolder().wstring()] = kFromOneAccount;
  g_given[workspace.NvmImage().wstring()] = kFromOneAccount;
  EXPECT_THAT(ProtectInstallation(),
              ElementsAre(StartsWith(ToUtf8(workspace.ImageFolder().wstring()) + " may be ")));
}

TEST_F(PermissionsTest, OfAFolderAboveThatLetItsFoldersBeReplacedAreToldOnce) {
  const std::wstring above = std::filesystem::path(Folder()).parent_path().wstring();
  // Deletes what lies in it.
  g_given[above] = L"O:SYD:(A;;0x40;;;BU)";
  EXPECT_THAT(ProtectInstallation(), ElementsAre(StartsWith(ToUtf8(above) + " may be written by ")));
  g_given[above] = L"O:S-1-5-21-1-2-3-1001D:(A;;FA;;;SY)";
  EXPECT_THAT(ProtectInstallation(), ElementsAre(StartsWith(ToUtf8(above) + " belongs to ")));
}

/// As the system's own folders have them: users add folders, and get rights in what they add.
TEST_F(PermissionsTest, OfAFolderAboveThatLetUsersAddToItAreAsTheyShouldBe) {
  g_given[std::filesystem::path(Folder()).parent_path().wstring()] =
      L"O:S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464"
      L"D:(A;OICIIO;FA;;;CO)(A;OICIIO;FA;;;BU)(A;;0x6;;;BU)(A;;0x1200a9;;;WD)(A;;FA;;;BA)";
  EXPECT_THAT(ProtectInstallation(), IsEmpty());
}

TEST_F(PermissionsTest, OfFoldersThatOthersLiveInStayAsTheyAre) {
  for (const wchar_t* folder : {L"C:\\", L"C:\\windows", L"c:\\WINDOWS\\", L"C:\\windows\\system32\\drivers",
                                L"C:\\Program Files", L"C:\\ProgramData", L"C:\\users"}) {
    g_folders.clear();
    workspace.WriteConfiguration("[ModemAndNVMFirmwareFolder]=", folder);
    const std::vector<std::string> warnings = ProtectInstallation();
    EXPECT_EQ(g_folders.size(), 1u) << ToUtf8(folder);
    ASSERT_FALSE(warnings.empty()) << ToUtf8(folder);
    EXPECT_THAT(warnings[0], AllOf(HasSubstr("The permissions of " + ToUtf8(folder) + " stay as they are"),
                                   HasSubstr("a folder of its own")));
  }
}

/// Whoever may make a link would have the permissions of what it leads to changed.
TEST_F(PermissionsTest, OfAFolderBehindALinkStayAsTheyAre) {
  const std::filesystem::path images = workspace.ImageFolder() / L"wave";
  std::filesystem::create_directory(images);
  workspace.WriteConfiguration("[ModemAndNVMFirmwareFolder]=", images.wstring());
  for (const std::filesystem::path& link : {images, images.parent_path()}) {
    g_folders.clear();
    g_link = link.wstring();
    EXPECT_THAT(
        ProtectInstallation(),
        ElementsAre("The permissions of " + ToUtf8(images.wstring()) +
                    " stay as they are, because it is a link, or lies behind one. Name the folder itself."));
    EXPECT_EQ(g_folders.count(images.wstring()), 0u);
  }
}

/// Administrators alone make those.
TEST_F(PermissionsTest, OfAFolderOnADriveThatIsMountedInAnotherAreSet) {
  g_link = workspace.ImageFolder().wstring();
  g_isDrive = true;
  EXPECT_THAT(ProtectInstallation(), IsEmpty());
  EXPECT_EQ(g_folders.count(workspace.ImageFolder().wstring()), 1u);
}

TEST_F(PermissionsTest, OfAKeyThatOthersLiveBelowStayAsTheyAre) {
  for (const wchar_t* location : {L"HKLM\\SOFTWARE", L"HKLM\\"}) {
    workspace.SetServiceKey(location);
    const std::vector<std::string> warnings = ProtectInstallation();
    EXPECT_THAT(g_keys, IsEmpty()) << ToUtf8(location);
    ASSERT_EQ(warnings.size(), 1u) << ToUtf8(location);
    EXPECT_THAT(warnings[0], HasSubstr("because other keys lie below it"));
  }
}

TEST_F(PermissionsTest, OfAKeyThatBelongsToOneAccountStayAsTheyAre) {
  workspace.SetServiceKey(L"HKCU\\Software\\Corvel\\Test\\Unused");
  const std::vector<std::string> warnings = ProtectInstallation();
  EXPECT_THAT(g_keys, IsEmpty());
  ASSERT_EQ(warnings.size(), 1u);
  EXPECT_THAT(warnings[0], HasSubstr("because the key is not below HKLM"));
}

TEST_F(PermissionsTest, WaitForAFolderOfTheImages) {
  workspace.Remove(L"firmware");
  const std::vector<std::string> warnings = ProtectInstallation();
  ASSERT_EQ(warnings.size(), 1u);
  EXPECT_THAT(warnings[0],
              AllOf(HasSubstr("There is no folder of the images yet"), HasSubstr("install again")));
  EXPECT_EQ(g_folders.size(), 1u);
}

TEST_F(PermissionsTest, WaitForAConfiguration) {
  workspace.Remove(L"CorvelConfig.ini");
  const std::vector<std::string> warnings = ProtectInstallation();
  ASSERT_EQ(warnings.size(), 1u);
  EXPECT_THAT(warnings[0], HasSubstr("CorvelConfig.ini cannot be read"));
  EXPECT_THAT(g_keys, IsEmpty());
}

}  // namespace

}  // namespace hosts
