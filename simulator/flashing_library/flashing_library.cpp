// The simulated flashing library: the sixteen exports of the closed one, over a virtual modem. It reads the
// images with real I/O and keeps an image open without sharing while it works on it, as the closed one does.

#include <windows.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "simulator/faults.h"
#include "simulator/flashing_library/image_reader.h"
#include "simulator/modem_interface.h"
#include "simulator/threads/lock.h"

#if defined(__GLIBCXX__)
namespace __gnu_cxx {
void __freeres();
}
#endif

namespace simulator {

namespace {

constexpr std::int32_t kOk = 0;
constexpr std::int32_t kFailed = 1;
constexpr std::size_t kStatusSize = 512;
constexpr std::uint32_t kBytesPerProgressBar = 256 * 1024;
constexpr std::int32_t kNoArgument = -1;

// What the callback's status values say.
constexpr std::int32_t kStatusInfo = 1;
constexpr std::int32_t kStatusProgress = 2;
constexpr std::int32_t kStatusMessage = 4;
constexpr char kRawModeText[] = "  - Sending data. (RAW mode)";
constexpr char kNearRawModeText[] = " - Sending data. (RAW mode)";

using Callback = void (*)(std::uint8_t channel, std::int32_t status, const char* text);

/// Which ports are open, by channel.
class Channels {
 public:
  std::uint8_t Next() {
    const std::lock_guard lock(m_Mutex);
    m_Last = static_cast<std::uint8_t>(m_Last % (kCount - 1) + 1);
    return m_Last;
  }
  void Set(std::uint8_t channel, std::uint32_t session) {
    const std::lock_guard lock(m_Mutex);
    m_Sessions[channel % kCount] = session;
  }
  std::uint32_t Get(std::uint8_t channel) {
    const std::lock_guard lock(m_Mutex);
    return m_Sessions[channel % kCount];
  }
  std::uint32_t Take(std::uint8_t channel) {
    const std::lock_guard lock(m_Mutex);
    return std::exchange(m_Sessions[channel % kCount], 0);
  }

  static constexpr std::uint8_t kCount = 16;

 private:
  Lock m_Mutex;
  std::array<std::uint32_t, kCount> m_Sessions{};
  std::uint8_t m_Last = 0;
};

std::atomic<const ModemInterface*> g_modem{nullptr};
std::atomic<Callback> g_callback{nullptr};
Channels g_channels;

std::int32_t Fail(char* status, std::string_view reason) {
  if (status != nullptr) {
    const std::size_t length = std::min(reason.size(), kStatusSize - 1);
    std::memcpy(status, reason.data(), length);
    status[length] = '\0';
  }
  return kFailed;
}

void Report(std::uint8_t channel, std::int32_t status, const char* text) {
  if (const Callback callback = g_callback) callback(channel, status, text);
}

/// Lets the virtual PC hold back or answer a call of an export.
/// @return the answer that it decided, if any.
std::optional<std::int32_t> Begin(const char* function, std::int32_t argument, const std::string& detail,
                                  char* status) {
  const ModemInterface* modem = g_modem;
  if (modem == nullptr) return Fail(status, "no modem is attached");
  std::int32_t result = kOk;
  if (modem->beginCall(function, argument, detail.c_str(), &result) == 0) return std::nullopt;
  if (result != kOk) Fail(status, std::string(function) + " was refused");
  return result;
}

/// Tells an item's percentages in the style that the virtual PC asks for.
class ProgressReport {
 public:
  ProgressReport(std::uint8_t channel, ProgressStyle style) : m_Channel(channel), m_Style(style) {}

  void Begin() {
    Report(m_Channel, kStatusMessage, "  - Opening the item");
    if (m_Style == ProgressStyle::BeforeRawMode) TellAll({"10", "50", "90", "100"});
    Report(m_Channel, kStatusMessage,
           m_Style == ProgressStyle::NearRawModeText ? kNearRawModeText : kRawModeText);
    if (m_Style == ProgressStyle::NonNumeric) TellAll({"abc", "4x", "", "+45", " 45"});
    if (m_Style == ProgressStyle::Falling) TellAll({"0", "60", "30", "100", "20"});
  }
  void Tell(std::uint64_t done, std::uint64_t size) {
    if (m_Style == ProgressStyle::BeforeRawMode) return;
    const std::uint64_t scale = m_Style == ProgressStyle::PastHundred ? 250 : 100;
    const auto percent = static_cast<std::uint32_t>(size == 0 ? scale : done * scale / size);
    if (percent == m_Last) return;
    m_Last = percent;
    Report(m_Channel, kStatusProgress, std::to_string(percent).c_str());
  }
  void End() { Report(m_Channel, kStatusMessage, "  - Done"); }

 private:
  void TellAll(std::initializer_list<const char*> texts) {
    for (const char* text : texts) Report(m_Channel, kStatusProgress, text);
  }

  std::uint8_t m_Channel;
  ProgressStyle m_Style;
  std::uint32_t m_Last = 0;
};

/// How an item of a memory class has to be written.
enum class Way { Fls, StaticFfs, DynamicFfs, Disk, Cust, None };

Way WayOf(std::uint32_t memoryClass) {
  switch (memoryClass) {
    case 1:
    case 2:
    case 4:
      return Way::Fls;
    case 11:
      return Way::StaticFfs;
    case 12:
      return Way::DynamicFfs;
    case 14:
    case 15:
    case 16:
      return Way::Disk;
    default:
      return Way::Cust;
  }
}

/// What the partition selector of the dffs export chooses.
Way WayOfSelector(std::uint8_t selector) {
  switch (selector) {
    case 1:
      return Way::StaticFfs;
    case 2:
      return Way::DynamicFfs;
    case 4:
      return Way::Disk;
    default:
      return Way::None;
  }
}

/// Sends one item's bytes block by block. @return the reason of a failure, empty when it is written.
std::string SendItem(std::uint8_t channel, const ImageReader& image, const ImageItem& item) {
  const ModemInterface& modem = *g_modem.load();
  const std::uint32_t session = g_channels.Get(channel);
  const ModemItem announced{item.memoryClass, item.flashOffset, item.size, item.crc32};
  if (modem.beginItem(session, &announced) == 0) return "the target refuses the item";

  ProgressReport progress(channel, static_cast<ProgressStyle>(modem.progressStyle()));
  progress.Begin();
  std::vector<std::uint8_t> block(modem.blockSize());
  for (std::uint32_t done = 0; done < item.size;) {
    const auto part = std::span(block).first(std::min<std::size_t>(block.size(), item.size - done));
    if (!image.ReadAt(item.dataOffset + done, part)) return "the image cannot be read";
    if (modem.writeBlock(session, part.data(), static_cast<std::uint32_t>(part.size())) == 0) {
      return "the target refuses the data";
    }
    done += static_cast<std::uint32_t>(part.size());
    progress.Tell(done, item.size);
  }
  progress.End();
  return modem.endItem(session) == 0 ? "wrong checksum" : "";
}

/// Writes the item of a name through one of the three download exports.
std::int32_t Download(const char* function, std::uint8_t channel, const char* name, Way way, char* status) {
  const auto itemName = ParseItemName(name != nullptr ? name : "");
  if (!itemName) return Fail(status, "not an item's name");
  // Open from before any hold-up on, so that an abandoned call keeps the image locked.
  const ImageReader image(itemName->path, 0);
  if (const auto answer = Begin(function, static_cast<std::int32_t>(itemName->index), name, status))
    return *answer;
  if (!image.IsSound()) return Fail(status, "the image cannot be read");
  if (itemName->index >= image.Table().items.size()) return Fail(status, "no such item");

  const ImageItem& item = image.Table().items[itemName->index];
  Report(channel, kStatusInfo, "Downloading");
  if (WayOf(item.memoryClass) != way) return Fail(status, "the item is of another kind");
  const std::string reason = SendItem(channel, image, item);
  return reason.empty() ? kOk : Fail(status, reason);
}

/// The table of contents of a file for one query. Others may go on reading the file meanwhile.
std::optional<FlashImage> QueryTable(const char* path) {
  const ImageReader image(path != nullptr ? path : "", FILE_SHARE_READ);
  if (!image.IsSound()) return std::nullopt;
  return image.Table();
}

}  // namespace

extern "C" {

std::int32_t BootTarget(std::uint8_t channel, const char* bootFile, std::uint32_t* word, char* status) {
  const ImageReader image(bootFile != nullptr ? bootFile : "", 0);
  if (const auto answer =
          Begin("_ZEMO_DL_boot_target", kNoArgument, bootFile != nullptr ? bootFile : "", status)) {
    return *answer;
  }
  if (!image.IsSound()) return Fail(status, "the boot file cannot be read");
  const auto header = image.Header();
  if (g_modem.load()->boot(g_channels.Get(channel), header.data(),
                           static_cast<std::uint32_t>(header.size())) == 0) {
    return Fail(status, "the target does not boot");
  }
  if (word != nullptr) *word = image.Table().flashTechnology;
  return kOk;
}

std::int32_t CloseCommPort(std::uint8_t channel, char* status) {
  if (const auto answer = Begin("_ZEMO_DL_close_comm_port", kNoArgument, std::to_string(channel), status)) {
    return *answer;
  }
  const std::uint32_t session = g_channels.Take(channel);
  if (session == 0) return Fail(status, "the channel is not open");
  g_modem.load()->closePort(session);
  return kOk;
}

std::int32_t DownloadCustFile(std::uint8_t channel, const char* item, char* status) {
  return Download("_ZEMO_DL_download_cust_file", channel, item, Way::Cust, status);
}

std::int32_t DownloadDffsFile(std::uint8_t channel, const char* item, std::uint8_t selector, char* status) {
  return Download("_ZEMO_DL_download_dffs_file", channel, item, WayOfSelector(selector), status);
}

std::int32_t DownloadFlsFile(std::uint8_t channel, const char* item, char* status) {
  return Download("_ZEMO_DL_download_fls_file", channel, item, Way::Fls, status);
}

std::int32_t ForceTargetReset(std::uint8_t channel, std::uint8_t first, std::uint8_t second,
                              std::uint8_t third, std::uint8_t fourth, char* status) {
  std::array<char, 32> bytes{};
  std::snprintf(bytes.data(), bytes.size(), "%d,%d,%d,%d", first, second, third, fourth);
  if (const auto answer = Begin("_ZEMO_DL_force_target_reset", kNoArgument, bytes.data(), status))
    return *answer;
  if (g_modem.load()->forceReset(g_channels.Get(channel)) == 0)
    return Fail(status, "the target is not there");
  return kOk;
}

const char* GetSysVersion() {
  return "simulated flashing library 1.0";
}

std::uint8_t GetNextFreeChannel() {
  const auto answer = Begin("_ZEMO_get_next_free_channel", kNoArgument, "", nullptr);
  return answer ? static_cast<std::uint8_t>(*answer) : g_channels.Next();
}

std::uint32_t GetNofProgressbars(std::uint8_t, const char* item, std::uintptr_t) {
  const auto name = ParseItemName(item != nullptr ? item : "");
  if (!name) return 0;
  const auto answer =
      Begin("_ZEMO_DL_dll_get_nof_progressbars", static_cast<std::int32_t>(name->index), item, nullptr);
  if (answer) return static_cast<std::uint32_t>(*answer);
  const auto table = QueryTable(name->path.c_str());
  if (!table || name->index >= table->items.size()) return 0;
  return table->items[name->index].size / kBytesPerProgressBar + 1;
}

std::int32_t InitCallback(Callback callback, char* status) {
  if (const auto answer = Begin("_ZEMO_DL_init_callback", kNoArgument, "", status)) return *answer;
  g_callback = callback;
  return kOk;
}

std::int32_t OpenCommPort(std::uint8_t channel, const char* path, const char*, std::uint32_t baudRate,
                          char* status) {
  const std::string port = path != nullptr ? path : "";
  const auto answer =
      Begin("_ZEMO_DL_open_comm_port", kNoArgument, port + " at " + std::to_string(baudRate), status);
  if (answer) return *answer;
  const std::uint32_t session = g_modem.load()->openPort(port.c_str());
  if (session == 0) return Fail(status, "the port cannot be opened");
  g_channels.Set(channel, session);
  return kOk;
}

std::int32_t SetDllParameter(std::uint8_t id, std::uintptr_t value, char* status) {
  constexpr std::uint8_t kTextParameter = 39;
  // NOLINTNEXTLINE(performance-no-int-to-ptr): a text comes in the parameter of the numbers.
  const auto* valueAsText = reinterpret_cast<const char*>(value);
  const std::string text = id == kTextParameter ? valueAsText : std::to_string(value);
  if (const auto answer = Begin("_ZEMO_DL_set_dll_parameter", id, std::to_string(id) + "=" + text, status)) {
    return *answer;
  }
  return kOk;
}

std::int32_t TocGetFlashTechnology(const char* path, std::uint32_t* technology) {
  if (const auto answer = Begin("_ZEMO_DL_TOC_get_flash_technogy", kNoArgument, path, nullptr))
    return *answer;
  const auto table = QueryTable(path);
  if (!table) return kFailed;
  *technology = table->flashTechnology;
  return kOk;
}

std::int32_t TocGetMemoryClass(const char* path, std::uint32_t index, std::uint32_t* memoryClass) {
  const auto answer = Begin("_ZEMO_DL_TOC_get_memory_class", static_cast<std::int32_t>(index), path, nullptr);
  if (answer) return *answer;
  const auto table = QueryTable(path);
  if (!table || index >= table->items.size()) return kFailed;
  *memoryClass = table->items[index].memoryClass;
  return kOk;
}

std::int32_t TocGetNofItems(const char* path, std::uint32_t* count) {
  if (const auto answer = Begin("_ZEMO_DL_TOC_get_nof_items", kNoArgument, path, nullptr)) return *answer;
  const auto table = QueryTable(path);
  if (!table) return kFailed;
  *count = static_cast<std::uint32_t>(table->items.size());
  return kOk;
}

std::int32_t OutOfSessionComm(std::uint8_t, std::uintptr_t first, std::uintptr_t second, std::uintptr_t third,
                              std::uintptr_t fourth, std::uintptr_t fifth) {
  std::string values;
  for (const auto value : {first, second, third, fourth, fifth}) values += std::to_string(value) + ",";
  values.pop_back();
  if (const auto answer = Begin("_ZEMO_DL_out_of_session_comm", kNoArgument, values, nullptr)) return *answer;
  return kOk;
}

void SimulatorAttachModem(const ModemInterface* modem) {
  g_modem = modem;
}

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID processEnds) {
  // Whoever unloads the library without closing its ports has them closed; at process end nobody listens.
  if (reason == DLL_PROCESS_DETACH && processEnds == nullptr && g_modem.load() != nullptr) {
    for (std::uint8_t channel = 0; channel < Channels::kCount; ++channel) {
      if (const std::uint32_t session = g_channels.Take(channel)) g_modem.load()->closePort(session);
    }
#if defined(__GLIBCXX__)
    // The C++ runtime's memory for exceptions in need, one for each time that the library is loaded.
    __gnu_cxx::__freeres();
#endif
  }
  return TRUE;
}
}

}  // namespace simulator
