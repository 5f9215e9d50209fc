#pragma once

#include <vector>

#include "benchmarks/sampler.h"

namespace benchmarks {

/// One line of the table, behind its head when it is the first.
void ShowRow(const Row& row);

/// @return false when the file cannot be written.
bool WriteJson(const std::vector<Row>& rows, const Options& options);

}  // namespace benchmarks
