#include <gtest/gtest.h>

#include <windows.h>

#include <oleauto.h>

#include <type_traits>
#include <utility>

#include "simulator/import_patch.h"
#include "support/com_apartment.h"
#include "xmlfile/xmlfile.h"

namespace {

using QUENTA::Brevant::Interfaces::ToolkitCore::CXMLFile;
using QUENTA::Brevant::Interfaces::ToolkitCore::XML_NAME_VALUE;

// No exception leaves the library: without memory for a copy of the name the process ends, as without memory
// for a value.
static_assert(std::is_nothrow_copy_constructible_v<XML_NAME_VALUE>);
static_assert(std::is_nothrow_move_constructible_v<XML_NAME_VALUE>);
static_assert(std::is_nothrow_copy_assignable_v<XML_NAME_VALUE>);
static_assert(std::is_nothrow_move_assignable_v<XML_NAME_VALUE>);
static_assert(noexcept(std::declval<const XML_NAME_VALUE&>().Name()));

USHORT ShortOf(const wchar_t* text) {
  return XML_NAME_VALUE(L"port", text, VT_UI2).Value().uiVal;
}

int g_freed = 0;

void WINAPI CountFreeing(BSTR) {
  ++g_freed;
}

TEST(XmlNameValueTest, ATextBecomesABstr) {
  const XML_NAME_VALUE record(L"name", L"a & \u00E4", VT_BSTR);
  EXPECT_TRUE(record.Name() == L"name");
  EXPECT_EQ(record.Value().vt, VT_BSTR);
  EXPECT_STREQ(record.Value().bstrVal, L"a & \u00E4");
  EXPECT_EQ(::SysStringLen(record.Value().bstrVal), 5u);
}

TEST(XmlNameValueTest, AnEmptyTextBecomesAnEmptyBstr) {
  EXPECT_NE(XML_NAME_VALUE(L"name", L"", VT_BSTR).Value().bstrVal, nullptr);
}

TEST(XmlNameValueTest, ANumberIsCutToSixteenBits) {
  EXPECT_EQ(XML_NAME_VALUE(L"port", L"70000", VT_UI2).Value().vt, VT_UI2);
  EXPECT_EQ(ShortOf(L"70000"), 4464);
  EXPECT_EQ(ShortOf(L"65535"), 65535);
  EXPECT_EQ(ShortOf(L"-1"), 65535);
}

TEST(XmlNameValueTest, ANumberIsWhatLeadsTheText) {
  EXPECT_EQ(ShortOf(L"12 MHz"), 12);
  EXPECT_EQ(ShortOf(L"MHz"), 0);
  EXPECT_EQ(ShortOf(L""), 0);
}

TEST(XmlNameValueTest, OfAnyOtherTypeOnlyTheTypeIsStored) {
  const VARIANT value = XML_NAME_VALUE(L"name", L"12", VT_DISPATCH).Value();
  EXPECT_EQ(value.vt, VT_DISPATCH);
  EXPECT_EQ(value.pdispVal, nullptr) << "a stray pointer would be used by whoever reads the value";
  EXPECT_EQ(XML_NAME_VALUE(L"name", L"12", VT_I4).Value().lVal, 0);
}

TEST(XmlNameValueTest, ATimeBecomesADate) {
  const SYSTEMTIME time{2026, 11, 5, 20, 12, 0, 0, 0};
  const VARIANT value = XML_NAME_VALUE(L"date", time).Value();
  EXPECT_EQ(value.vt, VT_DATE);
  EXPECT_DOUBLE_EQ(value.date, 46346.5);
}

TEST(XmlNameValueTest, ATimeThatNoDateCanHoldBecomesZero) {
  const SYSTEMTIME time{2026, 13, 5, 20, 12, 0, 0, 0};
  const VARIANT value = XML_NAME_VALUE(L"date", time).Value();
  EXPECT_EQ(value.vt, VT_DATE);
  EXPECT_EQ(value.date, 0.0);
}

TEST(XmlNameValueTest, CopiesShareTheBstrAndNobodyFreesIt) {
  simulator::ImportPatch inTheLibrary(::GetModuleHandleW(L"toolkit_internals.dll"));
  simulator::ImportPatch inTheHost(::GetModuleHandleW(nullptr));
  inTheLibrary.Replace("SysFreeString", &CountFreeing);
  inTheHost.Replace("SysFreeString", &CountFreeing);
  g_freed = 0;

  BSTR text = nullptr;
  {
    XML_NAME_VALUE record(L"name", L"text", VT_BSTR);
    text = record.Value().bstrVal;
    EXPECT_EQ(record.Value().bstrVal, text);
    const XML_NAME_VALUE copy(record);
    EXPECT_EQ(copy.Value().bstrVal, text);
    XML_NAME_VALUE assigned(L"other", L"1", VT_UI2);
    assigned = record;
    EXPECT_EQ(assigned.Value().bstrVal, text);
    EXPECT_TRUE(assigned.Name() == L"name");
    XML_NAME_VALUE moved(std::move(record));
    EXPECT_EQ(moved.Value().bstrVal, text);
    XML_NAME_VALUE taken(L"other", L"1", VT_UI2);
    taken = std::move(moved);
    EXPECT_EQ(taken.Value().bstrVal, text);
    EXPECT_TRUE(taken.Name() == L"name");
  }
  EXPECT_EQ(g_freed, 0);
  EXPECT_STREQ(text, L"text");
  inTheHost.Restore();
  ::SysFreeString(text);
}

BSTR WINAPI NoMemory(const OLECHAR*, UINT) {
  return nullptr;
}

/// The process of the statement has no memory for a BSTR, and catches whatever it can.
template <typename Action>
void WithoutMemoryForTexts(Action action) {
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  patch.Replace("SysAllocStringLen", &NoMemory);
  try {
    action();
  } catch (...) {
  }
  ::TerminateProcess(::GetCurrentProcess(), 0);
}

TEST(XmlMemoryDeathTest, NoMemoryForARecordsTextEndsTheProcess) {
  EXPECT_DEATH(WithoutMemoryForTexts([] { XML_NAME_VALUE(L"name", L"text", VT_BSTR); }), "");
}

TEST(XmlMemoryDeathTest, NoMemoryForADocumentsTextEndsTheProcess) {
  EXPECT_DEATH(WithoutMemoryForTexts([] {
                 const ComApartment com;
                 CXMLFile(L"x.xml").CreateRootNode(L"root", nullptr);
               }),
               "");
}

}  // namespace
