// Linked into a host beside its own objects: sets the virtual PC up before the host's main function begins,
// and has it reported on when the host ends by itself. Not in the library's entry routine, where the
// simulation could not wait for the threads that it starts.

extern "C" __declspec(dllimport) void InstallVirtualPc();
extern "C" __declspec(dllimport) void ReportVirtualPc();

namespace {

struct AroundMain {
  AroundMain() { InstallVirtualPc(); }
  ~AroundMain() { ReportVirtualPc(); }
};
[[maybe_unused]] const AroundMain g_aroundMain;

}  // namespace
