#include "hosts/service/service_text.h"

#include "hosts/common/text.h"
#include "hosts/common/text_layout.h"
#include "hosts/service/identity.h"

namespace hosts {

std::string ServiceStatusText(const ServiceState& state, const std::string& flashResult,
                              std::size_t columns) {
  std::string service =
      ToUtf8(kServiceName) + ": " + (state.installed ? NameOfState(state.state) : "not installed");
  if (state.processId != 0) service += ", process " + std::to_string(state.processId);
  return Wrapped(service, columns, "", "  ") + Wrapped("Last flash: " + flashResult, columns, "", "  ");
}

}  // namespace hosts
