#pragma once

#include <unknwn.h>

#include "simulator/mobile_broadband/service.h"

namespace simulator {

/// The object of the class MbnInterfaceManager: the list of interfaces. The caller gets its one reference.
IUnknown* NewInterfaceManager(const Service& service);

}  // namespace simulator
