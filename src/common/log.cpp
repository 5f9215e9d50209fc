#include "common/log.h"

#include "common/debuglogger.h"

namespace corvel {

void WriteLogRecord(int level, const char* component, const char* function, const char* file, int line,
                    const char* format, ...) noexcept {
  std::va_list arguments;
  va_start(arguments, format);
  WriteLogRecordOf(level, component, function, file, line, format, arguments);
  va_end(arguments);
}

void WriteLogRecordOf(int level, const char* component, const char* function, const char* file, int line,
                      const char* format, std::va_list arguments) noexcept {
  try {
    CDebugLogger::WriteRecord(level, component, function, file, line, format, arguments);
  } catch (...) {
    // Out of memory: the record is lost.
  }
}

}  // namespace corvel
