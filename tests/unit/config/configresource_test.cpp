#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>

#include "common/handles.h"
#include "config/configparser.h"
#include "simulator/import_patch.h"
#include "support/fake_dom.h"
#include "support/temporary_folder.h"
#include "support/test_log.h"
#include "support/xml_files.h"

using corvel::UniqueHandle;
using corvel::Utf8FromWide;

namespace {

using testing::ElementsAre;
using testing::IsSupersetOf;
using testing::Pair;

/// A configuration without settings: only its resources are looked at.
class ResourceTest : public testing::Test {
 protected:
  ResourceTest() : config(CConfigParser::GetInstance_CmdLine()) {}
  ~ResourceTest() override { CConfigParser::ReleaseInstance(); }

  std::vector<std::string> Errors() const {
    std::vector<std::string> errors;
    for (const LogRecord& record : log.Records()) {
      if (record.level == "Error") errors.push_back(record.message);
    }
    return errors;
  }

  TemporaryFolder folder;
  TestLog log;
  CConfigParser* config;
};

// Reading.

TEST_F(ResourceTest, NamesAndTextsAreKept) {
  const std::wstring path = folder.Write(L"r.xml", "<r><a>1</a><b>true</b></r>");
  EXPECT_FALSE(config->IsResourceLoaded());
  EXPECT_TRUE(config->LoadResource(path.c_str()));
  EXPECT_TRUE(config->IsResourceLoaded());
  EXPECT_THAT(config->Resources().Entries(), ElementsAre(Pair(L"a", L"1"), Pair(L"b", L"true")));
  EXPECT_TRUE(config->Resources().GetBoolean(L"b", false));
  ASSERT_EQ(log.Records().size(), 1u);
  EXPECT_EQ(log.Records()[0].level, "Trace");
  EXPECT_EQ(log.Records()[0].function, "CConfigParser::LoadResource");
  EXPECT_EQ(log.Records()[0].file, "configparser.cpp");
  EXPECT_EQ(log.Records()[0].message, "Start LoadResource");
}

TEST_F(ResourceTest, AMissingFileIsReported) {
  const std::wstring path = folder.File(L"missing.xml");
  EXPECT_FALSE(config->LoadResource(path.c_str()));
  EXPECT_FALSE(config->IsResourceLoaded());
  EXPECT_THAT(Errors(), ElementsAre("Could not Open " + Utf8FromWide(path)));
}

TEST_F(ResourceTest, AFileThatAnotherProgramHoldsIsReported) {
  const std::wstring path = folder.Write(L"held.xml", "<r/>");
  const UniqueHandle held(::CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  EXPECT_FALSE(config->LoadResource(path.c_str()));
  EXPECT_THAT(Errors(), ElementsAre("Could not Open " + Utf8FromWide(path)));
}

TEST_F(ResourceTest, AFileWhoseNameCannotBePrintedIsReportedAllTheSame) {
  EXPECT_FALSE(config->LoadResource(folder.File(L"\u4E2D.xml").c_str()));
  EXPECT_THAT(Errors(), ElementsAre(testing::HasSubstr("Could not Open ")));
}

TEST_F(ResourceTest, AMalformedFileKeepsTheFormerResources) {
  ASSERT_TRUE(config->LoadResource(folder.Write(L"r.xml", "<r><a>1</a></r>").c_str()));
  EXPECT_FALSE(config->LoadResource(folder.Write(L"bad.xml", "<r><a>2</a>").c_str()));
  EXPECT_TRUE(config->IsResourceLoaded());
  EXPECT_THAT(config->Resources().Entries(), ElementsAre(Pair(L"a", L"1")));
}

TEST_F(ResourceTest, NoPathIsReported) {
  EXPECT_FALSE(config->LoadResource(nullptr));
  EXPECT_FALSE(config->SaveConfig(nullptr));
  EXPECT_THAT(Errors(), ElementsAre("Could not Open ", "Could not load "));
}

TEST_F(ResourceTest, InitializingForgetsThatResourcesWereLoaded) {
  ASSERT_TRUE(config->LoadResource(folder.Write(L"r.xml", "<r/>").c_str()));
  config->Init();
  EXPECT_FALSE(config->IsResourceLoaded());
}

// Rewriting.

class FormatTest : public ResourceTest, public testing::WithParamInterface<const wchar_t*> {};

TEST_P(FormatTest, GivesTheCheckedInBytes) {
  const std::wstring name = std::wstring(GetParam()) + L".xml";
  const std::wstring path = NewDocumentForTheBuildMachine(name);
  ASSERT_TRUE(::CopyFileW(CheckedInDocument(L"unformatted/" + name).c_str(), path.c_str(), FALSE));
  EXPECT_TRUE(config->SaveConfig(path.c_str()));
  EXPECT_EQ(SameWriting(ReadBytes(path)), ReadBytes(CheckedInDocument(L"formatted/" + name)));
  EXPECT_THAT(log.Said(), ElementsAre("Start SaveConfig"));
}

INSTANTIATE_TEST_SUITE_P(Documents, FormatTest,
                         testing::Values(L"one_line", L"formatted_already", L"ragged", L"delicate", L"latin1",
                                         L"no_declaration", L"entity"));

TEST_F(ResourceTest, Utf16BecomesUtf8) {
  const std::wstring path = folder.Write(
      L"u.xml", Utf16Bytes(L"<?xml version=\"1.0\" encoding=\"UTF-16\"?><r><t>\u20AC</t></r>", false));
  EXPECT_TRUE(config->SaveConfig(path.c_str()));
  EXPECT_THAT(
      SameWriting(ReadBytes(path)),
      testing::AnyOf("<?xml version=\"1.0\" encoding=\"UTF-8\"?><r>\n  <t>\xE2\x82\xAC</t>\n</r>\n",
                     "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<r>\n  <t>\xE2\x82\xAC</t>\n</r>\n"));
}

TEST_F(ResourceTest, DeepLinesAreNotIndentedWithoutEnd) {
  constexpr int kLevels = 100;
  std::string bytes;
  for (int i = 0; i < kLevels; ++i) bytes += "<a>";
  for (int i = 0; i < kLevels; ++i) bytes += "</a>";
  const std::wstring path = folder.Write(L"deep.xml", bytes);
  EXPECT_TRUE(config->SaveConfig(path.c_str()));
  const std::string written = ReadBytes(path);
  EXPECT_NE(written.find("\n" + std::string(80, ' ') + "<"), std::string::npos);
  EXPECT_EQ(written.find("\n" + std::string(81, ' ')), std::string::npos);
}

TEST_F(ResourceTest, NothingIsLeftBesideARewrittenFile) {
  const std::wstring path = folder.Write(L"r.xml", "<r><a/></r>");
  EXPECT_TRUE(config->SaveConfig(path.c_str()));
  EXPECT_FALSE(folder.Holds(L"r.xml.saving"));
}

TEST_F(ResourceTest, WhatAPowerCutLeftBehindIsOverwritten) {
  const std::wstring path = folder.Write(L"r.xml", "<r><a/></r>");
  folder.Write(L"r.xml.saving", "<half");
  EXPECT_TRUE(config->SaveConfig(path.c_str()));
  EXPECT_FALSE(folder.Holds(L"r.xml.saving"));
}

TEST_F(ResourceTest, ARewrittenResourceReadsTheSame) {
  const std::wstring path = folder.Write(L"r.xml", "<r><a> 1 </a><b>x &amp; y</b></r>");
  ASSERT_TRUE(config->LoadResource(path.c_str()));
  const CElementTree::Store before = config->Resources().Entries();
  ASSERT_TRUE(config->SaveConfig(path.c_str()));
  ASSERT_TRUE(config->LoadResource(path.c_str()));
  EXPECT_EQ(config->Resources().Entries(), before);
}

// Failures leave the old file whole.

BOOL WINAPI CannotMove(const wchar_t*, const wchar_t*, DWORD) {
  ::SetLastError(ERROR_ACCESS_DENIED);
  return FALSE;
}

/// As the system does it; under Wine an account that may do everything is not kept out by the attribute.
BOOL WINAPI CannotMoveOntoReadOnly(const wchar_t* from, const wchar_t* to, DWORD flags) {
  const DWORD attributes = ::GetFileAttributesW(to);
  if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_READONLY) == 0) {
    return ::MoveFileExW(from, to, flags);
  }
  ::SetLastError(ERROR_ACCESS_DENIED);
  return FALSE;
}

std::vector<std::string> g_steps;

BOOL WINAPI WatchFlush(HANDLE file) {
  g_steps.push_back("flush");
  return ::FlushFileBuffers(file);
}

BOOL WINAPI WatchMove(const wchar_t* from, const wchar_t* to, DWORD flags) {
  g_steps.push_back("move");
  return ::MoveFileExW(from, to, flags);
}

BOOL WINAPI CannotFlush(HANDLE) {
  ::SetLastError(ERROR_DISK_FULL);
  return FALSE;
}

HANDLE WINAPI CannotOpen(const wchar_t*, DWORD, DWORD, SECURITY_ATTRIBUTES*, DWORD, DWORD, HANDLE) {
  ::SetLastError(ERROR_SHARING_VIOLATION);
  return INVALID_HANDLE_VALUE;
}

class SafeSavingTest : public ResourceTest {
 protected:
  void ExpectTheOldFile(const std::string& message) {
    EXPECT_FALSE(config->SaveConfig(path.c_str()));
    EXPECT_THAT(Errors(), ElementsAre(message + Utf8FromWide(path)));
    EXPECT_EQ(ReadBytes(path), kOld);
    EXPECT_FALSE(folder.Holds(L"r.xml.saving"));
  }

  static constexpr const char* kOld = "<r><a/></r>";
  std::wstring path = folder.Write(L"r.xml", kOld);
  simulator::ImportPatch patch{::GetModuleHandleW(L"toolkit_internals.dll")};
};

TEST_F(SafeSavingTest, TheNewFileIsOnTheDiskBeforeItTakesThePlaceOfTheOld) {
  g_steps.clear();
  patch.Replace("FlushFileBuffers", &WatchFlush);
  patch.Replace("MoveFileExW", &WatchMove);
  EXPECT_TRUE(config->SaveConfig(path.c_str()));
  EXPECT_THAT(g_steps, ElementsAre("flush", "move"));
}

TEST_F(SafeSavingTest, WhenItCannotBeReplaced) {
  patch.Replace("MoveFileExW", &CannotMove);
  ExpectTheOldFile("Could not save ");
}

TEST_F(SafeSavingTest, WhenTheNewOneCannotBeFlushed) {
  patch.Replace("FlushFileBuffers", &CannotFlush);
  ExpectTheOldFile("Could not save ");
}

TEST_F(SafeSavingTest, WhenTheNewOneCannotBeOpenedForFlushing) {
  patch.Replace("CreateFileW", &CannotOpen);
  ExpectTheOldFile("Could not save ");
}

TEST_F(SafeSavingTest, WhenTheNewOneCannotBeWritten) {
  std::filesystem::create_directory(path + L".saving");
  EXPECT_FALSE(config->SaveConfig(path.c_str()));
  EXPECT_THAT(Errors(), ElementsAre("Could not save " + Utf8FromWide(path)));
  EXPECT_EQ(ReadBytes(path), kOld);
}

TEST_F(SafeSavingTest, WhenTheOldOneIsReadOnly) {
  patch.Replace("MoveFileExW", &CannotMoveOntoReadOnly);
  ::SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_READONLY);
  ExpectTheOldFile("Could not save ");
  EXPECT_NE(::GetFileAttributesW(path.c_str()) & FILE_ATTRIBUTE_READONLY, 0u);
  ::SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
}

TEST_F(SafeSavingTest, WhenAnotherProgramReadsTheOldOne) {
  const UniqueHandle reader(
      ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
  ASSERT_NE(reader.get(), INVALID_HANDLE_VALUE);
  ExpectTheOldFile("Could not save ");
}

TEST_F(SafeSavingTest, WhenAnotherProgramHoldsTheOldOne) {
  {
    const UniqueHandle held(::CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_FALSE(config->SaveConfig(path.c_str()));
  }
  EXPECT_THAT(Errors(), ElementsAre("Could not load " + Utf8FromWide(path)));
  EXPECT_EQ(ReadBytes(path), kOld);
}

TEST_F(SafeSavingTest, WhenTheOldOneIsMalformed) {
  folder.Write(L"r.xml", "<r><a>");
  EXPECT_FALSE(config->SaveConfig(path.c_str()));
  EXPECT_THAT(Errors(), ElementsAre("Could not load " + Utf8FromWide(path)));
  EXPECT_EQ(ReadBytes(path), "<r><a>");
}

TEST_F(SafeSavingTest, AMissingFileIsNotMade) {
  const std::wstring missing = folder.File(L"missing.xml");
  EXPECT_FALSE(config->SaveConfig(missing.c_str()));
  EXPECT_THAT(Errors(), ElementsAre("Could not load " + Utf8FromWide(missing)));
  EXPECT_FALSE(folder.Holds(L"missing.xml"));
}

// A document object model that fails.

/// What an operation reports when one call of the document object model fails.
struct FailingStep {
  const char* name;
  const char* call;
  bool (CConfigParser::*act)(const wchar_t*);
  const char* message;
};

std::ostream& operator<<(std::ostream& out, const FailingStep& step) {
  return out << step.name;
}

const FailingStep kFailingSteps[] = {
    {"LoadResource_Create", "CoCreateInstance", &CConfigParser::LoadResource, "Could not Open x.xml"},
    {"LoadResource_Load", "load", &CConfigParser::LoadResource, "Could not Open x.xml"},
    {"LoadResource_Root", "get_documentElement", &CConfigParser::LoadResource,
     "Could not read the elements of x.xml: 8000beef"},
    {"LoadResource_Walk", "nextNode", &CConfigParser::LoadResource,
     "Could not read the elements of x.xml: 8000beef"},
    {"SaveConfig_Create", "CoCreateInstance", &CConfigParser::SaveConfig, "Could not load x.xml"},
    {"SaveConfig_Load", "load", &CConfigParser::SaveConfig, "Could not load x.xml"},
    {"SaveConfig_Text", "createTextNode", &CConfigParser::SaveConfig, "Failed to format the document x.xml"},
    {"SaveConfig_Indent", "insertBefore", &CConfigParser::SaveConfig, "Failed to format the document x.xml"},
    {"SaveConfig_Remove", "removeChild", &CConfigParser::SaveConfig, "Failed to format the document x.xml"},
    {"SaveConfig_Declaration", "createProcessingInstruction", &CConfigParser::SaveConfig,
     "Failed to format the document x.xml"},
    {"SaveConfig_Map", "get_attributes", &CConfigParser::SaveConfig, "Could not map child element"},
    {"SaveConfig_Encoding", "getNamedItem", &CConfigParser::SaveConfig, "Could not find encoding element"},
    {"SaveConfig_SetEncoding", "put_nodeValue", &CConfigParser::SaveConfig,
     "Could not set encoding element to UTF-8"},
    {"SaveConfig_Save", "save", &CConfigParser::SaveConfig, "Could not save x.xml"},
};

class FailingDomTest : public ResourceTest {
 protected:
  ~FailingDomTest() override {
    // The configuration's documents are made-up ones.
    CConfigParser::ReleaseInstance();
    EXPECT_EQ(dom.LivingObjects(), 0);
  }

  FakeDom dom;
};

class FailingStepTest : public FailingDomTest, public testing::WithParamInterface<FailingStep> {};

TEST_P(FailingStepTest, GivesOneRecordAndEndsTheOperation) {
  dom.Answer(GetParam().call, FakeDom::kRefused);
  EXPECT_FALSE((config->*GetParam().act)(L"x.xml"));
  EXPECT_THAT(Errors(), ElementsAre(GetParam().message));
}

INSTANTIATE_TEST_SUITE_P(EachStep, FailingStepTest, testing::ValuesIn(kFailingSteps),
                         [](const auto& row) { return row.param.name; });

TEST_F(FailingDomTest, ADeclarationThatIsNotFoundIsReported) {
  dom.Answer("get_firstChild", S_FALSE);
  EXPECT_FALSE(config->SaveConfig(L"x.xml"));
  EXPECT_THAT(Errors(), ElementsAre("Could not find child element"));
}

TEST_F(FailingDomTest, ADocumentWithoutARootIsReported) {
  dom.Answer("get_documentElement", S_FALSE);
  EXPECT_FALSE(config->LoadResource(L"x.xml"));
  EXPECT_FALSE(config->IsResourceLoaded());
  EXPECT_THAT(Errors(), ElementsAre("Could not read the elements of x.xml: 80004005"));
}

TEST_F(FailingDomTest, ADeclarationWithoutAnEncodingIsReported) {
  dom.Answer("getNamedItem", S_FALSE);
  EXPECT_FALSE(config->SaveConfig(L"x.xml"));
  EXPECT_THAT(Errors(), ElementsAre("Could not find encoding element"));
}

TEST_F(FailingDomTest, ADocumentWithoutARootIsNotFormatted) {
  dom.Answer("get_documentElement", S_FALSE);
  EXPECT_FALSE(config->SaveConfig(L"x.xml"));
  EXPECT_THAT(Errors(), ElementsAre("Failed to format the document x.xml"));
}

TEST_F(FailingDomTest, AnAttributeThatIsNoTextDoesNotAskForTheWhiteSpace) {
  const std::wstring path = folder.Write(L"r.xml", "<old/>");
  dom.BeginAFileWhenSaving();
  dom.GiveValuesOfType(VT_I8);
  EXPECT_TRUE(config->SaveConfig(path.c_str()));
  EXPECT_THAT(dom.Calls(), IsSupersetOf({"getAttribute", "insertBefore"}));
}

TEST_F(FailingDomTest, AFormattedDocumentThatIsNotLoadedIsReported) {
  // Two documents are made with five calls each and the first one's load between them.
  dom.FailCallNumber(12);
  EXPECT_FALSE(config->SaveConfig(L"x.xml"));
  EXPECT_EQ(dom.Calls().back(), "load");
  EXPECT_THAT(Errors(), ElementsAre("Failed to format the document x.xml"));
}

/// Repeats an operation, each time with the next one of its calls failing.
void FailEachCallOf(const std::function<bool()>& act, FakeDom& dom,
                    const std::function<std::vector<std::string>()>& errors) {
  std::size_t failures = 0;
  for (int number = 1;; ++number) {
    dom.FailCallNumber(number);
    const bool succeeded = act();
    if (!dom.HasFailed()) return;
    EXPECT_FALSE(succeeded) << "call " << number << ", " << dom.Calls().back();
    ++failures;
    EXPECT_EQ(errors().size(), failures) << "call " << number << ", " << dom.Calls().back();
  }
}

TEST_F(FailingDomTest, EachCallThatFailsEndsLoadingWithOneRecord) {
  FailEachCallOf([&] { return config->LoadResource(L"x.xml"); }, dom, [&] { return Errors(); });
  EXPECT_THAT(dom.Calls(), IsSupersetOf({"get_nodeName", "get_text"}));
}

TEST_F(FailingDomTest, EachCallThatFailsEndsSavingWithOneRecordAndTheOldFile) {
  const std::wstring path = folder.Write(L"r.xml", "<old/>");
  const auto save = [&] {
    const bool saved = config->SaveConfig(path.c_str());
    EXPECT_EQ(ReadBytes(path) == "<old/>", !saved);
    return saved;
  };
  dom.BeginAFileWhenSaving();
  FailEachCallOf(save, dom, [&] { return Errors(); });
  EXPECT_THAT(dom.Calls(), IsSupersetOf({"getAttribute", "get_nodeType", "save"}));
  EXPECT_EQ(ReadBytes(path), "<half") << "the run without failure saves what the made-up document is";
}

TEST_F(FailingDomTest, ASaveThatBreaksOffLeavesTheOldFileAndNoHalfOne) {
  const std::wstring path = folder.Write(L"r.xml", "<old/>");
  dom.BeginAFileWhenSaving();
  dom.Answer("save", STG_E_MEDIUMFULL);
  EXPECT_FALSE(config->SaveConfig(path.c_str()));
  EXPECT_EQ(ReadBytes(path), "<old/>");
  EXPECT_FALSE(folder.Holds(L"r.xml.saving"));
}

TEST_F(FailingDomTest, NeitherOperationFetchesOrValidates) {
  config->LoadResource(L"x.xml");
  config->SaveConfig(L"x.xml");
  // One document for the resources, two for the rewriting.
  for (const char* behaviour : {"put_async", "put_validateOnParse", "put_resolveExternals"}) {
    EXPECT_EQ(std::count(dom.Calls().begin(), dom.Calls().end(), std::string(behaviour) + " off"), 3)
        << behaviour;
  }
}

}  // namespace
