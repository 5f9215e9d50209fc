#include <cstdlib>
#include "toolkit/toolkit.h"
bool ToolKit::FetchModemNVMFls(CTString) {
  std::abort();
}
void ToolKit::DeleteFLSFiles() {
  std::abort();
}
void ToolKit::KeepLogFileNum(CTString, unsigned int) {
  std::abort();
}
