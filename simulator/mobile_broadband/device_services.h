#pragma once

#include <unknwn.h>

#include "simulator/mobile_broadband/service.h"

namespace simulator {

/// The object of the class MbnDeviceServicesManager: from an interface's id to its device services, and to
/// the point where sinks are advised. The caller gets its one reference.
IUnknown* NewDeviceServicesManager(const Service& service);

}  // namespace simulator
