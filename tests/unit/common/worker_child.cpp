// A process in which a worker runs out of memory where the library cannot report it: in a constructor that is
// documented not to throw. It does not end by returning 0.

#include "common/worker.h"

#include <cstdlib>

#include "simulator/import_patch.h"
#include "xmlfile/xmlfile.h"

using corvel::StartWorker;
using corvel::UniqueHandle;

namespace {

constexpr DWORD kLongEnough = 30000;
constexpr std::size_t kLongPath = 10000;

void* __cdecl RefuseLongPaths(std::size_t size) {
  return size > kLongPath ? nullptr : std::malloc(size);
}

}  // namespace

int main() {
  const CTString path(std::wstring(kLongPath, L'p'));
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  if (!patch.ReplaceIfImported("malloc", &RefuseLongPaths)) return 1;
  const UniqueHandle worker =
      StartWorker([&path] { const QUENTA::Brevant::Interfaces::ToolkitCore::CXMLFile file(path); });
  return worker != nullptr && ::WaitForSingleObject(worker.get(), kLongEnough) == WAIT_OBJECT_0 ? 0 : 1;
}
