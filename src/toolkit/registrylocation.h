#pragma once

namespace corvel {

/// What ToolKit::GetLabelsLocation does, for the start-up, which must know when it failed.
/// @throws std::bad_alloc with the location left as it was: a part of it would name another key.
void TakeRegistryLocation();

}  // namespace corvel
