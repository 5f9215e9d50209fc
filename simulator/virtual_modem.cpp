#include "simulator/virtual_modem.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
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
  const std::vector<char> block(64 * 1024, static_cast<char>(kErased));
  for (std::uint32_t written = 0; written < size; written += 64 * 1024) {
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
    : m_clock(clock),
      m_memoryFile(std::move(memoryFile)),
      m_timing(timing),
      m_faults(faults),
      m_journal(std::move(journal)),
      m_state(initial) {
  MakeErasedMemory(m_memoryFile, kMemorySize);
  m_memory.open(m_memoryFile, std::ios::binary | std::ios::in | std::ios::out);
}

ModemState VirtualModem::State() {
  const std::lock_guard lock(m_mutex);
  Advance();
  return m_state;
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
  const std::lock_guard lock(m_mutex);
  while (m_stateEnds != kNoEnd) AdvanceTo(m_stateEnds);
  return m_state;
}

void VirtualModem::Advance() {
  AdvanceTo(m_clock.Now());
}

void VirtualModem::AdvanceTo(Milliseconds moment) {
  while (moment >= m_stateEnds) {
    const auto since = m_stateEnds;
    switch (m_state) {
      case ModemState::Leaving:
        EnterRestarting(since);
        break;
      case ModemState::Restarting:
        EnterFlashPort(since);
        break;
      case ModemState::FlashPort:
        Enter(ModemState::Returning, since + m_timing.returning);
        break;
      default:
        Enter(ModemState::Normal);
        break;
    }
  }
}

void VirtualModem::Enter(ModemState state, Milliseconds ends) {
  m_state = state;
  m_stateEnds = ends;
  m_journal(JournalEvent::StateChanged, NameOf(state));
}

void VirtualModem::EnterRestarting(Milliseconds since) {
  ++m_flashModeStarts;
  const bool isMissing = m_faults.flashPortMissing.Hits(m_flashModeStarts);
  const bool isLate = m_faults.flashPortLate.Hits(m_flashModeStarts);
  const auto delay = m_timing.restarting + (isLate ? m_faults.flashPortDelay : Milliseconds::zero());
  Enter(ModemState::Restarting, isMissing ? kNoEnd : since + delay);
}

void VirtualModem::EnterFlashPort(Milliseconds since) {
  Enter(ModemState::FlashPort, m_staysInFlashMode ? kNoEnd : since + m_timing.bootLoaderWindow);
}

void VirtualModem::EndSession() {
  m_session = 0;
  m_isBooted = false;
  m_item.reset();
}

bool VirtualModem::LeaveForFlashMode() {
  if (m_state != ModemState::Normal) return false;
  m_staysInFlashMode = true;
  Enter(ModemState::Leaving, m_clock.Now() + m_timing.leaving);
  return true;
}

std::string VirtualModem::HearAtBytes(std::span<const std::uint8_t> bytes) {
  const std::lock_guard lock(m_mutex);
  Advance();
  std::string replies;
  for (const std::uint8_t byte : bytes) {
    m_atInput += static_cast<char>(byte);
    if (byte != '\r') continue;
    replies += Obey(std::exchange(m_atInput, {}));
  }
  return replies;
}

std::string VirtualModem::Obey(const std::string& command) {
  m_journal(JournalEvent::AtCommand, command);
  if (command == kFlashModeCommand) {
    if (!m_faults.ignoresAtCommand) LeaveForFlashMode();
    return "\r\nOK\r\n";
  }
  return command == "at\r" || command == "AT\r" ? "\r\nOK\r\n" : "\r\nERROR\r\n";
}

bool VirtualModem::RebootByMbim() {
  const std::lock_guard lock(m_mutex);
  Advance();
  m_journal(JournalEvent::MbimReboot, NameOf(m_state));
  if (m_faults.ignoresMbimReboot) return m_state == ModemState::Normal;
  return LeaveForFlashMode();
}

void VirtualModem::ResetBaseband() {
  const std::lock_guard lock(m_mutex);
  Advance();
  m_journal(JournalEvent::BasebandReset, NameOf(m_state));
  if (m_state == ModemState::Dead) return;
  EndSession();
  m_returnsWhenWaitExpires = false;
  if (m_resetsUntilReturn > 0) {
    if (--m_resetsUntilReturn == 0) Enter(ModemState::Returning, m_clock.Now() + m_timing.returning);
    return;
  }
  m_staysInFlashMode = false;
  EnterRestarting(m_clock.Now());
}

void VirtualModem::WaitForReturnExpired() {
  const std::lock_guard lock(m_mutex);
  Advance();
  if (std::exchange(m_returnsWhenWaitExpires, false)) Enter(ModemState::Normal);
}

bool VirtualModem::IsOpen(std::uint32_t session) const {
  return session != 0 && session == m_session;
}

bool VirtualModem::Refuse(JournalEvent event, const std::string& reason) {
  m_journal(event, reason);
  return false;
}

std::uint32_t VirtualModem::OpenPort() {
  std::uint32_t session = 0;
  {
    const std::lock_guard lock(m_mutex);
    Advance();
    if (m_state != ModemState::FlashPort) {
      m_journal(JournalEvent::FlashPortRefused, NameOf(m_state));
      return 0;
    }
    session = m_session = ++m_lastSession;
    Enter(ModemState::ChannelOpen);
    m_journal(JournalEvent::FlashPortOpened, std::to_string(session));
  }
  m_clock.Sleep(m_timing.openPort);
  const std::lock_guard lock(m_mutex);
  return IsOpen(session) ? session : 0;
}

void VirtualModem::ClosePort(std::uint32_t session) {
  const std::lock_guard lock(m_mutex);
  Advance();
  if (!IsOpen(session)) return;
  EndSession();
  m_journal(JournalEvent::FlashPortClosed, std::to_string(session));
  EnterFlashPort(m_clock.Now());
}

bool VirtualModem::Boot(std::uint32_t session, std::span<const std::uint8_t> header) {
  {
    const std::lock_guard lock(m_mutex);
    if (!IsOpen(session)) return Refuse(JournalEvent::BootRefused, "the port is not open");
    if (m_isBooted) return Refuse(JournalEvent::BootRefused, "already booted");
    if (!ParseImageTable(header)) return Refuse(JournalEvent::BootRefused, "damaged boot file");
  }
  m_clock.Sleep(m_timing.boot);
  const std::lock_guard lock(m_mutex);
  if (!IsOpen(session)) return Refuse(JournalEvent::BootRefused, "reset while booting");
  m_isBooted = true;
  Enter(ModemState::Booted);
  m_journal(JournalEvent::Booted, std::to_string(session));
  return true;
}

bool VirtualModem::BeginItem(std::uint32_t session, const ImageItem& item) {
  const std::lock_guard lock(m_mutex);
  if (!IsOpen(session)) return Refuse(JournalEvent::ItemRefused, "the port is not open");
  if (!m_isBooted) return Refuse(JournalEvent::ItemRefused, "written before boot");
  if (m_item) return Refuse(JournalEvent::ItemRefused, "the item before is not complete");
  if (!LiesInMemory(item)) return Refuse(JournalEvent::ItemRefused, "outside the memory");
  m_item = Item{item, 0, 0, m_clock.Now()};
  Enter(ModemState::Writing);
  return true;
}

bool VirtualModem::WriteBlock(std::uint32_t session, std::span<const std::uint8_t> bytes) {
  Milliseconds done{0};
  {
    const std::lock_guard lock(m_mutex);
    if (!IsOpen(session) || !m_item) return Refuse(JournalEvent::ItemRefused, "no item is being written");
    if (bytes.size() > m_item->announced.size - m_item->written) {
      m_item.reset();
      Enter(ModemState::Booted);
      return Refuse(JournalEvent::ItemRefused, "more than announced");
    }
    if (!StoreBlock(m_item->announced.flashOffset + m_item->written, bytes)) {
      return Refuse(JournalEvent::ItemRefused, "the memory cannot be written");
    }
    m_item->written += static_cast<std::uint32_t>(bytes.size());
    m_item->crc = Crc32(bytes, m_item->crc);
    done = m_item->begun + Milliseconds(std::int64_t{m_item->written} * 1000 / m_timing.bytesPerSecond);
  }
  m_clock.SleepUntil(done);
  return true;
}

bool VirtualModem::EndItem(std::uint32_t session) {
  const std::lock_guard lock(m_mutex);
  if (!IsOpen(session) || !m_item) return Refuse(JournalEvent::ItemRefused, "no item is being written");
  const Item item = *std::exchange(m_item, std::nullopt);
  Enter(ModemState::Booted);
  const std::string what =
      Print("class %u at 0x%06x", item.announced.memoryClass, item.announced.flashOffset);
  if (item.written != item.announced.size) return Refuse(JournalEvent::ItemRefused, what + ": incomplete");
  if (item.crc != item.announced.crc32) return Refuse(JournalEvent::ItemRefused, what + ": wrong checksum");
  ++m_itemsWritten;
  m_bytesWritten += item.written;
  m_journal(JournalEvent::ItemWritten, what);
  return true;
}

bool VirtualModem::StoreBlock(std::uint32_t offset, std::span<const std::uint8_t> bytes) {
  m_memory.seekp(offset);
  m_memory.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  m_memory.flush();
  return m_memory.good();
}

bool VirtualModem::ForceReset(std::uint32_t session) {
  const std::lock_guard lock(m_mutex);
  m_journal(JournalEvent::ForcedReset, NameOf(m_state));
  if (!IsOpen(session)) return false;
  EndSession();
  ReturnToNormal();
  return true;
}

void VirtualModem::ReturnToNormal() {
  if (m_faults.neverReturns) return Enter(ModemState::Dead);
  m_resetsUntilReturn = m_faults.returnsAfterResets;
  m_returnsWhenWaitExpires = m_faults.returnsAtLastCheck;
  const bool waits = m_resetsUntilReturn > 0 || m_returnsWhenWaitExpires;
  Enter(ModemState::Returning, waits ? kNoEnd : m_clock.Now() + m_timing.returning + m_faults.returnDelay);
}

std::uint32_t VirtualModem::ItemsWritten() {
  const std::lock_guard lock(m_mutex);
  return m_itemsWritten;
}

std::uint64_t VirtualModem::BytesWritten() {
  const std::lock_guard lock(m_mutex);
  return m_bytesWritten;
}

std::vector<std::uint8_t> VirtualModem::Memory() {
  const std::lock_guard lock(m_mutex);
  std::vector<std::uint8_t> bytes(kMemorySize);
  std::ifstream stream(m_memoryFile, std::ios::binary);
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
