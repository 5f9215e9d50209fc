#pragma once

namespace simulator {

class ImportPatch;

/// Lets the waits and the tick count of the module pass at the speed of the virtual PC.
void PatchClock(ImportPatch& patch);

}  // namespace simulator
