#pragma once

#include <memory>
#include <vector>

#include <windows.h>

#include <oaidl.h>

#include "../common/toolkitexport.h"
#include "../common/tstring.h"

// The interfaces of MSXML's document object model; <msxml.h> defines them for hosts that call them.
struct IXMLDOMDocument;
struct IXMLDOMElement;
struct IXMLDOMNode;
struct IXMLDOMNodeList;

#if defined(_MSC_VER)
#pragma warning(push)
#pragma warning(disable : 4251)  // Private members; toolkitexport.h tells what a host needs for them.
#endif

namespace QUENTA::Brevant::Interfaces::ToolkitCore {

/// Name and typed value of one element, for CXMLFile::CreateNodes. An object belongs to one thread at a time.
///
/// Copies share the BSTR of a VT_BSTR value and nobody frees it: it lives for as long as the process.
/// Making one from a name does not throw: lack of memory ends the process.
class CORVEL_TOOLKIT_API XML_NAME_VALUE {
 public:
  /// A value of the given type.
  /// @param type VT_BSTR makes a BSTR of the text; VT_UI2 takes its leading decimal number, cut to 16 bits;
  ///             any other type is stored alone, with a value of zero.
  XML_NAME_VALUE(const CTString& name, const CTString& text, VARENUM type) noexcept;
  /// A VT_DATE value; a time that no date can hold gives the date 0 (30 December 1899).
  XML_NAME_VALUE(const CTString& name, const SYSTEMTIME& time) noexcept;
  /// Shares the other one's BSTR.
  XML_NAME_VALUE(const XML_NAME_VALUE& other) noexcept;
  /// The same: the other one keeps it, too.
  XML_NAME_VALUE(XML_NAME_VALUE&& other) noexcept;
  /// Shares the other one's BSTR.
  XML_NAME_VALUE& operator=(const XML_NAME_VALUE& other) noexcept;
  /// The same: the other one keeps it, too.
  XML_NAME_VALUE& operator=(XML_NAME_VALUE&& other) noexcept;
  /// Frees no BSTR.
  ~XML_NAME_VALUE();

  /// A copy of the name.
  CTString Name() const noexcept;
  /// The value as it is: its BSTR stays shared with this record, so do not clear it.
  VARIANT Value() const noexcept;

 private:
  CTString m_Name;
  VARIANT m_Value;
};

/// One XML document, bound to the path of one file.
///
/// To read: GetRootNode, then GetNodesCount or GetChildNodesOfNode and the lookups. To write: CreateRootNode,
/// the Create operations, SaveDocumentToFile. GetRootNode and CreateRootNode each begin a fresh document.
///
/// COM must be initialised on the calling thread, and stay so until the object is gone. An object belongs
/// to one thread at a time.
///
/// Results are HRESULTs: 0 on success, 0x80004005 for a missing argument or document, else what the
/// document model returned. Each call that fails there writes one record to the debug log.
///
/// Nodes and lists handed out belong to the caller, who releases them; only the root of GetRootNode stays
/// the object's own. Nodes, lists and values given to an operation stay the caller's. After a failure an out
/// pointer is null and an out text unchanged. Operations that create accept a null out pointer.
///
/// Nothing here throws: lack of memory ends the process.
class CORVEL_TOOLKIT_API CXMLFile {
 public:
  /// Keeps the path; no file is touched yet.
  explicit CXMLFile(const CTString& path) noexcept;
  CXMLFile(const CXMLFile&) = delete;
  CXMLFile& operator=(const CXMLFile&) = delete;
  /// Releases the document. Nodes that the caller still holds keep it alive.
  ~CXMLFile();

  /// Begins an empty document that loads synchronously, without validation, external entities or ignorable
  /// white space. GetRootNode and CreateRootNode call it; nodes, root and list of a former document go.
  HRESULT InitializeDOM() noexcept;

  // Reading.

  /// Loads the file. On failure the object has no document.
  /// @param root the document element: borrowed, not to be released, valid until the next GetRootNode or
  ///             CreateRootNode and no longer than this object. May be null.
  HRESULT GetRootNode(IXMLDOMElement** root) noexcept;
  /// Number of the root's child nodes as loaded; -1 without a loaded document.
  int GetNodesCount() noexcept;
  /// The child nodes of any node: elements, texts, comments and instructions alike.
  /// @param children the list, to be released by the caller; null after a failure.
  /// @param count how many there are; 0 after a failure.
  HRESULT GetChildNodesOfNode(IXMLDOMNode* node, IXMLDOMNodeList** children, long& count) noexcept;
  /// One node of a list, which must be given: the loaded children do not stand in for a null one.
  /// @param index from 0. @return S_FALSE (1), with a null node, for an index outside the list.
  HRESULT GetNodeAtIndex(int index, IXMLDOMNode** node, IXMLDOMNodeList* list) noexcept;
  /// The node's name, prefix included; "#text", "#comment" and the like for nodes that have none.
  HRESULT GetNameForNode(IXMLDOMNode* node, CTString& name) noexcept;
  /// The texts of the node and all its descendants, joined.
  HRESULT GetTextForNode(IXMLDOMNode* node, CTString& text) noexcept;
  /// True when the node has exactly that name, prefix and case included; false for a null node and when the
  /// name cannot be read.
  bool DoesNodeNameEquals(IXMLDOMNode* node, const CTString& name) noexcept;
  /// True when item `n` (from 0) of the list is an element of that name; false for a null list, too.
  /// @param node the item, whenever it exists, whatever the answer. May be null.
  bool IsNthNodeAnElementWithName(int n, const CTString& name, IXMLDOMNode** node,
                                  IXMLDOMNodeList* list) noexcept;
  /// The value of one attribute. @return 0x80004005 when the node has no such attribute.
  HRESULT GetAttributeForNode(IXMLDOMNode* node, const CTString& attributeName, CTString& value) noexcept;
  /// Looks, from the list's current position on, for a node whose attribute has the given value, and leaves
  /// the list after it. Nodes whose attribute is missing or cannot be read are passed over.
  /// @return 0 also when there is none, and then `node` is null; 0x80004005 for an empty attribute name.
  HRESULT FindNodeWithAttributeValue(IXMLDOMNodeList* list, const CTString& attributeName,
                                     const CTString& value, IXMLDOMNode** node) noexcept;

  // Writing: 0x80004005 before a document was begun. A null parent means the document itself, which holds one
  // element at most. Names and texts go to the document model as they are: it may refuse those that XML
  // cannot hold (an empty name, control characters), or write a file that cannot be read again.

  /// Appends the XML declaration: version 1.0, encoding UTF-8. CreateRootNode calls it.
  HRESULT CreateAndAddPINode() noexcept;
  /// Appends an element without content to the parent. The other Create operations call it.
  HRESULT CreateAndAddNode(const CTString& name, IXMLDOMNode** node, IXMLDOMNode* parent) noexcept;
  /// Begins a document with the declaration and an empty root element.
  /// @return 0x80004005 for any failure; then the object has no document. An empty name changes nothing.
  HRESULT CreateRootNode(const CTString& name, IXMLDOMNode** node) noexcept;
  /// The same, and the root refers to its schema by "xsi:noNamespaceSchemaLocation". An empty name or
  /// schema changes nothing.
  HRESULT CreateRootNode(const CTString& name, const CTString& schema, IXMLDOMNode** node) noexcept;
  /// Gives an element an attribute; one of the same name is replaced.
  /// @param value written in the document model's text form of its type.
  HRESULT AddAttributeToNode(const CTString& attributeName, const VARIANT& value, IXMLDOMNode* node) noexcept;
  /// The same with a text, which may be empty.
  HRESULT CreateAttributeForNode(const CTString& name, const CTString& value, IXMLDOMNode* node) noexcept;
  /// A child element with one attribute. Like every element whose value is refused, it stays in the document
  /// without one when the attribute fails.
  HRESULT CreateAttributeNode(const CTString& elementName, const CTString& attributeName,
                              const CTString& attributeValue, IXMLDOMNode* parent,
                              IXMLDOMNode** node) noexcept;
  /// A child element without content.
  HRESULT CreateNode(const CTString& name, IXMLDOMNode* parent, IXMLDOMNode** node) noexcept;
  /// A child element with a typed value, written in the document model's text form of that type.
  HRESULT CreateNode(const CTString& name, const VARIANT& value, IXMLDOMNode* parent,
                     IXMLDOMNode** node) noexcept;
  /// A child element with a text, whatever it holds: markup in it is escaped when the document is saved.
  HRESULT CreateTextNode(const CTString& name, const CTString& text, IXMLDOMNode* parent,
                         IXMLDOMNode** node) noexcept;
  /// One child element per record, in order. @return 0x80004005 at the first failure, where it stops.
  HRESULT CreateNodes(const std::vector<XML_NAME_VALUE>& nodes, IXMLDOMNode* parent) noexcept;
  /// Writes the document to the path, over what is there. A failure may leave a part of it there.
  HRESULT SaveDocumentToFile() noexcept;

 private:
  struct Releaser {
    void operator()(IUnknown* object) const noexcept { object->Release(); }
  };

  CTString m_Path;
  std::unique_ptr<IXMLDOMDocument, Releaser> m_Document;
  std::unique_ptr<IXMLDOMElement, Releaser> m_Root;
  std::unique_ptr<IXMLDOMNodeList, Releaser> m_Children;
};

}  // namespace QUENTA::Brevant::Interfaces::ToolkitCore

#if defined(_MSC_VER)
#pragma warning(pop)
#endif
