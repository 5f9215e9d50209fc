// A second process that writes to a debug log.
//
// usage: log_child FILE one-record | after-shut-down

#include <string_view>

#include "common/debuglogger.h"
#include "toolkit/toolkit.h"

namespace {

void Record(const char* message) {
  ToolKit::OutputDebug(3, "FlashSvc", "main", __FILE__, __LINE__, "%s", message);
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 3) return 2;
  CDebugLogger::GetInstance()->SetFileName(arguments[1]);
  Record("from the child");
  if (std::string_view(arguments[2]) == "after-shut-down") {
    CDebugLogger::ReleaseInstance();
    CDebugLogger::ShutDown();
    Record("too late");
  }
  return 0;
}
