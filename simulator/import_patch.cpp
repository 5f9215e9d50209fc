#include "simulator/import_patch.h"

#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "simulator/import_table.h"

namespace simulator {

bool ImportPatch::ReplaceSlot(const char* function, void* replacement) {
  bool found = false;
  VisitImports(m_Module, [&](const ImportEntry& import) {
    if (std::strcmp(import.function, function) != 0) return;
    m_Originals.emplace_back(import.slot, *import.slot);
    WriteSlot(import.slot, replacement);
    found = true;
  });
  return found;
}

void ImportPatch::ThrowMissing(const char* function) const {
  std::wstring path(MAX_PATH, L'\0');
  path.resize(::GetModuleFileNameW(m_Module, path.data(), MAX_PATH));
  throw std::runtime_error(std::filesystem::path(path).filename().string() + " does not import " + function);
}

void ImportPatch::Restore() {
  for (; !m_Originals.empty(); m_Originals.pop_back()) {
    const auto& [slot, original] = m_Originals.back();
    WriteSlot(slot, original);
  }
}

std::vector<std::string> ImportedFunctions(HMODULE module) {
  std::vector<std::string> names;
  VisitImports(module, [&](const ImportEntry& import) {
    names.push_back(std::string(import.library) + "!" + import.function);
  });
  return names;
}

}  // namespace simulator
