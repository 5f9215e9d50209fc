#pragma once

#include <cstddef>
#include <string>

#include "hosts/service/service_control.h"

namespace hosts {

/// What "status" shows, for lines of so many columns.
/// @param flashResult how the last flash ended, in words.
std::string ServiceStatusText(const ServiceState& state, const std::string& flashResult, std::size_t columns);

}  // namespace hosts
