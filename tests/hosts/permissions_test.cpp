#include "hosts/service/permissions.h"

#include <windows.h>

#include <aclapi.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sddl.h>

#include <map>
#include <string>
#include <vector>

#include "hosts/common/handshake.h"
#include "hosts/common/text.h"
#include "simulator/host/kept_key.h"
#include "simulator/import_patch.h"
#include "tests/hosts/child_process.h"
#include "tests/hosts/host_workspace.h"

namespace hosts {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr char kOfFolder[] = "D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)";
constexpr char kOfKey[] = "D:P(A;CI;KA;;;SY)(A;CI;KA;;;BA)(A;CI;KR;;;BU)";

std::string TextOf(PSECURITY_DESCRIPTOR descriptor) {
  wchar_t* text = nullptr;
  ::ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1,
                                                         DACL_SECURITY_INFORMATION, &text, nullptr);
  std::string utf8 = text == nullptr ? "" : ToUtf8(text);
  ::LocalFree(text);
  return utf8;
}

/// What the system was asked for: permissions by the folder's name, and those of the key.
std::map<std::wstring, std::string> g_folders;
std::vector<std::string> g_keys;
DWORD g_refusal = ERROR_SUCCESS;

DWORD WINAPI RecordFolder(LPWSTR name, SE_OBJECT_TYPE type, SECURITY_INFORMATION what, PSID, PSID, PACL list,
                          PACL) {
  EXPECT_EQ(type, SE_FILE_OBJECT);
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

/// A program's folder of the test's own, in which the code under test takes itself to be.
std::wstring g_program;

DWORD WINAPI TellProgram(HMODULE, LPWSTR buffer, DWORD size) {
  return static_cast<DWORD>(g_program.copy(buffer, size));
}

class PermissionsTest : public testing::Test {
 protected:
  PermissionsTest() {
    g_folders.clear();
    g_keys.clear();
    g_refusal = ERROR_SUCCESS;
    g_program = workspace.Service().wstring();
    workspace.SetServiceKey(ToWide(key.Location().Text()));
    m_Patch.Replace("SetNamedSecurityInfoW", &RecordFolder);
    m_Patch.Replace("RegSetKeySecurity", &RecordKey);
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
  EXPECT_EQ(warnings[0],
            "Users may write " + ToUtf8(workspace.File(L"CorvelConfig.ini").wstring()) +
                ": whoever does has the rights of the service, or flashes an image of their own. Take "
                "that permission from them.");
  EXPECT_THAT(warnings[1], HasSubstr("modem.fls"));
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
