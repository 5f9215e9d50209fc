#include "download/atprocessor.h"
#include <cstdlib>
ATProcessor* ATProcessor::GetInstance() {
  std::abort();
}
int ATProcessor::sendATCmd(const char*, std::uint32_t, char*, std::uint32_t*) {
  std::abort();
}
