#include "common/tstring.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cwchar>
#include <cwctype>
#include <utility>

#include "common/text.h"

namespace {

std::wstring Decode(const char* text) {
  return text == nullptr ? std::wstring() : WideFromUtf8(text);
}

std::wstring Copy(const wchar_t* text) {
  return text == nullptr ? std::wstring() : std::wstring(text);
}

int IndexOrNone(std::size_t position) {
  return position == std::wstring::npos ? -1 : static_cast<int>(position);
}

/// Negative positions and counts mean "very far", as everywhere in this class.
std::size_t Size(int value) {
  return static_cast<std::size_t>(value);
}

int InsertUnits(std::wstring& target, int pos, const std::wstring& text, int count) {
  target.insert(Size(pos), text, 0, Size(count));
  return static_cast<int>(target.size());
}

}  // namespace

CTString::CTString() = default;

CTString::CTString(int number) : m_wideText(std::to_wstring(number)) {}

CTString::CTString(const char* text) : m_wideText(Decode(text)) {}

CTString::CTString(const wchar_t* text) : m_wideText(Copy(text)) {}

CTString::CTString(std::string text) : m_wideText(WideFromUtf8(text)) {}

CTString::CTString(std::wstring text) : m_wideText(std::move(text)) {}

CTString::CTString(const CTString& other) = default;

CTString& CTString::operator=(const CTString& other) = default;

CTString::~CTString() = default;

bool CTString::operator==(const CTString& other) const {
  return m_wideText == other.m_wideText;
}

bool CTString::operator==(const wchar_t* other) const {
  return other != nullptr && m_wideText == other;
}

bool CTString::operator==(const char* other) const {
  return other != nullptr && m_wideText == Decode(other);
}

int CTString::Compare(const CTString& other) const {
  const int order = m_wideText.compare(other.m_wideText);
  return (order > 0) - (order < 0);
}

CTString::operator std::string() {
  return Utf8FromWide(m_wideText);
}

CTString::operator std::wstring() {
  return m_wideText;
}

CTString::operator const char*() {
  m_narrowText = Utf8FromWide(m_wideText);
  return m_narrowText.c_str();
}

CTString::operator const wchar_t*() const {
  return m_wideText.c_str();
}

CTString CTString::operator+(const CTString& other) const {
  return CTString(m_wideText + other.m_wideText);
}

CTString CTString::operator+(const char* other) const {
  return CTString(m_wideText + Decode(other));
}

CTString CTString::operator+(const wchar_t* other) const {
  return CTString(m_wideText + Copy(other));
}

CTString& CTString::operator+=(const CTString& other) {
  m_wideText += other.m_wideText;
  return *this;
}

CTString& CTString::operator+=(const char* other) {
  m_wideText += Decode(other);
  return *this;
}

CTString& CTString::operator+=(const wchar_t* other) {
  m_wideText += Copy(other);
  return *this;
}

void CTString::Append(const CTString& other) {
  *this += other;
}

void CTString::Append(const char* other) {
  *this += other;
}

void CTString::Append(const wchar_t* other) {
  *this += other;
}

int CTString::Insert(int pos, const char* text, int count) {
  return text == nullptr ? GetLength() : InsertUnits(m_wideText, pos, Decode(text), count);
}

int CTString::Insert(int pos, const wchar_t* text, int count) {
  return text == nullptr ? GetLength() : InsertUnits(m_wideText, pos, Copy(text), count);
}

const wchar_t* CTString::Erase(int pos, int count) {
  m_wideText.erase(Size(pos), Size(count));
  return m_wideText.c_str();
}

int CTString::Find(const wchar_t* needle, int start) const {
  if (needle == nullptr) return -1;
  return IndexOrNone(m_wideText.find(needle, Size(start)));
}

int CTString::ReverseFind(const wchar_t* needle, int start) const {
  if (needle == nullptr) return -1;
  return IndexOrNone(m_wideText.rfind(needle, Size(start)));
}

CTString CTString::Replace(std::size_t pos, std::size_t count, CTString with) {
  m_wideText.replace(pos, count, with.m_wideText);
  return *this;
}

CTString CTString::SubStr(int start, int count) const {
  return m_wideText.empty() ? CTString() : CTString(m_wideText.substr(Size(start), Size(count)));
}

const wchar_t* CTString::MakeUpper() {
  std::ranges::transform(m_wideText, m_wideText.begin(),
                         [](wchar_t unit) { return static_cast<wchar_t>(std::towupper(unit)); });
  return m_wideText.c_str();
}

const wchar_t* CTString::MakeLower() {
  std::ranges::transform(m_wideText, m_wideText.begin(),
                         [](wchar_t unit) { return static_cast<wchar_t>(std::towlower(unit)); });
  return m_wideText.c_str();
}

CTString& CTString::TrimLeft(const wchar_t* set) {
  if (set != nullptr) m_wideText.erase(0, m_wideText.find_first_not_of(set));
  return *this;
}

CTString& CTString::TrimRight(const wchar_t* set) {
  // No unit to keep gives npos, and npos + 1 is 0: everything goes.
  if (set != nullptr) m_wideText.erase(m_wideText.find_last_not_of(set) + 1);
  return *this;
}

void CTString::Format(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string printed = PrintNarrow(format, arguments).value_or(std::string());
  va_end(arguments);
  m_wideText = WideFromUtf8(printed);
}

void CTString::Format(const wchar_t* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  // The arguments may point into this very text, so it is replaced only when all is printed.
  std::wstring printed = PrintWide(format, arguments).value_or(std::wstring());
  va_end(arguments);
  m_wideText = std::move(printed);
}

// The C runtime's own conversion: a number out of range is clamped, where the standard library throws.
int CTString::ToInt() const {
  return ::_wtoi(m_wideText.c_str());
}

int CTString::GetLength() const {
  return static_cast<int>(m_wideText.size());
}

bool CTString::IsEmpty() const {
  return m_wideText.empty();
}

void CTString::Empty() {
  m_wideText.clear();
}

void CTString::Clear() {
  Empty();
}

const wchar_t* CTString::CharToWChar(const char* text) {
  m_wideScratch = Decode(text);
  return m_wideScratch.c_str();
}

const char* CTString::WCharToChar(const wchar_t* text) {
  m_narrowScratch = Utf8FromWide(Copy(text));
  return m_narrowScratch.c_str();
}
