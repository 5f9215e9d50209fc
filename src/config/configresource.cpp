#include <string>

#include "common/handles.h"
#include "common/log.h"
#include "common/text.h"
#include "config/configparser.h"
#include "config/documentformat.h"

// %S is Microsoft's, and so is the function that prints it: no pedantry, but the types are checked.
#if defined(__GNUC__)
#define LOG_ERROR_WITH_WIDE_TEXT(...) __extension__ LOG_ERROR(__VA_ARGS__)
#else
#define LOG_ERROR_WITH_WIDE_TEXT(...) LOG_ERROR(__VA_ARGS__)
#endif

using Microsoft::WRL::ComPtr;

namespace {

/// What a file's successor is called until it takes the file's place. A fixed name: what a power cut leaves
/// behind is overwritten by the next save.
constexpr const wchar_t* kUnfinishedSuffix = L".saving";

HRESULT CreateDocument(VARIANT_BOOL keepWhiteSpace, ComPtr<IXMLDOMDocument>& document) {
  HRESULT result = ::CoCreateInstance(kDomDocumentClass, nullptr, kDomClassContext, kDomDocumentInterface,
                                      reinterpret_cast<void**>(document.ReleaseAndGetAddressOf()));
  if (SUCCEEDED(result)) result = document->put_async(VARIANT_FALSE);
  if (SUCCEEDED(result)) result = document->put_validateOnParse(VARIANT_FALSE);
  if (SUCCEEDED(result)) result = document->put_resolveExternals(VARIANT_FALSE);
  if (SUCCEEDED(result)) result = document->put_preserveWhiteSpace(keepWhiteSpace);
  return result;
}

bool OpenDocument(const CTString& path, VARIANT_BOOL keepWhiteSpace, ComPtr<IXMLDOMDocument>& document) {
  if (FAILED(CreateDocument(keepWhiteSpace, document))) return false;
  const OwnedBstr source(path);
  VARIANT_BOOL loaded = VARIANT_FALSE;
  return SUCCEEDED(document->load(source.AsVariant(), &loaded)) && loaded != VARIANT_FALSE;
}

/// The data must be on the disk before the new name is: otherwise a power cut could leave an empty file.
bool Flush(const wchar_t* path) {
  const UniqueHandle file = OwnFileHandle(
      ::CreateFileW(path, GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  return file != nullptr && ::FlushFileBuffers(file.get()) != FALSE;
}

/// Writes beside the old file and then replaces it in one step, so that no failure harms it. ReplaceFile
/// would keep more of the file's attributes, but some of its failures leave no file under the name.
bool SaveSafely(IXMLDOMDocument* document, const CTString& path) {
  const CTString unfinished = path + kUnfinishedSuffix;
  const OwnedBstr target(unfinished);
  const bool saved = SUCCEEDED(document->save(target.AsVariant())) && Flush(unfinished) &&
                     ::MoveFileExW(unfinished, path, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH);
  if (!saved) ::DeleteFileW(unfinished);
  return saved;
}

}  // namespace

bool CConfigParser::LoadResource(const wchar_t* path) {
  LOG_TRACE("Start LoadResource");
  const CTString file(path);
  if (!OpenDocument(file, VARIANT_FALSE, m_document)) {
    LOG_ERROR_WITH_WIDE_TEXT("Could not Open %S", static_cast<const wchar_t*>(file));
    return false;
  }
  ComPtr<IXMLDOMElement> root;
  HRESULT result = m_document->get_documentElement(root.GetAddressOf());
  if (SUCCEEDED(result)) result = root == nullptr ? E_FAIL : m_resources.Read(root.Get());
  if (FAILED(result)) {
    LOG_ERROR_WITH_WIDE_TEXT("Could not read the elements of %S: %x", static_cast<const wchar_t*>(file),
                             HexOf(result));
    return false;
  }
  m_resourceLoaded = true;
  return true;
}

bool CConfigParser::SaveConfig(const wchar_t* path) {
  LOG_TRACE("Start SaveConfig");
  const CTString file(path);
  if (!OpenDocument(file, VARIANT_TRUE, m_document)) {
    LOG_ERROR("Could not load %s", Narrow(file).c_str());
    return false;
  }
  if (FAILED(CreateDocument(VARIANT_TRUE, m_formattedDocument)) ||
      FAILED(FormatDocument(m_document.Get(), m_formattedDocument.Get()))) {
    LOG_ERROR_WITH_WIDE_TEXT("Failed to format the document %S", static_cast<const wchar_t*>(file));
    return false;
  }

  const ComPtr<IXMLDOMNode> declaration = FindDeclaration(m_formattedDocument.Get());
  if (declaration == nullptr) {
    LOG_ERROR("Could not find child element");
    return false;
  }
  ComPtr<IXMLDOMNamedNodeMap> attributes;
  if (FAILED(declaration->get_attributes(attributes.GetAddressOf())) || attributes == nullptr) {
    LOG_ERROR("Could not map child element");
    return false;
  }
  const OwnedBstr encodingName{CTString(L"encoding")};
  ComPtr<IXMLDOMNode> encoding;
  if (FAILED(attributes->getNamedItem(encodingName.Get(), encoding.GetAddressOf())) || encoding == nullptr) {
    LOG_ERROR("Could not find encoding element");
    return false;
  }
  const OwnedBstr encodingValue{CTString(kFormattedEncoding)};
  if (FAILED(encoding->put_nodeValue(encodingValue.AsVariant()))) {
    LOG_ERROR("Could not set encoding element to UTF-8");
    return false;
  }

  if (!SaveSafely(m_formattedDocument.Get(), file)) {
    LOG_ERROR_WITH_WIDE_TEXT("Could not save %S", static_cast<const wchar_t*>(file));
    return false;
  }
  return true;
}
