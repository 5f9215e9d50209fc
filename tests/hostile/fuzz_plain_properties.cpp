// The properties of plain arithmetic and texts for libFuzzer: the first byte says which.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "hostile/property.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::vector<hostile::Property> properties = hostile::PlainProperties();
  if (size == 0) return 0;
  const hostile::Property& property = properties[data[0] % properties.size()];
  try {
    property.check({reinterpret_cast<const char*>(data) + 1, size - 1});
  } catch (const hostile::Violation& violation) {
    std::fprintf(stderr, "FINDING %s: %s\n", property.name, violation.what());
    std::abort();
  }
  return 0;
}
