#pragma once

#include <windows.h>

#include "simulator/import_patch.h"
#include "simulator/named_objects.h"

/// Gives the library's named events and semaphores names of this process's own, because tests that run in
/// parallel would wake each other by the real ones.
class OwnNames {
 public:
  OwnNames() {
    m_Patch.Replace("CreateSemaphoreW", &simulator::CreateOwnSemaphore);
    m_Patch.Replace("CreateEventW", &simulator::CreateOwnEvent);
  }

 private:
  simulator::ImportPatch m_Patch{::GetModuleHandleW(L"toolkit_internals.dll")};
};
