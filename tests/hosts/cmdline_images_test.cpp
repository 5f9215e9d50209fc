// Which images there are, and flashes of images that lie somewhere else.

#include <fstream>

#include "hosts/common/file_digest.h"
#include "hosts/common/text.h"
#include "hosts/common/who_flashes.h"
#include "tests/hosts/cmdline_test.h"

namespace hosts {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

// --- The verb "images" -------------------------------------------------------------------------------------

class ImagesTest : public CommandLineTest {
 protected:
  nlohmann::json Images(int exitCode = 0) const {
    const RunResult result = RunHost({L"images", L"--json"});
    EXPECT_EQ(result.exitCode, exitCode);
    EXPECT_THAT(result.errors, IsEmpty());
    return Document(result.output);
  }
  nlohmann::json Image(const nlohmann::json& document, const std::string& name) const {
    for (const nlohmann::json& image : document["images"]) {
      if (image["name"] == name) return image;
    }
    return {};
  }
};

TEST_F(ImagesTest, TellsSizeKindAndDigestOfEach) {
  const nlohmann::json document = Images();
  EXPECT_EQ(document["folder"], ToUtf8(workspace.ImageFolder().wstring()));
  ASSERT_EQ(document["images"].size(), 2u);
  const nlohmann::json modem = Image(document, "modem.fls");
  EXPECT_EQ(modem["path"], ToUtf8(workspace.ModemImage().wstring()));
  EXPECT_EQ(modem["bytes"], std::filesystem::file_size(workspace.ModemImage()));
  EXPECT_EQ(modem["kind"], "modem");
  EXPECT_EQ(modem["taken"], true);
  EXPECT_EQ(modem["sha256"], DigestOf(workspace.ModemImage().wstring()).sha256);
  EXPECT_EQ(Image(document, "nvm.fls")["kind"], "nvm");
  EXPECT_EQ(document["why_not_read"], "");
}

TEST_F(ImagesTest, TellsWhichOfAKindIsTaken) {
  std::ofstream(workspace.File(L"firmware\\another.fls")) << "an image";
  const nlohmann::json document = Images();
  EXPECT_EQ(Image(document, "another.fls")["taken"], false);
  EXPECT_EQ(Image(document, "nvm.fls")["taken"], true);
  EXPECT_THAT(RunHost({L"images"}).output, HasSubstr("another.fls\r\n"
                                                     "  NVM image, 8 bytes, not taken: nvm.fls is\r\n"
                                                     "  SHA-256 "));
}

/// Whoever flashes opens them with nobody else beside it.
TEST_F(ImagesTest, OpensNoneWhileSomebodyFlashes) {
  const CommandLineClaim flash;
  const OwnedHandle holder(::CreateFileW(workspace.ModemImage().c_str(), GENERIC_READ, 0, nullptr,
                                         OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  const nlohmann::json document = Images();
  EXPECT_EQ(document["why_not_read"], "A corvel_cmdline is flashing already");
  EXPECT_EQ(Image(document, "nvm.fls")["sha256"], "");
}

TEST_F(ImagesTest, OpensNoneWhenAskedNotTo) {
  const OwnedHandle holder(::CreateFileW(workspace.ModemImage().c_str(), GENERIC_READ, 0, nullptr,
                                         OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  const RunResult result = RunHost({L"images", L"--no-digests"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output,
              AllOf(Not(HasSubstr("SHA-256")), HasSubstr("No digests: --no-digests was given.")));
}

TEST_F(ImagesTest, TellsOfOneThatSomebodyHolds) {
  const OwnedHandle holder(::CreateFileW(workspace.ModemImage().c_str(), GENERIC_READ, FILE_SHARE_READ,
                                         nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  const nlohmann::json document = Images(4);
  EXPECT_EQ(document["error"]["code"], "image_unreadable");
  EXPECT_EQ(Image(document, "modem.fls")["problem"], SystemErrorText(ERROR_SHARING_VIOLATION));
  EXPECT_EQ(Image(document, "nvm.fls")["problem"], "");
}

TEST_F(ImagesTest, EndsAsAFlashWouldWithoutImages) {
  workspace.Remove(L"firmware\\modem.fls");
  workspace.Remove(L"firmware\\nvm.fls");
  EXPECT_EQ(Images(3)["error"]["code"], "no_images");
  workspace.Remove(L"firmware");
  EXPECT_EQ(Images(3)["error"]["code"], "no_folder");
  workspace.RemoveLine("[ModemAndNVMFirmwareFolder]=");
  EXPECT_EQ(Images(4)["error"]["code"], "no_folder_configured");
  workspace.Remove(L"CorvelConfig.ini");
  EXPECT_EQ(Images(4)["error"]["code"], "no_configuration");
}

TEST_F(ImagesTest, OpensNoConfigurationWhileAServiceStarts) {
  workspace.MakeVirtualPc({"service-starts=1"});
  EXPECT_EQ(Images(4)["error"]["code"], "service_starting");
}

// --- Flashes of images from somewhere else -----------------------------------------------------------------

class FlashOfChosenImagesTest : public CommandLineTest {
 protected:
  void SetUp() override {
    for (const auto& image : {workspace.ModemImage(), workspace.NvmImage()}) {
      std::filesystem::rename(image, originals.Path() / image.filename());
    }
  }
  RunResult Flash(const Arguments& images) const {
    Arguments arguments{L"flash", L"--json", L"--images"};
    arguments.insert(arguments.end(), images.begin(), images.end());
    return RunHost(arguments);
  }
  void ExpectRefusal(const Arguments& images, const std::string& code, int exitCode = 4) const {
    const RunResult result = Flash(images);
    EXPECT_EQ(result.exitCode, exitCode);
    EXPECT_EQ(ErrorCode(result.output), code) << result.output;
    EXPECT_TRUE(OriginalsAreThere());
    EXPECT_FALSE(key.Exists());
    EXPECT_FALSE(workspace.Holds(L"FlashCommandLineLogger_DLL.log"));
  }
  bool OriginalsAreThere() const { return originals.Holds(L"modem.fls") && originals.Holds(L"nvm.fls"); }
  std::vector<std::wstring> NamesInFolder() const {
    std::vector<std::wstring> names;
    for (const auto& entry : std::filesystem::directory_iterator(workspace.ImageFolder())) {
      names.push_back(entry.path().filename().wstring());
    }
    return names;
  }
  std::wstring Modem() const { return originals.File(std::wstring(L"modem.fls")); }
  std::wstring Nvm() const { return originals.File(std::wstring(L"nvm.fls")); }

  TemporaryFolder originals{L" of images"};
};

TEST_F(FlashOfChosenImagesTest, WritesThoseOfAFolderAndLeavesThemThere) {
  workspace.MakeVirtualPc({"speed=200"});
  const RunResult result = RunHost({L"flash", L"--images", originals.Path().wstring()});
  EXPECT_EQ(result.exitCode, 0) << result.errors;
  EXPECT_THAT(result.output, HasSubstr("The copies were deleted, the originals are where they were."));
  EXPECT_TRUE(OriginalsAreThere());
  EXPECT_THAT(NamesInFolder(), IsEmpty());
  const simulator::MemoryComparison comparison = workspace.CompareModemMemory();
  EXPECT_TRUE(comparison.equal) << comparison.difference;
}

TEST_F(FlashOfChosenImagesTest, WritesFilesThatMayOnlyBeRead) {
  workspace.MakeVirtualPc({"speed=200"});
  ::SetFileAttributesW(Nvm().c_str(), FILE_ATTRIBUTE_READONLY);
  const RunResult result = Flash({Modem(), Nvm()});
  ::SetFileAttributesW(Nvm().c_str(), FILE_ATTRIBUTE_NORMAL);
  EXPECT_EQ(result.exitCode, 0) << result.output;
  EXPECT_EQ(Document(result.output)["images_deleted"], true);
  EXPECT_TRUE(OriginalsAreThere());
  EXPECT_TRUE(workspace.CompareModemMemory().equal);
}

TEST_F(FlashOfChosenImagesTest, CanBeRepeatedAfterAFailure) {
  key.Write(L"Retry_Times", 0);
  workspace.MakeVirtualPc({"speed=200", "scenario=download-fails-default-limit"});
  const RunResult result = RunHost({L"flash", L"--images", originals.Path().wstring()});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.output, HasSubstr("The originals are where they were: run the flash again."));
  EXPECT_TRUE(OriginalsAreThere());
  EXPECT_THAT(NamesInFolder(), IsEmpty());
}

TEST_F(FlashOfChosenImagesTest, GoesOnWithWhatARunThatWasKilledHasLeft) {
  workspace.MakeVirtualPc({"speed=200"});
  std::filesystem::copy_file(Modem(), workspace.ModemImage());
  const std::wstring draft = workspace.File(L"firmware\\nvm.fls.copying").wstring();
  std::ofstream(std::filesystem::path(draft)) << "half";
  // As an image of a disc is copied.
  ASSERT_TRUE(::SetFileAttributesW(draft.c_str(), FILE_ATTRIBUTE_READONLY));
  EXPECT_EQ(Flash({originals.Path().wstring()}).exitCode, 0);
  EXPECT_THAT(NamesInFolder(), IsEmpty());
  EXPECT_TRUE(workspace.CompareModemMemory().equal);
}

TEST_F(FlashOfChosenImagesTest, RefusesAFolderThatHoldsOthers) {
  std::ofstream(workspace.NvmImage()) << "another image";
  ExpectRefusal({originals.Path().wstring()}, "folder_holds_images");
  EXPECT_THAT(NamesInFolder(), testing::ElementsAre(L"nvm.fls"));
  EXPECT_EQ(workspace.Content(L"firmware\\nvm.fls"), "another image");
  std::filesystem::rename(workspace.NvmImage(), workspace.File(L"firmware\\other.fls"));
  ExpectRefusal({originals.Path().wstring()}, "folder_holds_images");
}

TEST_F(FlashOfChosenImagesTest, RefusesThoseThatItWouldDelete) {
  std::filesystem::copy_file(Modem(), workspace.ModemImage());
  ExpectRefusal({workspace.ModemImage().wstring()}, "folder_holds_images");
  EXPECT_TRUE(std::filesystem::exists(workspace.ModemImage()));
}

TEST_F(FlashOfChosenImagesTest, RefusesAChoiceThatIsNone) {
  ExpectRefusal({originals.File(std::wstring(L"none.fls"))}, "no_such_image", 3);
  ExpectRefusal({workspace.ImageFolder().wstring()}, "no_such_image", 3);
  ExpectRefusal({Modem(), workspace.ImageFolder().wstring()}, "no_such_image", 3);
  originals.Write(L"notes.txt", "no image");
  ExpectRefusal({originals.File(std::wstring(L"notes.txt"))}, "no_such_image", 3);
}

TEST_F(FlashOfChosenImagesTest, RefusesMoreThanOneOfAKind) {
  originals.Write(L"second.fls", "an image");
  ExpectRefusal({originals.Path().wstring()}, "several_images");
  ExpectRefusal({Nvm(), Nvm()}, "several_images");
  originals.Write(L"second.fls", "");
  ExpectRefusal({originals.Path().wstring()}, "image_empty");
}

TEST_F(FlashOfChosenImagesTest, RefusesTwoOfOneName) {
  const TemporaryFolder others;
  std::filesystem::copy_file(Nvm(), others.File(std::wstring(L"MODEM.fls")));
  ExpectRefusal({Modem(), others.File(std::wstring(L"MODEM.fls"))}, "same_name");
}

TEST_F(FlashOfChosenImagesTest, RefusesOneThatCannotBeRead) {
  const OwnedHandle holder(::CreateFileW(Nvm().c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                         FILE_ATTRIBUTE_NORMAL, nullptr));
  ExpectRefusal({originals.Path().wstring()}, "image_unreadable");
}

TEST_F(FlashOfChosenImagesTest, RefusesOneThatIsNotTheOneThatWasMeant) {
  const std::wstring list = originals.Write(
      L"SHA256SUMS", DigestOf(Nvm()).sha256 + "  nvm.fls\n" + std::string(64, 'a') + "  modem.fls\n");
  ExpectRefusal({originals.Path().wstring(), L"--expect", list}, "image_differs");
  EXPECT_THAT(NamesInFolder(), IsEmpty());
  ExpectRefusal({originals.Path().wstring(), L"--expect", Nvm()}, "no_digests");
}

/// All of that is looked at before anything is copied.
TEST_F(FlashOfChosenImagesTest, RefusesWhatAnyFlashRefuses) {
  workspace.MakeVirtualPc({"battery=10"});
  ExpectRefusal({originals.Path().wstring(), L"--min-battery", L"40"}, "battery_low");
  EXPECT_THAT(NamesInFolder(), IsEmpty());
  workspace.Remove(L"firmware");
  ExpectRefusal({originals.Path().wstring()}, "no_folder", 3);
}

/// The looks: for a service that flashes and for one that uses the folder, before anything, before the
/// copying and before the request.
TEST_F(FlashOfChosenImagesTest, TakesTheCopiesBackWhenItDoesNotComeToAFlash) {
  for (const char* const starts : {"service-starts=1", "service-starts=3", "service-starts=5"}) {
    workspace.MakeVirtualPc({starts});
    const RunResult result = Flash({originals.Path().wstring()});
    EXPECT_EQ(ErrorCode(result.output), "service_starting") << starts << result.output;
    EXPECT_THAT(NamesInFolder(), IsEmpty()) << starts;
    EXPECT_TRUE(OriginalsAreThere());
  }
}

TEST_F(FlashOfChosenImagesTest, WaitsForNoControllingProgram) {
  EXPECT_EQ(Flash({originals.Path().wstring(), L"--wait-for-controller"}).exitCode, 2);
}

TEST_F(FlashOfChosenImagesTest, LeavesTheOriginalsWhenItIsInterrupted) {
  workspace.MakeVirtualPc({"speed=1"});
  ChildProcess host(workspace.CommandLineHost(), {L"flash", L"--images", originals.Path().wstring()});
  ASSERT_TRUE(host.Says("into flash mode"));
  ASSERT_TRUE(host.Interrupt());
  ASSERT_TRUE(host.Says("Press Ctrl+C once more"));
  ASSERT_TRUE(host.Interrupt());
  EXPECT_EQ(host.WaitForEnd(), 5);
  EXPECT_TRUE(OriginalsAreThere());
  EXPECT_THAT(NamesInFolder(), IsEmpty()) << host.Errors();
}

}  // namespace

}  // namespace hosts
