#include "fault/owned_memory.h"

#include <oleauto.h>

#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <utility>

#include "simulator/threads/lock.h"

namespace campaign {

namespace {

/// By address; texts and arrays, whose size nobody asks for, with none.
class Blocks {
 public:
  void* Took(void* block, std::size_t bytes) {
    if (block == nullptr) return nullptr;
    const std::lock_guard lock(m_Lock);
    const auto [entry, isNew] = m_Sizes.try_emplace(block, bytes);
    // Somebody else gave back what the module had under this address.
    if (!isNew) m_Bytes -= std::exchange(entry->second, bytes);
    m_Bytes += bytes;
    return block;
  }
  /// @return its size; nothing for one that the module did not have.
  std::optional<std::size_t> GaveBack(const void* block) {
    const std::lock_guard lock(m_Lock);
    const auto found = m_Sizes.find(block);
    if (found == m_Sizes.end()) return std::nullopt;
    const std::size_t bytes = found->second;
    m_Bytes -= bytes;
    m_Sizes.erase(found);
    return bytes;
  }
  OwnedMemory::Use Now() {
    const std::lock_guard lock(m_Lock);
    return {m_Sizes.size(), m_Bytes};
  }

 private:
  simulator::Lock m_Lock;
  std::unordered_map<const void*, std::size_t> m_Sizes;
  std::size_t m_Bytes = 0;
};

/// Never destroyed: threads of the module go on until the process ends.
Blocks& All() {
  static Blocks& blocks = *new Blocks;
  return blocks;
}

void* __cdecl Malloc(std::size_t size) {
  return All().Took(std::malloc(size), size);
}

void* __cdecl Calloc(std::size_t count, std::size_t size) {
  return All().Took(std::calloc(count, size), count * size);
}

void* __cdecl Realloc(void* memory, std::size_t size) {
  // Noted in this order: another thread may be given the old address at once.
  const auto former = reinterpret_cast<std::uintptr_t>(memory);
  const auto before = All().GaveBack(memory);
  void* const moved = All().Took(std::realloc(memory, size), size);
  // It is still the module's then.
  if (moved == nullptr && before && size != 0) All().Took(reinterpret_cast<void*>(former), *before);
  return moved;
}

void __cdecl Free(void* memory) {
  All().GaveBack(memory);
  std::free(memory);
}

void* WINAPI AllocateOnHeap(HANDLE heap, DWORD flags, SIZE_T size) {
  return All().Took(::HeapAlloc(heap, flags, size), size);
}

void* WINAPI ReallocateOnHeap(HANDLE heap, DWORD flags, LPVOID memory, SIZE_T size) {
  const auto former = reinterpret_cast<std::uintptr_t>(memory);
  const auto before = All().GaveBack(memory);
  void* const moved = All().Took(::HeapReAlloc(heap, flags, memory, size), size);
  if (moved == nullptr && before) All().Took(reinterpret_cast<void*>(former), *before);
  return moved;
}

BOOL WINAPI FreeOnHeap(HANDLE heap, DWORD flags, LPVOID memory) {
  All().GaveBack(memory);
  return ::HeapFree(heap, flags, memory);
}

BSTR WINAPI AllocateText(const OLECHAR* text) {
  const BSTR copy = ::SysAllocString(text);
  All().Took(copy, 0);
  return copy;
}

BSTR WINAPI AllocateTextOfLength(const OLECHAR* text, UINT length) {
  const BSTR copy = ::SysAllocStringLen(text, length);
  All().Took(copy, 0);
  return copy;
}

void WINAPI FreeText(BSTR text) {
  All().GaveBack(text);
  ::SysFreeString(text);
}

SAFEARRAY* WINAPI CreateArray(VARTYPE type, UINT dimensions, SAFEARRAYBOUND* bounds) {
  SAFEARRAY* const array = ::SafeArrayCreate(type, dimensions, bounds);
  All().Took(array, 0);
  return array;
}

HRESULT WINAPI DestroyArray(SAFEARRAY* array) {
  All().GaveBack(array);
  return ::SafeArrayDestroy(array);
}

HRESULT WINAPI Clear(VARIANTARG* variant) {
  if (variant->vt == VT_BSTR) All().GaveBack(variant->bstrVal);
  if ((variant->vt & VT_ARRAY) != 0) All().GaveBack(variant->parray);
  return ::VariantClear(variant);
}

}  // namespace

OwnedMemory::OwnedMemory(HMODULE module) : m_Patch(module) {
  m_Patch.Replace("HeapAlloc", &AllocateOnHeap);
  m_Patch.Replace("HeapFree", &FreeOnHeap);
  m_Patch.ReplaceIfImported("HeapReAlloc", &ReallocateOnHeap);
  // A module whose runtime is linked in allocates from the process heap alone.
  m_Patch.ReplaceIfImported("malloc", &Malloc);
  m_Patch.ReplaceIfImported("calloc", &Calloc);
  m_Patch.ReplaceIfImported("realloc", &Realloc);
  m_Patch.ReplaceIfImported("free", &Free);
  m_Patch.ReplaceIfImported("SysAllocString", &AllocateText);
  m_Patch.ReplaceIfImported("SysAllocStringLen", &AllocateTextOfLength);
  m_Patch.ReplaceIfImported("SysFreeString", &FreeText);
  m_Patch.ReplaceIfImported("SafeArrayCreate", &CreateArray);
  m_Patch.ReplaceIfImported("SafeArrayDestroy", &DestroyArray);
  m_Patch.ReplaceIfImported("VariantClear", &Clear);
}

OwnedMemory::Use OwnedMemory::Now() {
  return All().Now();
}

}  // namespace campaign
