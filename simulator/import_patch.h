#pragma once

#include <windows.h>

#include <string>
#include <utility>
#include <vector>

namespace simulator {

/// Replaces functions in one module's import table for as long as it lives. The module's calls go to the
/// replacement; everybody else's, the patching program's own included, still go to the system.
///
/// Install before the code under test is entered: an optimiser may read a slot once per function. Not
/// thread-safe; replacements run on whatever thread calls them.
class ImportPatch {
 public:
  explicit ImportPatch(HMODULE module) : m_Module(module) {}
  ~ImportPatch() { Restore(); }
  ImportPatch(const ImportPatch&) = delete;
  ImportPatch& operator=(const ImportPatch&) = delete;

  /// Puts `replacement` in place of the imported `function`, whichever library it comes from.
  /// @throws std::runtime_error when the module does not import it: the calls would go to the system
  /// unnoticed.
  template <typename Function>
  void Replace(const char* function, Function* replacement) {
    if (!ReplaceIfImported(function, replacement)) ThrowMissing(function);
  }

  /// The same for a function that the module may lack.
  /// @return false when the module does not import it.
  template <typename Function>
  bool ReplaceIfImported(const char* function, Function* replacement) {
    return ReplaceSlot(function, reinterpret_cast<void*>(replacement));
  }

  /// Puts all original entries back.
  void Restore();

 private:
  bool ReplaceSlot(const char* function, void* replacement);
  [[noreturn]] void ThrowMissing(const char* function) const;

  HMODULE m_Module;
  std::vector<std::pair<void**, void*>> m_Originals;
};

/// Names of all functions that a module imports by name, with their libraries: "kernel32.dll!Sleep".
std::vector<std::string> ImportedFunctions(HMODULE module);

}  // namespace simulator
