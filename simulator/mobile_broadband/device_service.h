#pragma once

#include <string>

#include "download/mobilebroadband.h"
#include "simulator/mobile_broadband/service.h"

namespace simulator {

/// A device service of an interface, by their ids; its requests complete on the service's thread. The caller
/// gets its one reference.
IMbnDeviceService* NewDeviceService(Service service, std::wstring interfaceId, std::wstring id);

}  // namespace simulator
