#include "flash_library.h"

#include <windows.h>

#include "configuration_file.h"
#include "identity.h"
#include "text.h"

namespace {

// ToolKit::IsConfigLoaded under the name that the library's compiler gives it.
#if defined(_MSC_VER)
constexpr char kIsConfigLoaded[] = "?IsConfigLoaded@ToolKit@@SA_NXZ";
#else
constexpr char kIsConfigLoaded[] = "_ZN7ToolKit14IsConfigLoadedEv";
#endif

}  // namespace

std::optional<LibraryFailure> LoadFlashLibrary() {
  const std::wstring path = ProgramFolder() + L"CorvelToolKit.dll";
  const HMODULE library = ::LoadLibraryW(path.c_str());
  if (library == nullptr) {
    return LibraryFailure{kFailedNoLibrary, path + L": " + ToWide(SystemErrorText(::GetLastError()))};
  }
  const auto isConfigLoaded = reinterpret_cast<bool (*)()>(::GetProcAddress(library, kIsConfigLoaded));
  if (isConfigLoaded == nullptr) return LibraryFailure{kFailedNoLibrary, path + L" is of another version"};
  if (!isConfigLoaded()) {
    return LibraryFailure{kFailedNoConfiguration,
                          ProgramFolder() + L"CorvelConfig.ini is missing, or held open by another program"};
  }
  return std::nullopt;
}

HandshakeKey FlashServiceKey() {
  const auto configuration = ConfigurationFile::Read(ProgramFolder() + L"CorvelConfig.ini");
  return configuration ? configuration->ServiceKey() : HandshakeKey{};
}

bool IsFlashing() {
  const Handshake values = ReadHandshake(FlashServiceKey());
  return values.onGoing == 1u && (values.Is(FlashResult::Flashing) || values.Is(FlashResult::Retrying));
}
