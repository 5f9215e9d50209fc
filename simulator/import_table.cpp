#include "simulator/import_table.h"

#include <cstddef>

namespace simulator {

namespace {

template <typename T>
T* At(HMODULE module, std::size_t offset) {
  return reinterpret_cast<T*>(reinterpret_cast<std::byte*>(module) + offset);
}

}  // namespace

void VisitImports(HMODULE module, const std::function<void(const ImportEntry&)>& visit) {
  const auto* dos = At<IMAGE_DOS_HEADER>(module, 0);
  const auto* headers = At<IMAGE_NT_HEADERS>(module, static_cast<std::size_t>(dos->e_lfanew));
  const auto& directory = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  if (directory.VirtualAddress == 0) return;

  for (const auto* library = At<IMAGE_IMPORT_DESCRIPTOR>(module, directory.VirtualAddress);
       library->Name != 0; ++library) {
    const auto* name = At<IMAGE_THUNK_DATA>(module, library->OriginalFirstThunk);
    auto* slot = At<IMAGE_THUNK_DATA>(module, library->FirstThunk);
    for (; name->u1.AddressOfData != 0; ++name, ++slot) {
      if (IMAGE_SNAP_BY_ORDINAL(name->u1.Ordinal)) continue;
      const auto* import = At<IMAGE_IMPORT_BY_NAME>(module, static_cast<std::size_t>(name->u1.AddressOfData));
      visit({At<char>(module, library->Name), reinterpret_cast<const char*>(import->Name),
             reinterpret_cast<void**>(&slot->u1.Function)});
    }
  }
}

void WriteSlot(void** slot, void* address) {
  DWORD protection = 0;
  ::VirtualProtect(slot, sizeof(void*), PAGE_READWRITE, &protection);
  ::InterlockedExchangePointer(slot, address);
  ::VirtualProtect(slot, sizeof(void*), protection, &protection);
}

}  // namespace simulator
