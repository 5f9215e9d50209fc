#pragma once

#include <windows.h>

#include <msxml.h>
#include <wrl/client.h>

#include <map>
#include <string>
#include <vector>

#include "simulator/import_patch.h"

/// What one made-up node is.
struct FakeNodeData {
  DOMNodeType type = NODE_ELEMENT;
  std::wstring name;
  std::wstring value;
  std::vector<FakeNodeData> children;
};

/// A document object model without documents, behind the interfaces of the real one, in the library's
/// CoCreateInstance for as long as it lives. Reading shows a made-up document; what is written is forgotten.
/// Every call succeeds until the test says otherwise. The simulator leaves documents to the system.
class FakeDom {
 public:
  FakeDom();
  ~FakeDom();
  FakeDom(const FakeDom&) = delete;
  FakeDom& operator=(const FakeDom&) = delete;

  /// From now on calls of this name give this result and no object.
  void Answer(const std::string& call, HRESULT result) { m_Answers[call] = result; }
  /// Of the calls from now on, only the one with this number (from 1) fails.
  void FailCallNumber(int number);
  bool HasFailed() const { return m_HasFailed; }
  /// From now on values, those of attributes included, are of this type instead of text.
  void GiveValuesOfType(VARTYPE type) { m_ValueType = type; }

  /// From now on texts are null pointers, which stand for empty ones.
  void GiveNullTexts() { m_GivesNullTexts = true; }
  /// From now on saving writes the beginning of a file, before whatever result it gives.
  void BeginAFileWhenSaving() { m_BeginsFiles = true; }

  /// An element and a list of two elements to work on.
  Microsoft::WRL::ComPtr<IXMLDOMNode> Element();
  Microsoft::WRL::ComPtr<IXMLDOMNodeList> List();

  /// Objects that somebody still holds a reference to.
  int LivingObjects() const { return m_Living; }
  const std::vector<std::string>& Calls() const { return m_Calls; }

  struct Creation {
    CLSID classId;
    DWORD context;
    IID interfaceId;
  };
  const std::vector<Creation>& Creations() const { return m_Creations; }

  // For the made-up objects.
  HRESULT Play(const std::string& call);
  VARTYPE ValueType() const { return m_ValueType; }
  BSTR NewText(const std::wstring& text) const;
  bool BeginsFiles() const { return m_BeginsFiles; }
  const FakeNodeData& Document() const { return m_Document; }
  void CountObject(int change) { m_Living += change; }

  /// The result that FailCallNumber uses, and tests may.
  static constexpr HRESULT kRefused = static_cast<HRESULT>(0x8000BEEFu);

 private:
  static HRESULT WINAPI Create(REFCLSID classId, IUnknown* outer, DWORD context, REFIID interfaceId,
                               void** object);

  static inline FakeDom* s_current = nullptr;

  std::map<std::string, HRESULT> m_Answers;
  int m_CallsUntilFailure = 0;
  bool m_HasFailed = false;
  VARTYPE m_ValueType = VT_BSTR;
  bool m_GivesNullTexts = false;
  bool m_BeginsFiles = false;
  int m_Living = 0;
  std::vector<std::string> m_Calls;
  std::vector<Creation> m_Creations;
  FakeNodeData m_Document;
  simulator::ImportPatch m_Patch{::GetModuleHandleW(L"toolkit_internals.dll")};
};
