#pragma once

namespace simulator {

class ImportPatch;

/// Tells the clock of the threads that the module begins and ends, and keeps the names of what it shares with
/// others to this process.
void PatchThreads(ImportPatch& patch);

}  // namespace simulator
