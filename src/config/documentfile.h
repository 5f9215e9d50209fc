#pragma once

#include "common/dom.h"

namespace corvel {

/// Makes an empty document that loads synchronously, without validation and external entities.
HRESULT CreateDocument(VARIANT_BOOL keepWhiteSpace, Microsoft::WRL::ComPtr<IXMLDOMDocument>& document);

/// Makes a document of a file. @return false when it is missing, malformed or cannot be read.
bool OpenDocument(const CTString& path, VARIANT_BOOL keepWhiteSpace,
                  Microsoft::WRL::ComPtr<IXMLDOMDocument>& document);

/// Writes a document over a file. @return false on failure; the file is then as it was.
bool SaveDocument(IXMLDOMDocument* document, const CTString& path);

/// The encoding that every formatted document declares.
inline constexpr const wchar_t* kFormattedEncoding = L"UTF-8";

/// Copies `source` into `target` in a form made for people: one line per element, comment or processing
/// instruction, two spaces more per level, and a declaration of version 1.0 and UTF-8 in front.
///
/// Nothing but white space changes, and of that only what cannot matter: an element that holds text of its
/// own, that asks for xml:space="preserve", or that holds no element and no comment stays as it is, with
/// all that is in it. White space outside the root element stays, too. Lines below a depth of 40 are not
/// indented further. `source` must have been loaded with its white space.
HRESULT FormatDocument(IXMLDOMDocument* source, IXMLDOMDocument* target);

/// The node that carries the XML declaration, which can only be the first; null when there is none.
HRESULT FindDeclaration(IXMLDOMDocument* document, Microsoft::WRL::ComPtr<IXMLDOMNode>& declaration);

}  // namespace corvel
