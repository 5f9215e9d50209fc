#pragma once

#include <windows.h>

#include <map>
#include <memory>
#include <utility>

#include "simulator/threads/lock.h"

namespace simulator {

/// What stands behind a handle that the simulation gave to the product. The handle itself is a real one.
struct SimulatedDevice {
  virtual ~SimulatedDevice() = default;
};

/// Which of the product's handles are simulated devices. Any thread.
class SimulatedHandles {
 public:
  void Add(HANDLE handle, std::shared_ptr<SimulatedDevice> device) {
    const std::lock_guard lock(m_Mutex);
    m_Devices[handle] = std::move(device);
  }

  /// The device of that type behind a handle, null when there is none.
  template <typename Device>
  std::shared_ptr<Device> Find(HANDLE handle) {
    const std::lock_guard lock(m_Mutex);
    const auto found = m_Devices.find(handle);
    return found == m_Devices.end() ? nullptr : std::dynamic_pointer_cast<Device>(found->second);
  }

  std::shared_ptr<SimulatedDevice> Remove(HANDLE handle) {
    const std::lock_guard lock(m_Mutex);
    const auto node = m_Devices.extract(handle);
    return node.empty() ? nullptr : node.mapped();
  }

 private:
  Lock m_Mutex;
  std::map<HANDLE, std::shared_ptr<SimulatedDevice>> m_Devices;
};

}  // namespace simulator
