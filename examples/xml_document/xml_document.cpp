// Writes a small XML document through CorvelToolKit.dll and reads it back.
//
// usage: corvel_cmdline_xml_example FILE
//
// Mind the program's name: loading the library starts the flash service in its process, unless the path of
// the executable contains "\corvel_cmdline". A host that wants no service is to be named that way.

#include <cstdio>

#include <windows.h>

#include <msxml.h>
#include <objbase.h>
#include <wrl/client.h>

#include <corvel/common/tstring.h>
#include <corvel/xmlfile/xmlfile.h>

namespace {

using Microsoft::WRL::ComPtr;
using QUENTA::Brevant::Interfaces::ToolkitCore::CXMLFile;
using QUENTA::Brevant::Interfaces::ToolkitCore::XML_NAME_VALUE;

/// COM for the calling thread. It must stay until the last document and node are gone.
class ComScope {
 public:
  ComScope() : m_Entered(SUCCEEDED(::CoInitializeEx(nullptr, COINIT_MULTITHREADED))) {}
  ~ComScope() {
    if (m_Entered) ::CoUninitialize();
  }
  ComScope(const ComScope&) = delete;
  ComScope& operator=(const ComScope&) = delete;
  bool Entered() const { return m_Entered; }

 private:
  bool m_Entered;
};

/// <modems><modem id="1"><name>..</name><port>..</port></modem><modem id="2">..</modem></modems>
HRESULT Write(const CTString& path) {
  CXMLFile file(path);
  ComPtr<IXMLDOMNode> modems;
  HRESULT result = file.CreateRootNode(L"modems", modems.GetAddressOf());
  if (FAILED(result)) return result;

  ComPtr<IXMLDOMNode> first;
  result = file.CreateAttributeNode(L"modem", L"id", L"1", modems.Get(), first.GetAddressOf());
  if (FAILED(result)) return result;
  // Many children at once. The texts of such records are never freed, so keep them for fixed values.
  result = file.CreateNodes({{L"name", L"CDP-7", VT_BSTR}, {L"port", L"7", VT_UI2}}, first.Get());
  if (FAILED(result)) return result;

  ComPtr<IXMLDOMNode> second;
  result = file.CreateAttributeNode(L"modem", L"id", L"2", modems.Get(), second.GetAddressOf());
  if (FAILED(result)) return result;
  // Texts that vary go in one by one. Whatever they hold, they come back the same.
  result = file.CreateTextNode(L"name", L"R&D <prototype>", second.Get(), nullptr);
  if (FAILED(result)) return result;
  return file.SaveDocumentToFile();
}

/// The name of the modem with the id.
HRESULT Read(const CTString& path, const CTString& id, CTString& name) {
  CXMLFile file(path);
  // The root stays the file object's own: it is not released here.
  IXMLDOMElement* modems = nullptr;
  HRESULT result = file.GetRootNode(&modems);
  if (FAILED(result)) return result;

  ComPtr<IXMLDOMNodeList> all;
  long count = 0;
  result = file.GetChildNodesOfNode(modems, all.GetAddressOf(), count);
  if (FAILED(result)) return result;
  ComPtr<IXMLDOMNode> modem;
  result = file.FindNodeWithAttributeValue(all.Get(), L"id", id, modem.GetAddressOf());
  // A search without match succeeds, too.
  if (FAILED(result) || modem == nullptr) return E_FAIL;

  ComPtr<IXMLDOMNodeList> properties;
  result = file.GetChildNodesOfNode(modem.Get(), properties.GetAddressOf(), count);
  if (FAILED(result)) return result;
  for (int i = 0; i < static_cast<int>(count); ++i) {
    ComPtr<IXMLDOMNode> property;
    if (file.IsNthNodeAnElementWithName(i, L"name", property.GetAddressOf(), properties.Get())) {
      return file.GetTextForNode(property.Get(), name);
    }
  }
  return E_FAIL;
}

int Failed(const char* what, HRESULT result) {
  std::fprintf(stderr, "%s: error %08x\n", what, static_cast<unsigned>(result));
  return 1;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  if (argc != 2) {
    std::fputs("usage: corvel_cmdline_xml_example FILE\n", stderr);
    return 2;
  }
  const ComScope com;
  if (!com.Entered()) return Failed("COM is not available", E_FAIL);

  const CTString path(argv[1]);
  HRESULT result = Write(path);
  if (FAILED(result)) return Failed("The document was not written", result);

  CTString name;
  result = Read(path, L"2", name);
  if (FAILED(result)) return Failed("The document was not read", result);
  std::printf("modem 2: %s\n", static_cast<const char*>(name));
  return name == L"R&D <prototype>" ? 0 : 1;
}
