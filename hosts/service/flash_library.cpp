#include "hosts/service/flash_library.h"

#include <windows.h>

#include <utility>

#include "hosts/common/facts.h"
#include "hosts/common/kept_logs.h"
#include "hosts/common/library_configuration.h"
#include "hosts/common/text.h"
#include "hosts/service/identity.h"

namespace hosts {

namespace {

/// What the host asks the library. Bound at run time, because the library is loaded at run time.
struct Questions {
  explicit Questions(HMODULE library)
      : isConfigLoaded(Bind<bool>(library, kIsConfigLoadedExport)),
        root(Bind<HKEY>(library, kRootExport)),
        rootName(Bind<const wchar_t*>(library, kRootNameExport)),
        path(Bind<const wchar_t*>(library, kPathExport)) {}

  bool AreKnown() const { return isConfigLoaded && root && rootName && path; }

  template <typename Answer>
  using Question = Answer (*)();
  template <typename Answer>
  static Question<Answer> Bind(HMODULE library, const char* name) {
    return reinterpret_cast<Question<Answer>>(::GetProcAddress(library, name));
  }

  Question<bool> isConfigLoaded;
  Question<HKEY> root;
  Question<const wchar_t*> rootName;
  Question<const wchar_t*> path;
};

LoadedLibrary Failed(unsigned long code, std::wstring reason) {
  return {.failure = LibraryFailure{code, std::move(reason)}, .key = {}};
}

std::wstring WhyNoConfiguration() {
  const std::wstring path = ProgramFolder() + kConfigurationName;
  if (::GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) return path + L" is missing";
  return path + L" cannot be read: another program has it open, or its permissions forbid it";
}

/// The library has no configuration either when it could not start what serves with it.
LibraryFailure WhyNobodyServes() {
  if (LibraryConfiguration::Read(ProgramFolder() + kConfigurationName))
    return {kFailedNoResources, L"the library could not start its service for lack of memory or threads"};
  return {kFailedNoConfiguration, WhyNoConfiguration()};
}

LoadedLibrary Load() {
  const std::wstring path = ProgramFolder() + kLibraryName;
  // Never freed: its supervisor runs for the life of the process.
  const HMODULE library = ::LoadLibraryW(path.c_str());
  if (library == nullptr) {
    const DWORD error = ::GetLastError();
    return Failed(kFailedNoLibrary, path + L": " + ToWide(SystemErrorText(error)));
  }
  const Questions ask(library);
  if (!ask.AreKnown()) return Failed(kFailedNoLibrary, path + L" is of another version");
  if (!ask.isConfigLoaded()) return {.failure = WhyNobodyServes(), .key = {}};
  return {.failure = std::nullopt,
          .key = {.root = ask.root(), .rootName = ask.rootName(), .path = ask.path()}};
}

}  // namespace

LoadedLibrary LoadFlashLibrary() {
  // First: the library's first record empties the log.
  std::string warning = KeepLastLog(ServiceLogPath());
  LoadedLibrary library = Load();
  library.warning = std::move(warning);
  return library;
}

std::optional<HandshakeKey> FlashServiceKey() {
  const auto configuration = LibraryConfiguration::Read(ProgramFolder() + kConfigurationName);
  if (!configuration) return std::nullopt;
  return configuration->ServiceKey();
}

}  // namespace hosts
