// Arrays as the Mobile Broadband service hands them out, of any shape.

#include <windows.h>

#include <array>
#include <cstring>

#include "common/automation.h"
#include "download/cmbnsink.h"
#include "download/mobilebroadband.h"
#include "hostile/captured_log.h"
#include "hostile/guarded_memory.h"
#include "hostile/property.h"

namespace hostile {

namespace {

GuardedMemory& Guarded() {
  static GuardedMemory memory(1 << 16);
  return memory;
}

/// An array as its description says, with just the memory that it needs. Room for a second dimension.
struct Described {
  alignas(SAFEARRAY) std::array<std::byte, sizeof(SAFEARRAY) + sizeof(SAFEARRAYBOUND)> memory{};
  std::string bytes;

  SAFEARRAY* Get() { return reinterpret_cast<SAFEARRAY*>(memory.data()); }
  /// Of the first dimension, which is described last.
  std::size_t Count() { return (&Get()->rgsabound[0])[Get()->cDims - 1].cElements; }
  bool Is(std::size_t elementSize) { return Get()->cDims == 1 && Get()->cbElements == elementSize; }
};

constexpr std::array<ULONG, 6> kElementSizes{1, 4, 2, 8, sizeof(MBN_DEVICE_SERVICE), 3};
constexpr std::array<LONG, 6> kLowerBounds{0, 1, -5, 1000, LONG_MIN, LONG_MAX - 300};

void Describe(Choices& choices, Described& array) {
  SAFEARRAY& description = *array.Get();
  description.cDims = static_cast<USHORT>(choices.Below(12) == 0 ? 2 : 1);
  description.fFeatures = static_cast<USHORT>(choices.Flag() ? FADF_HAVEVARTYPE : FADF_FIXEDSIZE);
  description.cbElements = kElementSizes[choices.Below(kElementSizes.size())];
  description.rgsabound[0] = {static_cast<ULONG>(choices.Below(64)),
                              kLowerBounds[choices.Below(kLowerBounds.size())]};
  (&description.rgsabound[0])[1] = {1, 0};
  const std::size_t size = std::size_t{description.cbElements} * description.rgsabound[0].cElements;
  array.bytes = choices.Bytes(size);
  array.bytes.resize(size);
  char* const data = Guarded().Room<char>(array.bytes.size());
  array.bytes.copy(data, array.bytes.size());
  description.pvData = data;
}

std::string MakeArray(Random& random) {
  return random.Bytes(6 + random.Size(400));
}

/// Only an array of just these elements has any, and then all of them.
template <typename Element>
void CheckElements(Described& array) {
  // NOLINTBEGIN(bugprone-sizeof-expression): an element may be a pointer
  std::string read;
  for (const Element& element : corvel::ArrayElements<Element>(array.Get()))
    read.append(reinterpret_cast<const char*>(&element), sizeof element);
  ExpectEqual("the elements", read, array.Is(sizeof(Element)) ? array.bytes : std::string());
  // NOLINTEND(bugprone-sizeof-expression)
  ExpectEqual("the locks that stay", static_cast<unsigned>(array.Get()->cLocks), 0u);
}

void CheckShapes(std::string_view input) {
  Choices choices(input);
  Described array;
  Describe(choices, array);
  CheckElements<BYTE>(array);
  CheckElements<ULONG>(array);
  CheckElements<IUnknown*>(array);
  CheckElements<MBN_DEVICE_SERVICE>(array);
}

/// What the sink keeps and tells of an array that a notification brings.
void CheckNotifications(std::string_view input) {
  static CMbnSinks sink;
  Choices choices(input);
  Described array;
  Describe(choices, array);
  const HRESULT status = choices.Flag() ? S_OK : E_FAIL;
  g_SetCommandResponse = g_QueryCommandResponse = {BYTE{77}};
  g_ulNumberSupportedCommands = 4711;

  CapturedLog::Take();
  ExpectEqual("the answer", sink.OnQuerySupportedCommandsComplete(nullptr, array.Get(), status, 1), S_OK);
  const std::string log = CapturedLog::Take();
  ExpectEqual("the commands", g_ulNumberSupportedCommands.load(), static_cast<ULONG>(array.Count()));
  std::size_t told = 0;
  for (std::size_t at = log.find("ulCommandId="); at != std::string::npos;
       at = log.find("ulCommandId=", at + 1))
    ++told;
  ExpectEqual("the ids that are told", told, array.Is(sizeof(ULONG)) ? array.Count() : 0);

  std::vector<BYTE> bytes;
  if (array.Is(1)) bytes.assign(array.bytes.begin(), array.bytes.end());
  sink.OnSetCommandComplete(nullptr, 2, array.Get(), status, 3);
  sink.OnQueryCommandComplete(nullptr, 2, array.Get(), status, 3);
  const std::vector<BYTE> kept = status == S_OK ? bytes : std::vector<BYTE>{BYTE{77}};
  ExpectEqual("the response to a command", g_SetCommandResponse, kept);
  ExpectEqual("the response to a query", g_QueryCommandResponse, kept);
  sink.OnReadData(nullptr, array.Get());
  sink.OnEventNotification(static_cast<IMbnDeviceService*>(nullptr), 1, array.Get());
  const std::string count = "\t NumElements = " + std::to_string(bytes.size()) + "\n";
  Expect(CapturedLog::Tells(CapturedLog::Take(), count), "the number of bytes is not told");
  ExpectEqual("the locks that stay", static_cast<unsigned>(array.Get()->cLocks), 0u);
}

}  // namespace

std::vector<Property> ArrayProperties() {
  return {{"array-shape", 1, &MakeArray, &CheckShapes},
          {"array-notification", 50, &MakeArray, &CheckNotifications,
           [] { return std::shared_ptr<void>(std::make_shared<CapturedLog>()); }}};
}

}  // namespace hostile
