#include "simulator/failing_allocations.h"

#include <oleauto.h>

#include <atomic>
#include <cstdlib>

namespace simulator {

namespace {

std::atomic<unsigned> g_first{0};
std::atomic<unsigned> g_count{0};
std::atomic<unsigned> g_asked{0};
std::atomic<unsigned> g_refused{0};

bool Refuses() {
  const unsigned number = ++g_asked;
  const unsigned first = g_first;
  if (first == 0 || number < first || number - first >= g_count) return false;
  ++g_refused;
  return true;
}

void* __cdecl Malloc(std::size_t size) {
  return Refuses() ? nullptr : std::malloc(size);
}

void* __cdecl Calloc(std::size_t count, std::size_t size) {
  return Refuses() ? nullptr : std::calloc(count, size);
}

void* __cdecl Realloc(void* memory, std::size_t size) {
  return Refuses() ? nullptr : std::realloc(memory, size);
}

void* WINAPI AllocateOnHeap(HANDLE heap, DWORD flags, SIZE_T size) {
  return Refuses() ? nullptr : ::HeapAlloc(heap, flags, size);
}

BSTR WINAPI AllocateText(const OLECHAR* text) {
  return Refuses() ? nullptr : ::SysAllocString(text);
}

BSTR WINAPI AllocateTextOfLength(const OLECHAR* text, UINT length) {
  return Refuses() ? nullptr : ::SysAllocStringLen(text, length);
}

BSTR WINAPI AllocateBytes(LPCSTR bytes, UINT length) {
  return Refuses() ? nullptr : ::SysAllocStringByteLen(bytes, length);
}

SAFEARRAY* WINAPI CreateArray(VARTYPE type, UINT dimensions, SAFEARRAYBOUND* bounds) {
  return Refuses() ? nullptr : ::SafeArrayCreate(type, dimensions, bounds);
}

SAFEARRAY* WINAPI CreateVector(VARTYPE type, LONG lower, ULONG count) {
  return Refuses() ? nullptr : ::SafeArrayCreateVector(type, lower, count);
}

}  // namespace

FailingAllocations::FailingAllocations(HMODULE module) : m_Patch(module) {
  m_InPlace = m_Patch.ReplaceIfImported("HeapAlloc", &AllocateOnHeap);
  // A module whose runtime is linked in allocates from the process heap alone; nobody has to know all of
  // these.
  m_Patch.ReplaceIfImported("malloc", &Malloc);
  m_Patch.ReplaceIfImported("calloc", &Calloc);
  m_Patch.ReplaceIfImported("realloc", &Realloc);
  m_Patch.ReplaceIfImported("SysAllocString", &AllocateText);
  m_Patch.ReplaceIfImported("SysAllocStringLen", &AllocateTextOfLength);
  m_Patch.ReplaceIfImported("SysAllocStringByteLen", &AllocateBytes);
  m_Patch.ReplaceIfImported("SafeArrayCreate", &CreateArray);
  m_Patch.ReplaceIfImported("SafeArrayCreateVector", &CreateVector);
}

void FailingAllocations::Fail(unsigned first, unsigned count) {
  g_first = 0;
  g_asked = 0;
  g_refused = 0;
  g_count = count;
  g_first = first;
}

void FailingAllocations::Restore() {
  g_first = 0;
}

unsigned FailingAllocations::Asked() {
  return g_asked;
}

unsigned FailingAllocations::Refused() {
  return g_refused;
}

}  // namespace simulator
