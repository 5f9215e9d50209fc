#include "hosts/common/json_output.h"

#include <iostream>

namespace hosts {

void PrintJson(const nlohmann::ordered_json& fields, JsonLayout layout, int version) {
  nlohmann::ordered_json document{{"version", version}};
  document.update(fields);
  const int indent = layout == JsonLayout::Indented ? 2 : -1;
  std::cout << document.dump(indent, ' ', false, nlohmann::ordered_json::error_handler_t::replace)
            << std::endl;
}

}  // namespace hosts
