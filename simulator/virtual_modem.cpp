#include "simulator/virtual_modem.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <string_view>
#include <system_error>
#include <utility>

namespace simulator {

namespace {

constexpr std::uint8_t kErased = 0xFF;
constexpr std::string_view kFlashModeCommand = "at+xlog=4\r";

std::string Print(const char* format, std::uint32_t first, std::uint32_t second) {
  std::array<char, 128> text{};
  std::snprintf(text.data(), text.size(), format, static_cast<unsigned>(first),
                static_cast<unsigned>(second));
  return text.data();
}

void MakeErasedMemory(const std::filesystem::path& file, std::uint32_t size) {
  std::error_code error;
  if (std::filesystem::file_size(file, error) == size && !error) return;
  std::ofstream stream(file, std::ios::binary | std::ios::trunc);
  constexpr std::uint32_t kBlockSize = 64 * 1024;
  const std::vector<char> block(kBlockSize, static_cast<char>(kErased));
  for (std::uint32_t written = 0; written < size; written += kBlockSize) {
    stream.write(block.data(), static_cast<std::streamsize>(block.size()));
  }
}

bool LiesInMemory(const ImageItem& item) {
  constexpr std::uint32_t kSize = VirtualModem::kMemorySize;
  return item.flashOffset <= kSize && item.size <= kSize - item.flashOffset;
}

}  // namespace

const char* NameOf(ModemState state) {
  switch (state) {
    case ModemState::Normal:
      return "normal";
    case ModemState::Leaving:
      return "leaving";
    case ModemState::Restarting:
      return "restarting";
    case ModemState::FlashPort:
      return "flash port";
    case ModemState::ChannelOpen:
      return "channel open";
    case ModemState::Booted:
      return "booted";
    case ModemState::Writing:
      return "writing";
    case ModemState::Returning:
      return "returning";
    case ModemState::Dead:
      return "dead";
  }
  return "";
}

const char* NameOf(JournalEvent event) {
  switch (event) {
    case JournalEvent::AtCommand:
      return "AT command";
    case JournalEvent::MbimReboot:
      return "MBIM reboot";
    case JournalEvent::BasebandReset:
      return "baseband reset";
    case JournalEvent::FlashPortOpened:
      return "flash port opened";
    case JournalEvent::FlashPortRefused:
      return "flash port refused";
    case JournalEvent::Booted:
      return "booted";
    case JournalEvent::BootRefused:
      return "boot refused";
    case JournalEvent::ItemWritten:
      return "item written";
    case JournalEvent::ItemRefused:
      return "item refused";
    case JournalEvent::FlashPortClosed:
      return "flash port closed";
    case JournalEvent::ForcedReset:
      return "forced reset";
    case JournalEvent::StateChanged:
      return "state";
    case JournalEvent::LibraryLoaded:
      return "library loaded";
    case JournalEvent::LibraryUnloaded:
      return "library unloaded";
    case JournalEvent::LibraryCall:
      return "library call";
    case JournalEvent::Reenumeration:
      return "re-enumeration";
  }
  return "";
}

VirtualModem::VirtualModem(const VirtualClock& clock, std::filesystem::path memoryFile, ModemTiming timing,
                           ModemFaults faults, ModemState initial, Journal journal)
    : m_Clock(clock),
      m_MemoryFile(std::move(memoryFile)),
      m_Timing(timing),
      m_Faults(faults),
      m_Journal(std::move(journal)),
      m_State(initial) {
  MakeErasedMemory(m_MemoryFile, kMemorySize);
  m_Memory.open(m_MemoryFile, std::ios::binary | std::ios::in | std::ios::out);
}

ModemState VirtualModem::State() {
  const std::lock_guard lock(m_Mutex);
  Advance();
  return m_State;
}

void VirtualModem::Put(ModemState state) {
  const std::lock_guard lock(m_Mutex);
  EndSession();
  m_StaysInFlashMode = true;
  m_ResetsUntilReturn = 0;
  m_ReturnsWhenWaitExpires = false;
  Enter(state);
}

void VirtualModem::KeepStateIn(std::filesystem::path file) {
  const std::lock_guard lock(m_Mutex);
  m_StateFile = std::move(file);
  KeepState();
}

void VirtualModem::KeepState() {
  if (m_StateFile.empty()) return;
  std::ofstream(m_StateFile) << static_cast<int>(m_State) << ' ' << (m_StaysInFlashMode ? 1 : 0) << ' '
                             << (m_StateEnds == kNoEnd ? 1 : 0) << '\n';
}

ModemState VirtualModem::StateLeftIn(const std::filesystem::path& file) {
  std::ifstream stream(file);
  int state = 0;
  bool stays = false;
  bool hasNoEnd = false;
  if (!(stream >> state >> stays >> hasNoEnd)) return ModemState::Normal;
  switch (static_cast<ModemState>(state)) {
    case ModemState::Restarting:
      if (hasNoEnd) return ModemState::Restarting;
      [[fallthrough]];
    case ModemState::Leaving:
    case ModemState::FlashPort:
    case ModemState::ChannelOpen:
      // Behind a reset alone the boot loader does not wait for ever.
      return stays ? ModemState::FlashPort : ModemState::Normal;
    case ModemState::Booted:
    case ModemState::Writing:
      return ModemState::Booted;
    case ModemState::Dead:
      return ModemState::Dead;
    case ModemState::Normal:
    case ModemState::Returning:
      break;
  }
  return ModemState::Normal;
}

bool VirtualModem::IsPresentAsModem() {
  const auto state = State();
  return state == ModemState::Normal || state == ModemState::Leaving;
}

bool VirtualModem::IsPresentAsFlashPort() {
  switch (State()) {
    case ModemState::FlashPort:
    case ModemState::ChannelOpen:
    case ModemState::Booted:
    case ModemState::Writing:
      return true;
    default:
      return false;
  }
}

ModemState VirtualModem::ComeToRest() {
  const std::lock_guard lock(m_Mutex);
  while (m_StateEnds != kNoEnd) AdvanceTo(m_StateEnds);
  return m_State;
}

void VirtualModem::Advance() {
  AdvanceTo(m_Clock.Now());
}

void VirtualModem::AdvanceTo(Milliseconds moment) {
  while (moment >= m_StateEnds) {
    const auto since = m_StateEnds;
    switch (m_State) {
      case ModemState::Leaving:
        EnterRestarting(since);
        break;
      case ModemState::Restarting:
        EnterFlashPort(since);
        break;
      case ModemState::FlashPort:
        Enter(ModemState::Returning, since + m_Timing.returning);
        break;
      default:
        Enter(ModemState::Normal);
        break;
    }
  }
}

void VirtualModem::Enter(ModemState state, Milliseconds ends) {
  m_State = state;
  m_StateEnds = ends;
  KeepState();
  m_Journal(JournalEvent::StateChanged, NameOf(state));
}

void VirtualModem::EnterRestarting(Milliseconds since) {
  ++m_FlashModeStarts;
  const bool isMissing = m_Faults.flashPortMissing.Hits(m_FlashModeStarts);
  const bool isLate = m_Faults.flashPortLate.Hits(m_FlashModeStarts);
  const auto delay = m_Timing.restarting + (isLate ? m_Faults.flashPortDelay : Milliseconds::zero());
  Enter(ModemState::Restarting, isMissing ? kNoEnd : since + delay);
}

void VirtualModem::EnterFlashPort(Milliseconds since) {
  Enter(ModemState::FlashPort, m_StaysInFlashMode ? kNoEnd : since + m_Timing.bootLoaderWindow);
}

void VirtualModem::EndSession() {
  m_Session = 0;
  m_IsBooted = false;
  m_Item.reset();
}

bool VirtualModem::LeaveForFlashMode() {
  if (m_State != ModemState::Normal) return false;
  m_StaysInFlashMode = true;
  Enter(ModemState::Leaving, m_Clock.Now() + m_Timing.leaving);
  return true;
}

std::string VirtualModem::HearAtBytes(std::span<const std::uint8_t> bytes) {
  const std::lock_guard lock(m_Mutex);
  Advance();
  std::string replies;
  for (const std::uint8_t byte : bytes) {
    m_AtInput += static_cast<char>(byte);
    if (byte != '\r') continue;
    replies += Obey(std::exchange(m_AtInput, {}));
  }
  return replies;
}

std::string VirtualModem::Obey(const std::string& command) {
  m_Journal(JournalEvent::AtCommand, command);
  if (command == kFlashModeCommand) {
    if (!m_Faults.ignoresAtCommand) LeaveForFlashMode();
    return "\r\nOK\r\n";
  }
  return command == "at\r" || command == "AT\r" ? "\r\nOK\r\n" : "\r\nERROR\r\n";
}

bool VirtualModem::RebootByMbim() {
  const std::lock_guard lock(m_Mutex);
  Advance();
  m_Journal(JournalEvent::MbimReboot, NameOf(m_State));
  if (m_Faults.ignoresMbimReboot) return m_State == ModemState::Normal;
  return LeaveForFlashMode();
}

void VirtualModem::ResetBaseband() {
  const std::lock_guard lock(m_Mutex);
  Advance();
  m_Journal(JournalEvent::BasebandReset, NameOf(m_State));
  if (m_State == ModemState::Dead) return;
  EndSession();
  m_ReturnsWhenWaitExpires = false;
  if (m_ResetsUntilReturn > 0) {
    if (--m_ResetsUntilReturn == 0) Enter(ModemState::Returning, m_Clock.Now() + m_Timing.returning);
    return;
  }
  m_StaysInFlashMode = false;
  EnterRestarting(m_Clock.Now());
}

void VirtualModem::WaitForReturnExpired() {
  const std::lock_guard lock(m_Mutex);
  Advance();
  if (std::exchange(m_ReturnsWhenWaitExpires, false)) Enter(ModemState::Normal);
}

bool VirtualModem::IsOpen(std::uint32_t session) const {
  return session != 0 && session == m_Session;
}

bool VirtualModem::Refuse(JournalEvent event, const std::string& reason) {
  m_Journal(event, reason);
  return false;
}

std::uint32_t VirtualModem::OpenPort() {
  std::uint32_t session = 0;
  {
    const std::lock_guard lock(m_Mutex);
    Advance();
    if (m_State != ModemState::FlashPort) {
      m_Journal(JournalEvent::FlashPortRefused, NameOf(m_State));
      return 0;
    }
    session = m_Session = ++m_LastSession;
    Enter(ModemState::ChannelOpen);
    m_Journal(JournalEvent::FlashPortOpened, std::to_string(session));
  }
  m_Clock.Pause(m_Timing.openPort);
  const std::lock_guard lock(m_Mutex);
  return IsOpen(session) ? session : 0;
}

void VirtualModem::ClosePort(std::uint32_t session) {
  const std::lock_guard lock(m_Mutex);
  Advance();
  if (!IsOpen(session)) return;
  EndSession();
  m_Journal(JournalEvent::FlashPortClosed, std::to_string(session));
  EnterFlashPort(m_Clock.Now());
}

bool VirtualModem::Boot(std::uint32_t session, std::span<const std::uint8_t> header) {
  {
    const std::lock_guard lock(m_Mutex);
    if (!IsOpen(session)) return Refuse(JournalEvent::BootRefused, "the port is not open");
    if (m_IsBooted) return Refuse(JournalEvent::BootRefused, "already booted");
    if (!ParseImageTable(header)) return Refuse(JournalEvent::BootRefused, "damaged boot file");
  }
  m_Clock.Pause(m_Timing.boot);
  const std::lock_guard lock(m_Mutex);
  if (!IsOpen(session)) return Refuse(JournalEvent::BootRefused, "reset while booting");
  m_IsBooted = true;
  Enter(ModemState::Booted);
  m_Journal(JournalEvent::Booted, std::to_string(session));
  return true;
}

bool VirtualModem::BeginItem(std::uint32_t session, const ImageItem& item) {
  const std::lock_guard lock(m_Mutex);
  if (!IsOpen(session)) return Refuse(JournalEvent::ItemRefused, "the port is not open");
  if (!m_IsBooted) return Refuse(JournalEvent::ItemRefused, "written before boot");
  if (m_Item) return Refuse(JournalEvent::ItemRefused, "the item before is not complete");
  if (!LiesInMemory(item)) return Refuse(JournalEvent::ItemRefused, "outside the memory");
  m_Item = Item{item, 0, 0, m_Clock.Now()};
  Enter(ModemState::Writing);
  return true;
}

bool VirtualModem::WriteBlock(std::uint32_t session, std::span<const std::uint8_t> bytes) {
  Milliseconds done{0};
  std::uint32_t written = 0;
  BlockObserver observer;
  {
    const std::lock_guard lock(m_Mutex);
    if (!IsOpen(session) || !m_Item) return Refuse(JournalEvent::ItemRefused, "no item is being written");
    if (bytes.size() > m_Item->announced.size - m_Item->written) {
      m_Item.reset();
      Enter(ModemState::Booted);
      return Refuse(JournalEvent::ItemRefused, "more than announced");
    }
    if (!StoreBlock(m_Item->announced.flashOffset + m_Item->written, bytes)) {
      return Refuse(JournalEvent::ItemRefused, "the memory cannot be written");
    }
    m_Item->written += static_cast<std::uint32_t>(bytes.size());
    m_Item->crc = Crc32(bytes, m_Item->crc);
    done = m_Item->begun + Milliseconds(std::int64_t{m_Item->written} * 1000 / m_Timing.bytesPerSecond);
    written = m_Item->written;
    observer = m_BlockObserver;
  }
  if (observer) observer(written);
  m_Clock.PauseUntil(done);
  return true;
}

std::uint32_t VirtualModem::BlockSize() {
  const std::lock_guard lock(m_Mutex);
  return m_BlockSize;
}

void VirtualModem::TakeInBlocks(std::uint32_t size, BlockObserver observer) {
  const std::lock_guard lock(m_Mutex);
  m_BlockSize = size;
  m_BlockObserver = std::move(observer);
}

bool VirtualModem::EndItem(std::uint32_t session) {
  const std::lock_guard lock(m_Mutex);
  if (!IsOpen(session) || !m_Item) return Refuse(JournalEvent::ItemRefused, "no item is being written");
  const Item item = *std::exchange(m_Item, std::nullopt);
  Enter(ModemState::Booted);
  const std::string what =
      Print("class %u at 0x%06x", item.announced.memoryClass, item.announced.flashOffset);
  if (item.written != item.announced.size) return Refuse(JournalEvent::ItemRefused, what + ": incomplete");
  if (item.crc != item.announced.crc32) return Refuse(JournalEvent::ItemRefused, what + ": wrong checksum");
  ++m_ItemsWritten;
  m_BytesWritten += item.written;
  m_Journal(JournalEvent::ItemWritten, what);
  return true;
}

bool VirtualModem::StoreBlock(std::uint32_t offset, std::span<const std::uint8_t> bytes) {
  m_Memory.seekp(offset);
  m_Memory.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  m_Memory.flush();
  return m_Memory.good();
}

bool VirtualModem::ForceReset(std::uint32_t session) {
  const std::lock_guard lock(m_Mutex);
  m_Journal(JournalEvent::ForcedReset, NameOf(m_State));
  if (!IsOpen(session)) return false;
  EndSession();
  ReturnToNormal();
  return true;
}

void VirtualModem::ReturnToNormal() {
  if (m_Faults.neverReturns) return Enter(ModemState::Dead);
  m_ResetsUntilReturn = m_Faults.returnsAfterResets;
  m_ReturnsWhenWaitExpires = m_Faults.returnsAtLastCheck;
  const bool waits = m_ResetsUntilReturn > 0 || m_ReturnsWhenWaitExpires;
  Enter(ModemState::Returning, waits ? kNoEnd : m_Clock.Now() + m_Timing.returning + m_Faults.returnDelay);
}

std::uint32_t VirtualModem::ItemsWritten() {
  const std::lock_guard lock(m_Mutex);
  return m_ItemsWritten;
}

std::uint64_t VirtualModem::BytesWritten() {
  const std::lock_guard lock(m_Mutex);
  return m_BytesWritten;
}

std::vector<std::uint8_t> VirtualModem::Memory() {
  const std::lock_guard lock(m_Mutex);
  std::vector<std::uint8_t> bytes(kMemorySize);
  std::ifstream stream(m_MemoryFile, std::ios::binary);
  stream.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  if (!stream) bytes.clear();
  return bytes;
}

bool VirtualModem::IsErased() {
  const auto bytes = Memory();
  return !bytes.empty() && std::ranges::all_of(bytes, [](auto byte) { return byte == kErased; });
}

MemoryComparison VirtualModem::CompareWith(const FlashImage* modem, const FlashImage* nvm) {
  const auto memory = Memory();
  MemoryComparison comparison;
  if (memory.empty()) {
    comparison.difference = "the memory cannot be read";
    return comparison;
  }
  const auto compare = [&](const FlashImage& image, const ImageItem& item) {
    if (!LiesInMemory(item)) {
      comparison.difference = "an item lies outside the memory";
      return;
    }
    const auto bytes = image.Bytes(item);
    const auto there = std::span(memory).subspan(item.flashOffset, item.size);
    const auto at = std::ranges::mismatch(bytes, there).in1 - bytes.begin();
    ++comparison.items;
    comparison.bytes += item.size;
    if (at == std::ssize(bytes) || !comparison.difference.empty()) return;
    comparison.difference = Print("class %u differs at 0x%06x", item.memoryClass,
                                  item.flashOffset + static_cast<std::uint32_t>(at));
  };
  const FlashImage* whole = modem != nullptr ? modem : nvm;
  if (whole != nullptr) {
    for (const auto& item : whole->items) compare(*whole, item);
  }
  if (modem != nullptr && nvm != nullptr) compare(*nvm, nvm->items.front());
  comparison.equal = comparison.items > 0 && comparison.difference.empty();
  return comparison;
}

}  // namespace simulator
