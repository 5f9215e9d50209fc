#pragma once

#include <windows.h>

#include <span>
#include <string>
#include <string_view>

namespace hosts {

/// Takes in what goes to support.
class DoctorCollection {
 public:
  virtual ~DoctorCollection() = default;

  /// @param modified local time of the last change.
  virtual void Take(const std::string& name, std::string_view bytes, const SYSTEMTIME& modified) = 0;
  /// Something of the list that does not go in, or not as a whole, and why, in words without a full stop.
  virtual void LeaveOut(const std::string& name, const std::string& why) = 0;
  /// False when it cannot be kept any more.
  virtual bool TakesMore() const = 0;
};

/// One row of what goes to support. Nothing goes there that has none.
struct DoctorItem {
  /// Of the file in the archive; "*" stands for a date.
  const char* name;
  const char* what;
  void (*collect)(DoctorCollection& collection);
};
std::span<const DoctorItem> DoctorItems();

}  // namespace hosts
