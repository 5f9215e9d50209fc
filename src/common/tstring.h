#pragma once

#include <cstddef>
#include <string>

#include "toolkitexport.h"

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
/// A null pointer is an empty text wherever a text is taken, except where it says otherwise. Texts may hold
/// NULs; one that comes in by a bare pointer ends at its first.
///
/// Positions and counts are in UTF-16 units and are taken as unsigned sizes: a count of -1 means "as far as
/// the text goes", and a position of -1 is beyond every end. Lengths and indices come back as int; beyond
/// 2,147,483,647 units they overflow. A conversion that fails yields an empty text.
///
/// SubStr, Erase, Insert and Replace beyond the end of the text throw std::out_of_range; lack of memory
/// throws std::bad_alloc, and a text beyond what std::wstring can hold std::length_error. Nothing else here
/// throws.
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
  /// A copy of the text; what was handed out of the other one stays the other one's.
  CTString(const CTString& other);
  /// Takes the other text, which may be this one. All pointers that this object has handed out end.
  CTString& operator=(const CTString& other);
  /// All pointers that this object has handed out end.
  virtual ~CTString();

  /// Equal when length and every code unit agree; case-sensitive. A null pointer is never equal.
  bool operator==(const CTString& other) const;
  /// The same of a UTF-16 text.
  bool operator==(const wchar_t* other) const;
  /// The same of a UTF-8 text.
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

  /// A new text: this one followed by the other, which may be null.
  CTString operator+(const CTString& other) const;
  /// The same of a UTF-8 text.
  CTString operator+(const char* other) const;
  /// The same of a UTF-16 text.
  CTString operator+(const wchar_t* other) const;

  /// Appends in place and returns this object. A null pointer adds nothing; the other text may be this one.
  CTString& operator+=(const CTString& other);
  /// The same of a UTF-8 text.
  CTString& operator+=(const char* other);
  /// The same of a UTF-16 text.
  CTString& operator+=(const wchar_t* other);

  /// Appends in place. A null pointer adds nothing.
  void Append(const CTString& other);
  /// The same of a UTF-8 text.
  void Append(const char* other);
  /// The same of a UTF-16 text.
  void Append(const wchar_t* other);

  /// Inserts the first `count` units of `text` at `pos`.
  /// @param pos   0 to the length; beyond it std::out_of_range is thrown.
  /// @param text  UTF-8 or UTF-16; null changes nothing, whatever `pos` is.
  /// @param count in UTF-16 units, for a narrow text too; one beyond the text, or -1, takes all of it.
  /// @return the new length.
  int Insert(int pos, const char* text, int count);
  /// The same of a UTF-16 text.
  int Insert(int pos, const wchar_t* text, int count);

  /// Removes min(`count`, length - `pos`) units at `pos` and returns the wide buffer, which stays this
  /// object's. A `pos` beyond the length throws std::out_of_range.
  const wchar_t* Erase(int pos, int count);

  /// Index of the first occurrence at or after `start`; -1 when there is none, when `needle` is null, and
  /// when `start` is beyond the end. An empty needle is found at `start`.
  int Find(const wchar_t* needle, int start) const;

  /// Index of the last occurrence that begins at or before `start`; -1 when there is none and when `needle`
  /// is null. A start of -1, or one beyond the end, means the end.
  int ReverseFind(const wchar_t* needle, int start) const;

  /// Replaces min(`count`, length - `pos`) units at `pos` by `with`, in place; returns a copy of the result.
  /// A `pos` beyond the length throws std::out_of_range.
  CTString Replace(std::size_t pos, std::size_t count, CTString with);

  /// A new text of min(`count`, length - `start`) units from `start`. A `start` beyond the length throws
  /// std::out_of_range, but not with an empty text: of that every part is empty.
  CTString SubStr(int start, int count) const;

  /// Converts each unit to upper case by the C library's mapping; returns the wide buffer, which stays this
  /// object's.
  const wchar_t* MakeUpper();
  /// The same to lower case.
  const wchar_t* MakeLower();

  /// Removes leading units that occur in `set`; returns this object. A null set removes nothing.
  CTString& TrimLeft(const wchar_t* set);
  /// The same of trailing units.
  CTString& TrimRight(const wchar_t* set);

  /// Replaces the text by printed arguments; the narrow kind prints UTF-8. Any length. The arguments may
  /// point into this object. A null format, and what the C runtime refuses to print, give an empty text.
  void Format(const char* format, ...);
  /// The same with a UTF-16 format.
  void Format(const wchar_t* format, ...);

  /// The leading decimal number of the text, after white space and with its sign; 0 if there is none. One
  /// that does not fit is the nearest int.
  int ToInt() const;

  /// Number of UTF-16 units, without a terminator.
  int GetLength() const;
  /// True without any unit.
  bool IsEmpty() const;

  /// Makes the text empty.
  void Empty();
  /// The same.
  void Clear();

 protected:
  /// Decodes UTF-8 into this object's wide scratch buffer, valid until its next use. Null gives an empty
  /// text.
  const wchar_t* CharToWChar(const char* text);
  /// Encodes into this object's narrow scratch buffer, valid until its next use. Null gives an empty text.
  const char* WCharToChar(const wchar_t* text);

 private:
  std::wstring m_WideText;
  std::string m_NarrowText;
  std::wstring m_WideScratch;
  std::string m_NarrowScratch;
};

#if defined(_MSC_VER)
#pragma warning(pop)
#endif
