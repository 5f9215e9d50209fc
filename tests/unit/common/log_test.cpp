#include "common/log.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "support/test_log.h"

using corvel::QualifiedFunctionName;

namespace names {

std::string Free() {
  return QUALIFIED_FUNCTION;
}

std::function<void(int)> Returning(std::string& name) {
  name = QUALIFIED_FUNCTION;
  return [](int) {};
}

const char* Pointer(std::string& name) {
  name = QUALIFIED_FUNCTION;
  return "";
}

class Class {
 public:
  static std::string Static() { return QUALIFIED_FUNCTION; }
  std::string Member(int, const char*) const { return QUALIFIED_FUNCTION; }
  virtual std::string Virtual() { return QUALIFIED_FUNCTION; }
  virtual ~Class() = default;
  std::string Lambda() const {
    return [](int) -> std::string { return QUALIFIED_FUNCTION; }(1);
  }
  std::string NestedLambda() const {
    return [] { return [] { return std::string(QUALIFIED_FUNCTION); }(); }();
  }
  std::string operator()(int) const { return QUALIFIED_FUNCTION; }
  std::string operator<(int) const { return QUALIFIED_FUNCTION; }
  std::string operator->*(int) const { return QUALIFIED_FUNCTION; }
};

struct Constructed {
  Constructed() : name(QUALIFIED_FUNCTION) {}
  std::string name;
};

}  // namespace names

namespace corvel {

std::string OfTheLibrary() {
  return QUALIFIED_FUNCTION;
}

struct Class {
  static Class Make(std::string& name) {
    name = QUALIFIED_FUNCTION;
    return {};
  }
};

}  // namespace corvel

namespace {

std::string FreeUnnamed(const char*) {
  return QUALIFIED_FUNCTION;
}

std::string LambdaInUnnamed() {
  return [] { return std::string(QUALIFIED_FUNCTION); }();
}

struct Unnamed {
  static std::vector<int> Static(std::string& name) {
    name = QUALIFIED_FUNCTION;
    return {};
  }
};

template <typename T>
std::string Name(const T& value) {
  return value.Text();
}

// What this compiler makes of it

TEST(QualifiedFunction, NamesFreeFunctionsWithTheirNamespace) {
  EXPECT_EQ(names::Free(), "names::Free");
}

TEST(QualifiedFunction, NamesStaticAndOrdinaryMembersAlike) {
  EXPECT_EQ(names::Class::Static(), "names::Class::Static");
  EXPECT_EQ(names::Class().Member(1, ""), "names::Class::Member");
  EXPECT_EQ(names::Class().Virtual(), "names::Class::Virtual");
}

TEST(QualifiedFunction, NamesConstructors) {
  EXPECT_EQ(names::Constructed().name, "names::Constructed::Constructed");
}

TEST(QualifiedFunction, LeavesUnnamedNamespacesOut) {
  std::string name;
  EXPECT_EQ(FreeUnnamed(""), "FreeUnnamed");
  Unnamed::Static(name);
  EXPECT_EQ(name, "Unnamed::Static");
}

TEST(QualifiedFunction, LeavesTheLibrarysOwnNamespaceOut) {
  EXPECT_EQ(corvel::OfTheLibrary(), "OfTheLibrary");
  std::string name;
  corvel::Class::Make(name);
  EXPECT_EQ(name, "Class::Make");
}

TEST(QualifiedFunction, LeavesTheLibrarysOwnNamespaceOutInFrontAlone) {
  EXPECT_EQ(Name(QualifiedFunctionName("corvel::A corvel::{anonymous}::A::B(corvel::A)")), "A::B");
  EXPECT_EQ(Name(QualifiedFunctionName("corvel::(anonymous namespace)::A::A(int)")), "A::A");
  EXPECT_EQ(Name(QualifiedFunctionName("corvel::`anonymous-namespace'::Cut")), "Cut");
  EXPECT_EQ(Name(QualifiedFunctionName("void names::corvel::A::B()")), "names::corvel::A::B");
  EXPECT_EQ(Name(QualifiedFunctionName("void A<corvel::B>::C()")), "A<corvel::B>::C");
}

TEST(QualifiedFunction, NamesALambdaAfterTheFunctionItStandsIn) {
  EXPECT_EQ(names::Class().Lambda(), "names::Class::Lambda");
  EXPECT_EQ(names::Class().NestedLambda(), "names::Class::NestedLambda");
  EXPECT_EQ(LambdaInUnnamed(), "LambdaInUnnamed");
}

TEST(QualifiedFunction, IsNotMisledByTheReturnType) {
  std::string name;
  names::Returning(name);
  EXPECT_EQ(name, "names::Returning");
  names::Pointer(name);
  EXPECT_EQ(name, "names::Pointer");
}

// MSVC puts a blank behind "operator" here, the others do not.
TEST(QualifiedFunction, NamesOperators) {
  EXPECT_EQ(names::Class()(1).substr(0, 22), "names::Class::operator");
  EXPECT_EQ(names::Class() < 1, "names::Class::operator<");
  EXPECT_EQ(names::Class()->*1, "names::Class::operator->*");
}

// What the compilers spell out, each in its own way

TEST(QualifiedFunction, CutsWhatGccSpellsOut) {
  EXPECT_EQ(Name(QualifiedFunctionName("static bool ToolKit::Initialize()")), "ToolKit::Initialize");
  EXPECT_EQ(Name(QualifiedFunctionName("std::string {anonymous}::Cut(int)")), "Cut");
  EXPECT_EQ(Name(QualifiedFunctionName("std::map<int, void (*)(int)> A::B(char*)")), "A::B");
  EXPECT_EQ(Name(QualifiedFunctionName("A::Run(int)::<lambda(int)>")), "A::Run");
  EXPECT_EQ(Name(QualifiedFunctionName("A::operator const char*()")), "A::operator const char*");
  EXPECT_EQ(Name(QualifiedFunctionName("virtual A<int, char>::~A()")), "A<int, char>::~A");
}

TEST(QualifiedFunction, CutsWhatClangSpellsOut) {
  EXPECT_EQ(Name(QualifiedFunctionName("static bool ToolKit::Initialize()")), "ToolKit::Initialize");
  EXPECT_EQ(Name(QualifiedFunctionName("std::string (anonymous namespace)::Cut(int)")), "Cut");
  EXPECT_EQ(Name(QualifiedFunctionName("(anonymous namespace)::A::A(int)")), "A::A");
  EXPECT_EQ(Name(QualifiedFunctionName("auto A::Run(int)::(anonymous class)::operator()(int) const")),
            "A::Run");
}

TEST(QualifiedFunction, CutsWhatMsvcSpellsOut) {
  EXPECT_EQ(Name(QualifiedFunctionName("ToolKit::Initialize")), "ToolKit::Initialize");
  EXPECT_EQ(Name(QualifiedFunctionName("`anonymous-namespace'::Cut")), "Cut");
  EXPECT_EQ(Name(QualifiedFunctionName("A::Run::<lambda_0123456789abcdef>::operator ()")), "A::Run");
  EXPECT_EQ(Name(QualifiedFunctionName("A::operator ()")), "A::operator ()");
}

// The macros

void LogOneOfEach() {
  LOG_ERROR("failed: %d", 7);
  LOG_WARNING("odd");
  LOG_TRACE("done");
}

TEST(LogMacros, AddLevelComponentFunctionAndFile) {
  const TestLog log;
  LogOneOfEach();
  EXPECT_TRUE(log.Contains("\tFlashSvc\tError\tlog_test.cpp\t"));
  EXPECT_TRUE(log.Contains("\tLogOneOfEach\tfailed: 7##\r\n"));
  EXPECT_EQ(log.LevelOf("failed: 7"), "Error");
  EXPECT_EQ(log.LevelOf("odd"), "Warning");
  EXPECT_EQ(log.LevelOf("done"), "Trace");
}

void HelpTheNamedProcedure() {
  LOG_ERROR_AS("Named::Procedure", "failed: %d", 7);
  LOG_WARNING_AS("Named::Procedure", "odd");
  LOG_TRACE_AS("Named::Procedure", "done");
}

TEST(LogMacros, GiveTheProcedureThatAHelperBelongsTo) {
  const TestLog log;
  HelpTheNamedProcedure();
  EXPECT_TRUE(log.Contains("\tFlashSvc\tError\tlog_test.cpp\t"));
  EXPECT_TRUE(log.Contains("\tNamed::Procedure\tfailed: 7##\r\n"));
  EXPECT_TRUE(log.Contains("\tNamed::Procedure\todd##\r\n"));
  EXPECT_TRUE(log.Contains("\tNamed::Procedure\tdone##\r\n"));
  EXPECT_EQ(log.LevelOf("failed: 7"), "Error");
  EXPECT_EQ(log.LevelOf("odd"), "Warning");
  EXPECT_EQ(log.LevelOf("done"), "Trace");
  EXPECT_FALSE(log.Contains("HelpTheNamedProcedure"));
}

TEST(LogMacros, LeaveTheLastErrorAlone) {
  const TestLog log;
  ::SetLastError(1234);
  LOG_TRACE("creates the file");
  EXPECT_EQ(::GetLastError(), 1234u);
}

}  // namespace
