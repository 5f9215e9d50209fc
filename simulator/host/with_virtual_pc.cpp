// Linked into a host beside its own objects: sets the virtual PC up before the host's main function begins.
// Not in the library's entry routine, where the simulation could not wait for the threads that it starts.

extern "C" __declspec(dllimport) void InstallVirtualPc();

namespace {

[[maybe_unused]] const bool g_installed = (InstallVirtualPc(), true);

}  // namespace
