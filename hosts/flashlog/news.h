#pragma once

#include <cstddef>
#include <string>
#include <utility>

#include "hosts/flashlog/log.h"

namespace hosts::flashlog {

/// Tells in lines what happens in a log that grows: jobs, stages, errors, ends.
class News {
 public:
  /// @param name what each line has behind its time; empty with one log alone.
  /// @param columns that a line has room for.
  News(std::string name, std::size_t columns) : m_Name(std::move(name)), m_Columns(columns) {}

  /// What there is to tell behind a record, each line with its end; mostly nothing.
  std::string Behind(const Log& log, const Record& record, const Place& place);

 private:
  /// What ended a flash that failed, with advice.
  std::string Why(const Job& job) const;
  std::string Line(Milliseconds time, const std::string& text) const;

  std::string m_Name;
  std::size_t m_Columns;
  std::size_t m_Jobs = 0;
  std::size_t m_Stages = 0;
  JobState m_State = JobState::Running;
};

}  // namespace hosts::flashlog
