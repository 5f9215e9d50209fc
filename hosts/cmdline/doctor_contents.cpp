#include "hosts/cmdline/doctor_contents.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>
#include <vector>

#include "hosts/cmdline/check_report.h"
#include "hosts/cmdline/status_report.h"
#include "hosts/cmdline/surroundings.h"
#include "hosts/common/facts.h"
#include "hosts/common/json_output.h"
#include "hosts/common/kept_logs.h"
#include "hosts/common/library_configuration.h"
#include "hosts/common/modem_presence.h"
#include "hosts/common/owners.h"
#include "hosts/common/serving_notice.h"
#include "hosts/common/text.h"
#include "hosts/common/who_flashes.h"

namespace hosts {

namespace {

/// Of a debug log, from its end: many times what a flash writes.
constexpr std::uint64_t kMostBytes = std::uint64_t{64} * 1024 * 1024;
/// Between two records of a debug log, whose messages may hold line ends, too.
constexpr std::string_view kRecordsMeet = "##\r\n#";
constexpr std::size_t kRecordEnd = 4;
// How file properties are found: the platform's own names for these hang on the character set.
constexpr WORD kVersionResource = 1;
constexpr WORD kVersionType = 16;
constexpr wchar_t kWindowsVersionKey[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";

SYSTEMTIME Now() {
  SYSTEMTIME now{};
  ::GetLocalTime(&now);
  return now;
}

/// A document as the program prints it.
std::string AsText(const nlohmann::ordered_json& fields) {
  nlohmann::ordered_json document{{"version", kDocumentVersion}};
  document.update(fields);
  return document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

// --- Files as they are -------------------------------------------------------------------------------------

/// A file as it was at one moment; whoever writes it goes on.
struct FileContent {
  DWORD error = ERROR_SUCCESS;
  std::uint64_t leftOut = 0;  ///< bytes at the beginning
  std::string bytes = {};
  SYSTEMTIME modified = {};
};

SYSTEMTIME LocalTimeOf(const FILETIME& time) {
  SYSTEMTIME universal{};
  SYSTEMTIME local{};
  ::FileTimeToSystemTime(&time, &universal);
  ::SystemTimeToTzSpecificLocalTime(nullptr, &universal, &local);
  return local;
}

/// What does not go in of so many bytes.
std::uint64_t BytesLeftOut(std::uint64_t size) {
  return size > kMostBytes ? size - kMostBytes : 0;
}

/// @return the system's error.
DWORD ReadFrom(HANDLE file, std::uint64_t begin, std::string& bytes) {
  LARGE_INTEGER place{};
  place.QuadPart = static_cast<LONGLONG>(begin);
  DWORD read = 0;
  if (!::SetFilePointerEx(file, place, nullptr, FILE_BEGIN) ||
      !::ReadFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr)) {
    return ::GetLastError();
  }
  bytes.resize(read);
  return ERROR_SUCCESS;
}

/// What is cut off begins with a whole record.
void DropPartOfRecord(FileContent& content) {
  const std::size_t end = content.leftOut == 0 ? std::string::npos : content.bytes.find(kRecordsMeet);
  if (end == std::string::npos) return;
  content.bytes.erase(0, end + kRecordEnd);
  content.leftOut += end + kRecordEnd;
}

FileContent ReadEnd(const std::wstring& path) {
  const HANDLE opened =
      ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (opened == INVALID_HANDLE_VALUE) return {.error = ::GetLastError()};
  const OwnedHandle file(opened);
  LARGE_INTEGER size{};
  FILETIME written{};
  if (!::GetFileSizeEx(file.get(), &size) || !::GetFileTime(file.get(), nullptr, nullptr, &written)) {
    return {.error = ::GetLastError()};
  }
  const auto all = static_cast<std::uint64_t>(size.QuadPart);
  FileContent content{.leftOut = BytesLeftOut(all), .modified = LocalTimeOf(written)};
  content.bytes.resize(static_cast<std::size_t>(all - content.leftOut));
  content.error = ReadFrom(file.get(), content.leftOut, content.bytes);
  DropPartOfRecord(content);
  return content;
}

void CollectFile(DoctorCollection& collection, const std::string& name, const std::wstring& path) {
  const FileContent content = ReadEnd(path);
  if (content.error != ERROR_SUCCESS) {
    return collection.LeaveOut(name, ToUtf8(path) + ": " + SystemErrorText(content.error));
  }
  collection.Take(name, content.bytes, content.modified);
  if (content.leftOut != 0) {
    collection.LeaveOut(name, "its first " + std::to_string(content.leftOut) +
                                  " bytes, because the file is larger than 64 MiB");
  }
}

void CollectConfiguration(DoctorCollection& collection) {
  const std::string name = ToUtf8(kConfigurationName);
  if (IsServiceStarting()) {
    collection.LeaveOut(name, "the flash service is starting and needs it for itself");
  } else {
    CollectFile(collection, name, ConfigurationPath());
  }
}

void CollectLogs(DoctorCollection& collection, const std::wstring& log, const std::string& none) {
  const std::vector<std::wstring> paths = LogAndKeptOnes(log);
  if (paths.empty()) collection.LeaveOut(none, "there is none in " + ToUtf8(ProgramFolder()));
  for (const std::wstring& path : paths) {
    CollectFile(collection, "logs/" + ToUtf8(path.substr(path.rfind(L'\\') + 1)), path);
  }
}

void CollectServiceLogs(DoctorCollection& collection) {
  CollectLogs(collection, ServiceLogPath(), "logs/" + ToUtf8(kServiceLogName));
}

void CollectCommandLineLogs(DoctorCollection& collection) {
  CollectLogs(collection, LogPath(), "logs/" + ToUtf8(kCommandLineLogName));
}

// --- What a look finds -------------------------------------------------------------------------------------

void CollectCheck(DoctorCollection& collection) {
  collection.Take("check.json", AsText(AsJson(Check({}))), Now());
}

nlohmann::ordered_json LookAtKey(const HandshakeKey& key) {
  const Writer writer = WriterOf(key);
  return HandshakeAsJson(key, ReadHandshake(key), writer);
}

void CollectHandshake(DoctorCollection& collection) {
  const auto configuration =
      IsServiceStarting() ? std::nullopt : LibraryConfiguration::Read(ConfigurationPath());
  const nlohmann::ordered_json ofService =
      configuration ? LookAtKey(configuration->ServiceKey()) : nlohmann::ordered_json();
  collection.Take("handshake.json",
                  AsText({{"command_line", LookAtKey(CommandLineKey())}, {"service", ofService}}), Now());
}

void CollectDevices(DoctorCollection& collection) {
  const ModemPresence presence = LookForModem();
  std::string text = std::string("Modem: ") + NameOf(presence.mode) +
                     "\r\nReset driver: " + (presence.resetDriver ? "present" : "absent") + "\r\n";
  for (const std::wstring& device : PresentModemDevices()) text += ToUtf8(device) + "\r\n";
  collection.Take("devices.txt", text, Now());
}

// --- Versions ----------------------------------------------------------------------------------------------

std::string RegistryText(const wchar_t* value) {
  std::array<wchar_t, 256> text{};
  DWORD size = sizeof text;
  const LSTATUS status = ::RegGetValueW(HKEY_LOCAL_MACHINE, kWindowsVersionKey, value, RRF_RT_REG_SZ, nullptr,
                                        text.data(), &size);
  return status == ERROR_SUCCESS ? ToUtf8(text.data()) : "?";
}

/// The number that monthly updates count up.
std::string RevisionText() {
  DWORD revision = 0;
  DWORD size = sizeof revision;
  const LSTATUS status = ::RegGetValueW(HKEY_LOCAL_MACHINE, kWindowsVersionKey, L"UBR", RRF_RT_REG_DWORD,
                                        nullptr, &revision, &size);
  return status == ERROR_SUCCESS ? "." + std::to_string(revision) : "";
}

std::string VersionText(DWORD high, DWORD low) {
  return std::to_string(HIWORD(high)) + "." + std::to_string(LOWORD(high)) + "." +
         std::to_string(HIWORD(low)) + "." + std::to_string(LOWORD(low));
}

/// The version that a program's file properties show; nothing when it has none.
std::optional<std::string> FileVersion(const std::wstring& path) {
  const OwnedModule module(
      ::LoadLibraryExW(path.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE));
  if (module == nullptr) return std::nullopt;
  const HRSRC found =
      ::FindResourceW(module.get(), MAKEINTRESOURCEW(kVersionResource), MAKEINTRESOURCEW(kVersionType));
  const HGLOBAL loaded = found == nullptr ? nullptr : ::LoadResource(module.get(), found);
  const auto* const bytes = loaded == nullptr ? nullptr : static_cast<const char*>(::LockResource(loaded));
  // Three numbers of 16 bits and the block's name, filled up to whole numbers of 32 bits.
  constexpr std::size_t kFactsBegin = (3 * sizeof(WORD) + sizeof L"VS_VERSION_INFO" + 3) / 4 * 4;
  VS_FIXEDFILEINFO facts{};
  if (bytes == nullptr || ::SizeofResource(module.get(), found) < kFactsBegin + sizeof facts)
    return std::nullopt;
  std::memcpy(&facts, bytes + kFactsBegin, sizeof facts);
  if (facts.dwSignature != VS_FFI_SIGNATURE) return std::nullopt;
  return VersionText(facts.dwFileVersionMS, facts.dwFileVersionLS);
}

std::string ProgramText(const wchar_t* name) {
  const std::wstring path = ProgramFolder() + name;
  WIN32_FILE_ATTRIBUTE_DATA facts{};
  if (!::GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &facts)) {
    return ToUtf8(name) + ": " + SystemErrorText(::GetLastError()) + "\r\n";
  }
  const std::uint64_t bytes = (std::uint64_t{facts.nFileSizeHigh} << 32) | facts.nFileSizeLow;
  return ToUtf8(name) + ": version " + FileVersion(path).value_or("unknown") + ", " + std::to_string(bytes) +
         " bytes\r\n";
}

void CollectVersions(DoctorCollection& collection) {
  std::string text = "Windows: " + RegistryText(L"ProductName") + ", " + RegistryText(L"DisplayVersion") +
                     ", build " + RegistryText(L"CurrentBuildNumber") + RevisionText() +
                     "\r\ncorvel_cmdline: " CORVEL_VERSION "\r\n";
  for (const wchar_t* name :
       {L"corvel_cmdline.exe", L"corvel_service.exe", kLibraryName, kFlashingLibraryName}) {
    text += ProgramText(name);
  }
  collection.Take("versions.txt", text, Now());
}

// The page for readers, docs/doctor.md, says the same in the same words.
constexpr DoctorItem kItems[] = {
    {"check.json", "what `check --json` finds", CollectCheck},
    {"handshake.json", "the six values of the handshake, under the command line's key and the service's",
     CollectHandshake},
    {"devices.txt",
     "the modem's devices that are present, by bus, vendor and product, without what tells one modem from "
     "another",
     CollectDevices},
    {"versions.txt", "versions of Windows, of the programs and of their libraries, and the files' sizes",
     CollectVersions},
    {"CorvelConfig.ini", "the configuration as it is", CollectConfiguration},
    {"logs/FlashServiceDebugLogger_DLL*.log", "the service's debug log and those that are kept of it",
     CollectServiceLogs},
    {"logs/FlashCommandLineLogger_DLL*.log", "the command line's debug log and those that are kept of it",
     CollectCommandLineLogs},
};

}  // namespace

std::span<const DoctorItem> DoctorItems() {
  return kItems;
}

}  // namespace hosts
