#include "flash_library.h"

#include <windows.h>

#include <utility>

#include "configuration_file.h"
#include "identity.h"
#include "text.h"

namespace {

constexpr wchar_t kLibrary[] = L"CorvelToolKit.dll";
constexpr wchar_t kConfiguration[] = L"CorvelConfig.ini";

// ToolKit::IsConfigLoaded under the name that the library's compiler gives it.
#if defined(_MSC_VER)
constexpr char kIsConfigLoaded[] = "?IsConfigLoaded@ToolKit@@SA_NXZ";
#else
constexpr char kIsConfigLoaded[] = "_ZN7ToolKit14IsConfigLoadedEv";
#endif

FlashLibrary Failed(unsigned long code, std::wstring reason) {
  return {.failure = LibraryFailure{code, std::move(reason)}, .key = {}};
}

}  // namespace

FlashLibrary LoadFlashLibrary() {
  const std::wstring path = ProgramFolder() + kLibrary;
  // Never freed: its supervisor runs for the life of the process.
  const HMODULE library = ::LoadLibraryW(path.c_str());
  if (library == nullptr) {
    const DWORD error = ::GetLastError();
    return Failed(kFailedNoLibrary, path + L": " + ToWide(SystemErrorText(error)));
  }
  const auto isConfigLoaded = reinterpret_cast<bool (*)()>(::GetProcAddress(library, kIsConfigLoaded));
  if (isConfigLoaded == nullptr) return Failed(kFailedNoLibrary, path + L" is of another version");
  const auto key = FlashServiceKey();
  if (!isConfigLoaded() || !key) {
    return Failed(kFailedNoConfiguration,
                  ProgramFolder() + kConfiguration + L" is missing, or another program has it open");
  }
  return {.failure = std::nullopt, .key = *key};
}

std::optional<HandshakeKey> FlashServiceKey() {
  const auto configuration = ConfigurationFile::Read(ProgramFolder() + kConfiguration);
  if (!configuration) return std::nullopt;
  return configuration->ServiceKey();
}
