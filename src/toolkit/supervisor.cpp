#include <cstdlib>
#include "toolkit/toolkit.h"
bool ToolKit::MainThreadImplementation(void*) {
  std::abort();
}
