#pragma once

#include <windows.h>

#include <optional>
#include <string>

namespace simulator {

class ImportPatch;
class Machine;

/// Opens an instance of the driver's flash interface.
/// @return nothing when the path is none of the driver's; a null handle, with the last error set, when the
/// open fails.
std::optional<HANDLE> OpenDriver(Machine& machine, const std::wstring& path);

/// Answers requests to the driver behind the baseband reset.
void PatchDriver(ImportPatch& patch);

}  // namespace simulator
