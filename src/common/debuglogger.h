#pragma once

#include <cstdarg>
#include <string>

#include "common/fileio.h"

/// Writes the debug log: one tab-separated record per call, one file per process. Any thread may write
/// records; naming the file and releasing the singleton belong to start-up and unload. It never reports a
/// failure and never logs about itself.
class CDebugLogger {
 public:
  static CDebugLogger* GetInstance();
  /// Flushes and closes the file. A record written later opens (and empties) it again.
  static void ReleaseInstance();
  /// Drops every later record: the process ends, and a reopened file would lose what it holds.
  static void ShutDown();

  /// The switch: records are written while it is above 0. Only 0 and 3 are ever stored.
  static void SetLevel(int level);
  static int GetLevel();

  static void WriteRecord(int level, const char* component, const char* function, const char* file, int line,
                          const char* format, std::va_list arguments);

  /// Names the log file (ANSI) and makes its folder, one level only; the next record creates the file.
  void SetFileName(const char* path);
  /// Writes a finished text at the end of the file, opening it first if necessary.
  void WriteText(const std::string& text);

  virtual ~CDebugLogger() = default;

 private:
  void Append(const std::string& text);

  CFileIo m_File;
};
