#include "unit/simulator/hook_calls.h"

#include <cstdint>

extern "C" HOOK_EXPORT double MixedArguments(double first, int second, float third, double fourth,
                                             std::int64_t fifth, int sixth, float seventh, double eighth) {
  return first + 2 * second + 3 * third + 4 * fourth + 5.0 * static_cast<double>(fifth) + 6 * sixth +
         7 * seventh + 8 * eighth;
}
