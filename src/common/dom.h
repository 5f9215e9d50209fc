#pragma once

#include <vector>

#include <windows.h>

#include <msxml.h>
#include <oleauto.h>
#include <wrl/client.h>

#include "common/tstring.h"

namespace corvel {

// Ids of the MSXML classes and interfaces in use. The Windows SDK and mingw-w64 both declare them, but only
// the SDK ties the interfaces to theirs for __uuidof.
inline constexpr CLSID kDomDocumentClass{
    0x2933BF90, 0x7B36, 0x11D2, {0xB2, 0x0E, 0x00, 0xC0, 0x4F, 0x98, 0x3E, 0x60}};
inline constexpr IID kDomDocumentInterface{
    0x2933BF81, 0x7B36, 0x11D2, {0xB2, 0x0E, 0x00, 0xC0, 0x4F, 0x98, 0x3E, 0x60}};
inline constexpr IID kDomElementInterface{
    0x2933BF86, 0x7B36, 0x11D2, {0xB2, 0x0E, 0x00, 0xC0, 0x4F, 0x98, 0x3E, 0x60}};

/// Where the document's class may run: in this process, behind a handler, in another process, elsewhere.
inline constexpr DWORD kDomClassContext =
    CLSCTX_INPROC_SERVER | CLSCTX_INPROC_HANDLER | CLSCTX_LOCAL_SERVER | CLSCTX_REMOTE_SERVER;

/// A new BSTR of the text, for the caller to free. Lack of memory raises a COM error; the operations of
/// this library let none out, so that it ends the process.
BSTR NewBstr(const CTString& text);

/// Owner of one BSTR. A null BSTR is an empty text.
class OwnedBstr {
 public:
  OwnedBstr() = default;
  explicit OwnedBstr(const CTString& text) : m_Text(NewBstr(text)) {}
  ~OwnedBstr() { ::SysFreeString(m_Text); }
  OwnedBstr(const OwnedBstr&) = delete;
  OwnedBstr& operator=(const OwnedBstr&) = delete;

  BSTR Get() const { return m_Text; }
  /// For a call that hands out a BSTR; use it once per object.
  BSTR* Receive() { return &m_Text; }
  CTString Text() const;
  /// The text as a value that borrows it.
  VARIANT AsVariant() const;

 private:
  BSTR m_Text = nullptr;
};

/// Owner of one VARIANT and what it holds.
class OwnedVariant {
 public:
  OwnedVariant() { ::VariantInit(&m_Value); }
  ~OwnedVariant() { ::VariantClear(&m_Value); }
  OwnedVariant(const OwnedVariant&) = delete;
  OwnedVariant& operator=(const OwnedVariant&) = delete;

  /// For a call that hands out a value; use it once per object.
  VARIANT* Receive() { return &m_Value; }
  int Type() const { return m_Value.vt; }
  bool IsText() const { return m_Value.vt == VT_BSTR; }
  /// The text of a value that is one.
  CTString Text() const;

 private:
  VARIANT m_Value;
};

/// All children of a node, in order. A null node is a failure.
HRESULT CollectChildren(IXMLDOMNode* node, std::vector<Microsoft::WRL::ComPtr<IXMLDOMNode>>& children);

/// A failure code for a call that failed, or that succeeded without the object it was asked for.
constexpr HRESULT FailureOf(HRESULT result) {
  return FAILED(result) ? result : E_FAIL;
}

/// A result in the type that "%x" prints.
constexpr unsigned HexOf(HRESULT result) {
  return static_cast<unsigned>(result);
}

}  // namespace corvel
