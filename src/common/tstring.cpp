#include "common/tstring.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <utility>

#include "common/text.h"

using namespace corvel;

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

CTString::CTString(int number) : m_WideText(std::to_wstring(number)) {}

CTString::CTString(const char* text) : m_WideText(Decode(text)) {}

CTString::CTString(const wchar_t* text) : m_WideText(Copy(text)) {}

// NOLINTNEXTLINE(performance-unnecessary-value-param): exported with a text by value.
CTString::CTString(std::string text) : m_WideText(WideFromUtf8(text)) {}

CTString::CTString(std::wstring text) : m_WideText(std::move(text)) {}

CTString::CTString(const CTString& other) = default;

CTString& CTString::operator=(const CTString& other) = default;

CTString::~CTString() = default;

bool CTString::operator==(const CTString& other) const {
  // Byte by byte: the runtime looks at many bytes at once, and at wide characters one by one.
  const std::size_t units = m_WideText.size();
  return units == other.m_WideText.size() &&
         std::memcmp(m_WideText.data(), other.m_WideText.data(), units * sizeof(wchar_t)) == 0;
}

bool CTString::operator==(const wchar_t* other) const {
  return other != nullptr && m_WideText == other;
}

bool CTString::operator==(const char* other) const {
  return other != nullptr && m_WideText == Decode(other);
}

// Mostly two texts are equal or of different lengths, which is faster to see than in which order they are.
int CTString::Compare(const CTString& other) const {
  if (*this == other) return 0;
  const int order = m_WideText.compare(other.m_WideText);
  return (order > 0) - (order < 0);
}

CTString::operator std::string() {
  return Utf8FromWide(m_WideText);
}

CTString::operator std::wstring() {
  return m_WideText;
}

CTString::operator const char*() {
  PutUtf8FromWide(m_NarrowText, m_WideText);
  return m_NarrowText.c_str();
}

CTString::operator const wchar_t*() const {
  return m_WideText.c_str();
}

CTString CTString::operator+(const CTString& other) const {
  return CTString(m_WideText + other.m_WideText);
}

CTString CTString::operator+(const char* other) const {
  CTString sum(m_WideText);
  sum += other;
  return sum;
}

CTString CTString::operator+(const wchar_t* other) const {
  CTString sum(m_WideText);
  sum += other;
  return sum;
}

CTString& CTString::operator+=(const CTString& other) {
  m_WideText += other.m_WideText;
  return *this;
}

CTString& CTString::operator+=(const char* other) {
  if (other != nullptr) AppendWideFromUtf8(m_WideText, other);
  return *this;
}

CTString& CTString::operator+=(const wchar_t* other) {
  if (other != nullptr) m_WideText += other;
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
  return text == nullptr ? GetLength() : InsertUnits(m_WideText, pos, Decode(text), count);
}

int CTString::Insert(int pos, const wchar_t* text, int count) {
  return text == nullptr ? GetLength() : InsertUnits(m_WideText, pos, Copy(text), count);
}

const wchar_t* CTString::Erase(int pos, int count) {
  m_WideText.erase(Size(pos), Size(count));
  return m_WideText.c_str();
}

int CTString::Find(const wchar_t* needle, int start) const {
  if (needle == nullptr) return -1;
  return IndexOrNone(m_WideText.find(needle, Size(start)));
}

int CTString::ReverseFind(const wchar_t* needle, int start) const {
  if (needle == nullptr) return -1;
  return IndexOrNone(m_WideText.rfind(needle, Size(start)));
}

CTString CTString::Replace(std::size_t pos, std::size_t count, CTString with) {
  m_WideText.replace(pos, count, with.m_WideText);
  return *this;
}

CTString CTString::SubStr(int start, int count) const {
  return m_WideText.empty() ? CTString() : CTString(m_WideText.substr(Size(start), Size(count)));
}

const wchar_t* CTString::MakeUpper() {
  std::ranges::transform(m_WideText, m_WideText.begin(),
                         [](wchar_t unit) { return static_cast<wchar_t>(std::towupper(unit)); });
  return m_WideText.c_str();
}

const wchar_t* CTString::MakeLower() {
  std::ranges::transform(m_WideText, m_WideText.begin(),
                         [](wchar_t unit) { return static_cast<wchar_t>(std::towlower(unit)); });
  return m_WideText.c_str();
}

CTString& CTString::TrimLeft(const wchar_t* set) {
  if (set != nullptr) m_WideText.erase(0, m_WideText.find_first_not_of(set));
  return *this;
}

CTString& CTString::TrimRight(const wchar_t* set) {
  // No unit to keep gives npos, and npos + 1 is 0: everything goes.
  if (set != nullptr) m_WideText.erase(m_WideText.find_last_not_of(set) + 1);
  return *this;
}

void CTString::Format(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string printed = PrintNarrow(format, arguments).value_or(std::string());
  va_end(arguments);
  m_WideText = WideFromUtf8(printed);
}

void CTString::Format(const wchar_t* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  if (!PrintWide(m_WideText, format, arguments)) m_WideText.clear();
  va_end(arguments);
}

// The C runtime's own conversion: a number out of range is clamped, where the standard library throws.
int CTString::ToInt() const {
  return ::_wtoi(m_WideText.c_str());
}

int CTString::GetLength() const {
  return static_cast<int>(m_WideText.size());
}

bool CTString::IsEmpty() const {
  return m_WideText.empty();
}

void CTString::Empty() {
  m_WideText.clear();
}

void CTString::Clear() {
  Empty();
}

const wchar_t* CTString::CharToWChar(const char* text) {
  m_WideScratch = Decode(text);
  return m_WideScratch.c_str();
}

const char* CTString::WCharToChar(const wchar_t* text) {
  m_NarrowScratch = Utf8FromWide(Copy(text));
  return m_NarrowScratch.c_str();
}
