// Puts the virtual PC around the product in the process of a host, and in front of the host's own look at
// the device tree. A host that loads the product later gets it under simulation. What the PC is like stands
// in "VirtualPc.ini" beside the host's program. A library of its own, because the simulation's calls must
// not go through the host's import table, which it changes.

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <string>
#include <utility>

#include "import_patch.h"
#include "machine.h"
#include "virtual_pc.h"
#include "virtual_pc_file.h"

namespace {

constexpr wchar_t kProduct[] = L"CorvelToolKit.dll";
constexpr std::size_t kLongestPath = 32768;
constexpr int kNoVirtualPc = 125;

/// Lives as long as the process: threads of the product may call until the end.
struct Simulation {
  explicit Simulation(VirtualPcOptions options) : pc(std::move(options)) {}

  VirtualPc pc;
  ImportPatch host{::GetModuleHandleW(nullptr)};
};
Simulation* g_simulation = nullptr;

std::filesystem::path HostFolder() {
  std::wstring path(kLongestPath, L'\0');
  path.resize(::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
  return std::filesystem::path(path).parent_path();
}

HMODULE WINAPI LoadForHost(const wchar_t* name) {
  if (std::filesystem::path(name).filename() != kProduct) return ::LoadLibraryW(name);
  return g_simulation->pc.LoadUnderSimulation(name);
}

}  // namespace

extern "C" __declspec(dllexport) void InstallVirtualPc() try {
  g_simulation = new Simulation(ReadVirtualPcFile(HostFolder()));
  PatchDeviceTree(g_simulation->host);
  g_simulation->host.Replace("LoadLibraryW", &LoadForHost);
  if (const HMODULE product = ::GetModuleHandleW(kProduct)) g_simulation->pc.Install(product);
} catch (const std::exception& error) {
  std::fprintf(stderr, "The virtual PC cannot be set up: %s\n", error.what());
  // The host must not run on the real PC instead.
  std::_Exit(kNoVirtualPc);
}
