#pragma once

#include <string>
#include <vector>

#include "hosts/flashlog/log.h"

namespace hosts::flashlog {

/// One self-contained page that shows some logs: their jobs as timelines, their records below. It loads
/// nothing from anywhere.
std::string Page(const std::vector<Log*>& logs);

}  // namespace hosts::flashlog
