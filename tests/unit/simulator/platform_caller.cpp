#include "unit/simulator/platform_calls.h"

#if defined(_MSC_VER)
#define EXPORTED __declspec(dllexport)
#else
#define EXPORTED __attribute__((dllexport))
#endif

extern "C" EXPORTED void GetPlatformCalls(simulator::PlatformCalls* calls) {
  *calls = {
      &::CM_Get_Device_ID_List_SizeW,
      &::CM_Get_Device_ID_ListW,
      &::CM_Get_Device_Interface_List_SizeW,
      &::CM_Get_Device_Interface_ListW,
      &::CM_Locate_DevNodeW,
      &::CM_Reenumerate_DevNode,
      &::CM_Get_DevNode_Registry_PropertyW,
      &::CreateFileW,
      &::CreateFileA,
      &::CloseHandle,
      &::DeviceIoControl,
      &::GetOverlappedResultEx,
      &::CancelIoEx,
      &::GetCommState,
      &::SetCommState,
      &::PurgeComm,
      &::ClearCommError,
      &::ReadFile,
      &::WriteFile,
      &::LoadLibraryW,
      &::GetProcAddress,
      &::FreeLibrary,
      &::Sleep,
      &::WaitForSingleObject,
      &::GetTickCount64,
      &::CreateThread,
      &::RegOpenKeyExW,
  };
}
