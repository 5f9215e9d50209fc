#include "hosts/common/json_output.h"

#include <iostream>

namespace hosts {

void PrintJson(const nlohmann::ordered_json& document, JsonLayout layout) {
  const int indent = layout == JsonLayout::Indented ? 2 : -1;
  std::cout << document.dump(indent, ' ', false, nlohmann::ordered_json::error_handler_t::replace)
            << std::endl;
}

}  // namespace hosts
