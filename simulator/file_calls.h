#pragma once

namespace simulator {

class ImportPatch;

/// Hands each open of a device to the one that answers for its path.
void PatchFiles(ImportPatch& patch);

}  // namespace simulator
