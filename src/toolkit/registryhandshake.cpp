#include <cstdlib>
#include "toolkit/toolkit.h"
void ToolKit::GetLabelsLocation() {
  std::abort();
}
int ToolKit::ReadRegistry(HKEY__*, const wchar_t*, const wchar_t*, int) {
  std::abort();
}
bool ToolKit::WriteRegistry(HKEY__*, const wchar_t*, const wchar_t*, int) {
  std::abort();
}
int ToolKit::GetFlashReadyFlag(HKEY__*, const wchar_t*) {
  std::abort();
}
int ToolKit::GetFlashRetryTimes(HKEY__*, const wchar_t*) {
  std::abort();
}
void ToolKit::SetFlashReadyFlag(HKEY__*, const wchar_t*, int) {
  std::abort();
}
void ToolKit::SetFlashTimeOut(HKEY__*, const wchar_t*, int) {
  std::abort();
}
void ToolKit::SetFlashProcess(HKEY__*, const wchar_t*, int) {
  std::abort();
}
void ToolKit::SetFlashOnGoingFlag(HKEY__*, const wchar_t*, int) {
  std::abort();
}
void ToolKit::SetFlashResult(HKEY__*, const wchar_t*, int) {
  std::abort();
}
bool ToolKit::MonitorFlashReadyFlag() {
  std::abort();
}
