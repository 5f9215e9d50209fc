#pragma once

#include <windows.h>

#include <cfgmgr32.h>

namespace simulator {

/// The platform's functions as one module's import table has them at the moment.
struct PlatformCalls {
  // NOLINTBEGIN(readability-identifier-naming): called as the functions are
  decltype(&::CM_Get_Device_ID_List_SizeW) IdListSize;
  decltype(&::CM_Get_Device_ID_ListW) IdList;
  decltype(&::CM_Get_Device_Interface_List_SizeW) InterfaceListSize;
  decltype(&::CM_Get_Device_Interface_ListW) InterfaceList;
  decltype(&::CM_Locate_DevNodeW) Locate;
  decltype(&::CM_Reenumerate_DevNode) Reenumerate;
  decltype(&::CM_Get_DevNode_Registry_PropertyW) Property;
  decltype(&::CreateFileW) CreateFileWide;
  decltype(&::CreateFileA) CreateFileNarrow;
  decltype(&::CloseHandle) Close;
  decltype(&::DeviceIoControl) IoControl;
  decltype(&::GetOverlappedResultEx) OverlappedResult;
  decltype(&::CancelIoEx) CancelIo;
  decltype(&::GetCommState) GetState;
  decltype(&::SetCommState) SetState;
  decltype(&::PurgeComm) Purge;
  decltype(&::ClearCommError) ClearError;
  decltype(&::ReadFile) Read;
  decltype(&::WriteFile) Write;
  decltype(&::LoadLibraryW) Load;
  decltype(&::GetProcAddress) Address;
  decltype(&::FreeLibrary) Free;
  decltype(&::Sleep) SleepFor;
  decltype(&::WaitForSingleObject) Wait;
  decltype(&::GetTickCount64) TickCount;
  decltype(&::CreateThread) StartThread;
  decltype(&::RegOpenKeyExW) OpenKey;
  // NOLINTEND(readability-identifier-naming)
};

/// Type of the library's only export, "GetPlatformCalls".
using GetPlatformCallsFunction = void (*)(PlatformCalls* calls);

}  // namespace simulator
