// A host of the library that uses every kind of thing that crosses the border between the two: each has a C++
// runtime of its own linked in. Prints what is wrong; the exit status is 0 when nothing is.
//
// usage: corvel_cmdline_consumer FOLDER
//        FOLDER is where it writes a document.

#include <cstdio>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <windows.h>

#include <msxml.h>
#include <objbase.h>

#include <corvel/common/mutex.h>
#include <corvel/common/tstring.h>
#include <corvel/toolkit/toolkit.h>
#include <corvel/xmlfile/xmlfile.h>

namespace {

using QUENTA::Brevant::Interfaces::ToolkitCore::CXMLFile;
using QUENTA::Brevant::Interfaces::ToolkitCore::XML_NAME_VALUE;

// Longer than what a text holds without memory of its own.
constexpr wchar_t kLongText[] = L"a text that is too long for the space inside of an object";
constexpr char kLongNarrowText[] = "a text that is too long for the space inside of an object";

int g_failures = 0;

void Expect(bool good, const char* what) {
  if (good) return;
  std::printf("wrong: %s\n", what);
  ++g_failures;
}

void TextsGoBothWays() {
  // Memory of the host's texts goes in and is freed here, that of the library's comes out and is freed here.
  CTString text(std::wstring{kLongText});
  text += std::wstring(kLongText).c_str();
  CTString copy = text;
  copy.Replace(0, 1, CTString(kLongNarrowText));
  text = copy + CTString("!");
  const std::wstring wide = text;
  const std::string narrow = text;
  Expect(wide == std::wstring(kLongText) + (kLongText + 1) + kLongText + L"!",
         "a text that was put together");
  Expect(narrow.size() == wide.size(), "the same text in UTF-8");

  int position = 0;
  const std::string token = ToolKit::Tokenize(kLongNarrowText, ";", position);
  Expect(token == kLongNarrowText, "a token");
  Expect(ToolKit::IsFileOfType(CTString(L"C:\\folder\\image.FLS"), CTString(L".fls")),
         "texts given by value");

  const std::wstring folder = ToolKit::GetInstallationDir();
  Expect(!folder.empty() && folder.back() == L'\\', "the folder of the host");
}

void ExceptionsAreCaught() {
  bool caught = false;
  try {
    CTString(L"ab").SubStr(3, 1);
  } catch (const std::out_of_range&) {
    caught = true;
  }
  Expect(caught, "the exception of a position beyond the text");
}

void DataIsShared() {
  Expect(ToolKit::mRetry_times == 3, "the retries at the start");
  Expect(ToolKit::m_EraseMode == 2 && ToolKit::GetEraseMode() == 2, "the erase mode");
  Expect(ToolKit::mFlashResult == FirmwareNotUpdated, "the result at the start");
  ToolKit::m_NVMFlsFile = CTString(kLongText);
  Expect(ToolKit::GetNVMFlsFile() == kLongText, "a path that the host sets");
  ToolKit::m_NVMFlsFile.Empty();
  Expect(ToolKit::Initialize_CmdLine() && std::wstring(ToolKit::GetRegistryStrKey()) == ToolKit::mStrKey,
         "the key of the command line");
}

void MutexIsOwned() {
  CMutex mutex(false, nullptr, true, nullptr);
  Expect(SUCCEEDED(mutex.Lock(0)), "a mutex that nobody owns");
  Expect(SUCCEEDED(mutex.Unlock()), "a mutex that the host owns");
}

void RecordsAreKeptByTheHost() {
  constexpr int kRecords = 20;
  std::vector<XML_NAME_VALUE> records;
  records.reserve(kRecords);
  for (int i = 0; i < kRecords; ++i) records.emplace_back(CTString(kLongText), CTString(i), VT_UI2);
  XML_NAME_VALUE moved(std::move(records.front()));
  records.front() = records.back();
  records.back() = std::move(moved);
  Expect(records.front().Value().uiVal == kRecords - 1 && records.back().Value().uiVal == 0,
         "records that changed places");
  Expect(records.back().Name() == kLongText, "the name of a record");
}

void DocumentsAreWritten(const std::wstring& path) {
  CXMLFile file{CTString(path)};
  IXMLDOMNode* root = nullptr;
  Expect(SUCCEEDED(file.CreateRootNode(CTString(L"modems"), &root)), "a document");
  if (root == nullptr) return;
  const std::vector<XML_NAME_VALUE> records{{CTString(L"name"), CTString(kLongText), VT_BSTR},
                                            {CTString(L"port"), CTString(L"7"), VT_UI2}};
  Expect(SUCCEEDED(file.CreateNodes(records, root)), "children from a vector of the host's");
  Expect(SUCCEEDED(file.SaveDocumentToFile()), "the document's file");
  root->Release();

  CXMLFile read{CTString(path)};
  IXMLDOMElement* element = nullptr;
  Expect(SUCCEEDED(read.GetRootNode(&element)) && read.GetNodesCount() == 2, "the document read again");
}

}  // namespace

int main(int count, char** words) {
  if (count != 2) {
    std::printf("usage: corvel_cmdline_consumer FOLDER\n");
    return 2;
  }
  TextsGoBothWays();
  ExceptionsAreCaught();
  DataIsShared();
  MutexIsOwned();
  RecordsAreKeptByTheHost();
  if (SUCCEEDED(::CoInitializeEx(nullptr, COINIT_MULTITHREADED))) {
    const std::string folder = words[1];
    DocumentsAreWritten(std::wstring(folder.begin(), folder.end()) + L"\\consumer.xml");
    ::CoUninitialize();
  } else {
    Expect(false, "COM");
  }
  if (g_failures == 0) std::printf("all good\n");
  return g_failures == 0 ? 0 : 1;
}
