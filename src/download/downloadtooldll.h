#pragma once

#include <cstdint>
#include <memory>

#include <windows.h>

#include "download/flashlibrary.h"

/// Binds the program to the closed flashing library, which is loaded from the installation folder. The
/// binding is process-wide; it is loaded and unloaded by whoever makes and ends the download engine.
class CDownloadToolDll {
 public:
  /// Loads the library and registers the callback. @return false only when the library refused the
  /// callback: one that is missing, or lacks functions, is bound with null slots.
  static bool Load();
  /// Gives the library up; attempts that still use it keep it loaded until they end.
  static void Unload();
  /// The present binding; null while there is none.
  static std::shared_ptr<corvel::FlashLibrary> Library();

  /// What the library calls with its progress, on any thread.
  static void HandleCallbacks(std::uint8_t channel, std::int32_t status, const char* statusText);

 private:
  static bool SetFunctionPointers(corvel::FlashLibrary& library);
  static FARPROC GetFunctionFromDll(const char* name);
  static bool AssociateCallbackWithDll(corvel::FlashLibrary& library);
};
