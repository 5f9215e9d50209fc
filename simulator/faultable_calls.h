#pragma once

#include <string>
#include <vector>

namespace simulator {

class ImportPatch;

/// Passes calls on to the system, unless a fault names them.
void PatchFaultableCalls(ImportPatch& patch);
/// Names of the calls that PatchFaultableCalls handles.
std::vector<std::string> PassedOnCalls();

}  // namespace simulator
