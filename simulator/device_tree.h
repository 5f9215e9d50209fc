#pragma once

#include <string>
#include <vector>

namespace simulator {

class ImportPatch;
class Machine;

/// Paths under which the modem's functions and the driver can be opened at present.
std::wstring FlashPortPath(const Machine& machine);
std::vector<std::wstring> UdePaths(const Machine& machine);
/// The one of two instances that reaches the modem.
std::wstring RightUdePath(const Machine& machine);
bool IsAtPortPresent(Machine& machine);
bool EqualIgnoringCase(const std::wstring& left, const std::wstring& right);

/// Answers questions about devices and their interfaces.
void PatchDeviceTree(ImportPatch& patch);

}  // namespace simulator
