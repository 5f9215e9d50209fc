#include "config/documentfile.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "common/handles.h"

namespace corvel {

using Microsoft::WRL::ComPtr;

namespace {

constexpr const wchar_t* kDeclarationTarget = L"xml";
constexpr std::size_t kSpacesPerLevel = 2;

/// Without a limit the white space of a deeply nested document would grow with the square of its depth.
constexpr std::size_t kDeepestIndent = 40;

/// What a file's successor is called until it takes the file's place. A fixed name: what a power cut leaves
/// behind is overwritten by the next save.
constexpr const wchar_t* kUnfinishedSuffix = L".saving";

/// The data must be on the disk before the new name is: otherwise a power cut could leave an empty file.
bool Flush(const wchar_t* path) {
  const UniqueHandle file = OwnFileHandle(
      ::CreateFileW(path, GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  return file != nullptr && ::FlushFileBuffers(file.get()) != FALSE;
}

/// An element whose children have yet to be put on lines of their own.
struct PendingElement {
  ComPtr<IXMLDOMNode> element;
  std::size_t depth;
};

using Nodes = std::vector<ComPtr<IXMLDOMNode>>;

VARIANT BeforeNode(IXMLDOMNode* node) {
  VARIANT reference;
  ::VariantInit(&reference);
  if (node == nullptr) return reference;
  reference.vt = VT_UNKNOWN;
  reference.punkVal = node;
  return reference;
}

std::wstring NewLine(std::size_t depth) {
  return L"\n" + std::wstring(std::min(depth, kDeepestIndent) * kSpacesPerLevel, L' ');
}

/// Puts a line break in front of a child, or after the last one.
HRESULT BreakLine(IXMLDOMDocument* document, IXMLDOMNode* parent, IXMLDOMNode* child, std::size_t depth) {
  const OwnedBstr space{CTString(NewLine(depth))};
  ComPtr<IXMLDOMText> text;
  const HRESULT result = document->createTextNode(space.Get(), text.GetAddressOf());
  if (FAILED(result)) return result;
  ComPtr<IXMLDOMNode> added;
  return parent->insertBefore(text.Get(), BeforeNode(child), added.GetAddressOf());
}

HRESULT Remove(IXMLDOMNode* parent, IXMLDOMNode* child) {
  ComPtr<IXMLDOMNode> removed;
  return parent->removeChild(child, removed.GetAddressOf());
}

HRESULT TypeOf(IXMLDOMNode* node, DOMNodeType& type) {
  type = NODE_INVALID;
  return node->get_nodeType(&type);
}

HRESULT IsBlank(IXMLDOMNode* text, bool& blank) {
  OwnedVariant value;
  const HRESULT result = text->get_nodeValue(value.Receive());
  if (FAILED(result)) return result;
  blank = !value.IsText() || std::wstring(value.Text()).find_first_not_of(L" \t\r\n") == std::wstring::npos;
  return S_OK;
}

HRESULT AsksForItsSpace(IXMLDOMNode* node, bool& asks) {
  ComPtr<IXMLDOMElement> element;
  HRESULT result =
      node->QueryInterface(kDomElementInterface, reinterpret_cast<void**>(element.GetAddressOf()));
  if (FAILED(result)) return result;
  const OwnedBstr name{CTString(L"xml:space")};
  OwnedVariant value;
  result = element->getAttribute(name.Get(), value.Receive());
  if (FAILED(result)) return result;
  asks = value.IsText() && value.Text() == L"preserve";
  return S_OK;
}

/// What an element holds, as far as it decides about lines.
struct Content {
  Nodes blanks;
  /// Children for lines of their own, and which of them are elements.
  Nodes items;
  std::vector<bool> isElement;
  bool hasText = false;
};

HRESULT Sort(const Nodes& children, Content& content) {
  for (const ComPtr<IXMLDOMNode>& child : children) {
    DOMNodeType type = NODE_INVALID;
    HRESULT result = TypeOf(child.Get(), type);
    bool blank = false;
    if (SUCCEEDED(result) && type == NODE_TEXT) result = IsBlank(child.Get(), blank);
    if (FAILED(result)) return result;

    const bool isText = type == NODE_TEXT || type == NODE_CDATA_SECTION || type == NODE_ENTITY_REFERENCE;
    if (blank) {
      content.blanks.push_back(child);
    } else if (isText) {
      content.hasText = true;
    } else {
      content.items.push_back(child);
      content.isElement.push_back(type == NODE_ELEMENT);
    }
  }
  return S_OK;
}

HRESULT PutOnLines(IXMLDOMDocument* document, const PendingElement& parent, const Content& content) {
  for (const ComPtr<IXMLDOMNode>& blank : content.blanks) {
    const HRESULT result = Remove(parent.element.Get(), blank.Get());
    if (FAILED(result)) return result;
  }
  for (const ComPtr<IXMLDOMNode>& item : content.items) {
    const HRESULT result = BreakLine(document, parent.element.Get(), item.Get(), parent.depth + 1);
    if (FAILED(result)) return result;
  }
  return BreakLine(document, parent.element.Get(), nullptr, parent.depth);
}

HRESULT IndentChildren(IXMLDOMDocument* document, const PendingElement& parent,
                       std::vector<PendingElement>& pending) {
  Nodes children;
  HRESULT result = CollectChildren(parent.element.Get(), children);
  if (FAILED(result)) return result;
  Content content;
  result = Sort(children, content);
  if (FAILED(result) || content.hasText || content.items.empty()) return result;
  bool asksForItsSpace = false;
  result = AsksForItsSpace(parent.element.Get(), asksForItsSpace);
  if (FAILED(result) || asksForItsSpace) return result;

  for (std::size_t i = 0; i < content.items.size(); ++i) {
    if (content.isElement[i]) pending.push_back({content.items[i], parent.depth + 1});
  }
  return PutOnLines(document, parent, content);
}

/// Works through a list of its own: the depth of a foreign document must not become the depth of a stack.
HRESULT IndentElements(IXMLDOMDocument* document) {
  ComPtr<IXMLDOMElement> root;
  HRESULT result = document->get_documentElement(root.GetAddressOf());
  if (FAILED(result) || root == nullptr) return FailureOf(result);
  std::vector<PendingElement> pending{{ComPtr<IXMLDOMNode>(root.Get()), 0}};
  while (!pending.empty()) {
    const PendingElement next = std::move(pending.back());
    pending.pop_back();
    result = IndentChildren(document, next, pending);
    if (FAILED(result)) return result;
  }
  return S_OK;
}

HRESULT CopyDocument(IXMLDOMDocument* source, IXMLDOMDocument* target) {
  VARIANT document;
  ::VariantInit(&document);
  document.vt = VT_UNKNOWN;
  document.punkVal = source;
  VARIANT_BOOL loaded = VARIANT_FALSE;
  const HRESULT result = target->load(document, &loaded);
  return loaded == VARIANT_FALSE ? FailureOf(result) : result;
}

/// A new declaration rather than a changed one: not every implementation lets a parsed one be changed.
HRESULT ReplaceDeclaration(IXMLDOMDocument* document) {
  ComPtr<IXMLDOMNode> old;
  HRESULT result = FindDeclaration(document, old);
  if (SUCCEEDED(result) && old != nullptr) result = Remove(document, old.Get());
  if (FAILED(result)) return result;

  const OwnedBstr target{CTString(kDeclarationTarget)};
  const OwnedBstr data{CTString(L"version=\"1.0\" encoding=\"") + kFormattedEncoding + L"\""};
  ComPtr<IXMLDOMProcessingInstruction> declaration;
  result = document->createProcessingInstruction(target.Get(), data.Get(), declaration.GetAddressOf());
  if (FAILED(result)) return result;
  ComPtr<IXMLDOMNode> first;
  result = document->get_firstChild(first.GetAddressOf());
  if (FAILED(result)) return result;
  ComPtr<IXMLDOMNode> added;
  return document->insertBefore(declaration.Get(), BeforeNode(first.Get()), added.GetAddressOf());
}

}  // namespace

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

// Writes beside the old file and then replaces it in one step, so that no failure harms it. ReplaceFile
// would keep more of the file's attributes, but some of its failures leave no file under the name.
bool SaveDocument(IXMLDOMDocument* document, const CTString& path) {
  const CTString unfinished = path + kUnfinishedSuffix;
  const OwnedBstr target(unfinished);
  const bool saved = SUCCEEDED(document->save(target.AsVariant())) && Flush(unfinished) &&
                     ::MoveFileExW(unfinished, path, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH);
  if (!saved) ::DeleteFileW(unfinished);
  return saved;
}

HRESULT FindDeclaration(IXMLDOMDocument* document, ComPtr<IXMLDOMNode>& declaration) {
  declaration.Reset();
  ComPtr<IXMLDOMNode> first;
  HRESULT result = document->get_firstChild(first.GetAddressOf());
  if (FAILED(result) || first == nullptr) return result;
  DOMNodeType type = NODE_INVALID;
  result = TypeOf(first.Get(), type);
  if (FAILED(result) || type != NODE_PROCESSING_INSTRUCTION) return result;
  OwnedBstr name;
  result = first->get_nodeName(name.Receive());
  if (SUCCEEDED(result) && name.Text() == kDeclarationTarget) declaration = first;
  return result;
}

HRESULT FormatDocument(IXMLDOMDocument* source, IXMLDOMDocument* target) {
  HRESULT result = CopyDocument(source, target);
  if (SUCCEEDED(result)) result = IndentElements(target);
  if (SUCCEEDED(result)) result = ReplaceDeclaration(target);
  return result;
}

}  // namespace corvel
