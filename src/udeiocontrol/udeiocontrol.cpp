#include "udeiocontrol/udeiocontrol.h"
#include <cstdlib>
CUdeIoControl* CUdeIoControl::GetInstance() {
  std::abort();
}
bool CUdeIoControl::TriggerFlashReset() {
  std::abort();
}
