#pragma once

namespace simulator {

class ImportPatch;

/// Connects the flashing library with the modem when the module loads it.
void PatchLibraryLoader(ImportPatch& patch);

}  // namespace simulator
