#pragma once

#include <cstddef>
#include <string>

#include "common/toolkitexport.h"

#if defined(_MSC_VER)
#pragma warning(push)
#pragma warning(disable : 4251)  // Private members; toolkitexport.h tells what a host needs for them.
#endif

/// The text type of the library's interface: UTF-16 inside, UTF-8 for every narrow text that goes in or
/// out. An object belongs to one thread at a time; even `operator const char*` changes it.
///
/// Pointers handed out stay owned by the object. A wide pointer is valid until the next change of the
/// text, a narrow one until the next narrow conversion on the same object.
///
/// Positions and counts are taken as unsigned sizes, so a count of -1 means "as far as the text goes".
/// A conversion that fails yields an empty text. SubStr, Erase, Insert and Replace beyond the end of the
/// text throw std::out_of_range; nothing else here throws but for lack of memory.
class CORVEL_TOOLKIT_API CTString {
 public:
  /// An empty text.
  CTString();
  /// The decimal text of `number`.
  CTString(int number);
  /// Decodes UTF-8; a null pointer gives an empty text. Invalid sequences become U+FFFD.
  CTString(const char* text);
  /// Copies UTF-16; a null pointer gives an empty text.
  CTString(const wchar_t* text);
  /// Decodes UTF-8.
  CTString(std::string text);
  /// Copies UTF-16.
  CTString(std::wstring text);
  CTString(const CTString& other);
  CTString& operator=(const CTString& other);
  virtual ~CTString();

  /// Equal when length and every code unit agree; case-sensitive. A null pointer is never equal.
  bool operator==(const CTString& other) const;
  bool operator==(const wchar_t* other) const;
  bool operator==(const char* other) const;

  /// Ordinal comparison by code unit: -1, 0 or 1. Of a text and its extension, the shorter is less.
  int Compare(const CTString& other) const;

  /// A UTF-8 copy.
  operator std::string();
  /// A UTF-16 copy.
  operator std::wstring();
  /// The text in UTF-8, in a buffer of this object.
  operator const char*();
  /// The text's own buffer.
  operator const wchar_t*() const;

  /// A new text: this one followed by the other.
  CTString operator+(const CTString& other) const;
  CTString operator+(const char* other) const;
  CTString operator+(const wchar_t* other) const;

  /// Appends in place and returns this object.
  CTString& operator+=(const CTString& other);
  CTString& operator+=(const char* other);
  CTString& operator+=(const wchar_t* other);

  /// Appends in place.
  void Append(const CTString& other);
  void Append(const char* other);
  void Append(const wchar_t* other);

  /// Inserts the first `count` units of `text` at `pos` and returns the new length. A null text changes
  /// nothing; a count beyond the text takes all of it.
  int Insert(int pos, const char* text, int count);
  int Insert(int pos, const wchar_t* text, int count);

  /// Removes min(`count`, length - `pos`) units at `pos` and returns the wide buffer.
  const wchar_t* Erase(int pos, int count);

  /// Index of the first occurrence at or after `start`, or -1.
  int Find(const wchar_t* needle, int start) const;

  /// Index of the last occurrence that begins at or before `start`, or -1; a start of -1 means the end.
  int ReverseFind(const wchar_t* needle, int start) const;

  /// Replaces `count` units at `pos` by `with`, in place; returns a copy of the result.
  CTString Replace(std::size_t pos, std::size_t count, CTString with);

  /// A new text of min(`count`, length - `start`) units from `start`.
  CTString SubStr(int start, int count) const;

  /// Convert each unit by the C library's case mapping; return the wide buffer.
  const wchar_t* MakeUpper();
  const wchar_t* MakeLower();

  /// Remove leading or trailing units that occur in `set`; return this object.
  CTString& TrimLeft(const wchar_t* set);
  CTString& TrimRight(const wchar_t* set);

  /// Replaces the text by printed arguments; the narrow kind prints UTF-8. Any length. The arguments may
  /// point into this object. What the C runtime refuses to print gives an empty text.
  void Format(const char* format, ...);
  void Format(const wchar_t* format, ...);

  /// The leading decimal number of the text; 0 if there is none.
  int ToInt() const;

  /// Number of UTF-16 units.
  int GetLength() const;
  bool IsEmpty() const;

  /// Make the text empty.
  void Empty();
  void Clear();

 protected:
  /// Decodes UTF-8 into this object's wide scratch buffer.
  const wchar_t* CharToWChar(const char* text);
  /// Encodes into this object's narrow scratch buffer.
  const char* WCharToChar(const wchar_t* text);

 private:
  std::wstring m_wideText;
  std::string m_narrowText;
  std::wstring m_wideScratch;
  std::string m_narrowScratch;
};

#if defined(_MSC_VER)
#pragma warning(pop)
#endif
