#include "virtual_modem.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <utility>

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
  return item.flash_offset <= kSize && item.size <= kSize - item.flash_offset;
}

}  // namespace

const char* NameOf(ModemState state) {
  switch (state) {
    case ModemState::kNormal:
      return "normal";
    case ModemState::kLeaving:
      return "leaving";
    case ModemState::kRestarting:
      return "restarting";
    case ModemState::kFlashPort:
      return "flash port";
    case ModemState::kChannelOpen:
      return "channel open";
    case ModemState::kBooted:
      return "booted";
    case ModemState::kWriting:
      return "writing";
    case ModemState::kReturning:
      return "returning";
    case ModemState::kDead:
      return "dead";
  }
  return "";
}

const char* NameOf(JournalEvent event) {
  switch (event) {
    case JournalEvent::kAtCommand:
      return "AT command";
    case JournalEvent::kMbimReboot:
      return "MBIM reboot";
    case JournalEvent::kBasebandReset:
      return "baseband reset";
    case JournalEvent::kFlashPortOpened:
      return "flash port opened";
    case JournalEvent::kFlashPortRefused:
      return "flash port refused";
    case JournalEvent::kBooted:
      return "booted";
    case JournalEvent::kBootRefused:
      return "boot refused";
    case JournalEvent::kItemWritten:
      return "item written";
    case JournalEvent::kItemRefused:
      return "item refused";
    case JournalEvent::kFlashPortClosed:
      return "flash port closed";
    case JournalEvent::kForcedReset:
      return "forced reset";
    case JournalEvent::kStateChanged:
      return "state";
    case JournalEvent::kLibraryLoaded:
      return "library loaded";
    case JournalEvent::kLibraryUnloaded:
      return "library unloaded";
    case JournalEvent::kLibraryCall:
      return "library call";
    case JournalEvent::kReenumeration:
      return "re-enumeration";
  }
  return "";
}

VirtualModem::VirtualModem(const VirtualClock& clock, std::filesystem::path memory_file, ModemTiming timing,
                           ModemFaults faults, ModemState initial, Journal journal)
    : m_clock(clock),
      m_memory_file(std::move(memory_file)),
      m_timing(timing),
      m_faults(faults),
      m_journal(std::move(journal)),
      m_state(initial) {
  MakeErasedMemory(m_memory_file, kMemorySize);
  m_memory.open(m_memory_file, std::ios::binary | std::ios::in | std::ios::out);
}

ModemState VirtualModem::State() {
  const std::lock_guard lock(m_mutex);
  Advance();
  return m_state;
}

bool VirtualModem::IsPresentAsModem() {
  const auto state = State();
  return state == ModemState::kNormal || state == ModemState::kLeaving;
}

bool VirtualModem::IsPresentAsFlashPort() {
  switch (State()) {
    case ModemState::kFlashPort:
    case ModemState::kChannelOpen:
    case ModemState::kBooted:
    case ModemState::kWriting:
      return true;
    default:
      return false;
  }
}

ModemState VirtualModem::ComeToRest() {
  const std::lock_guard lock(m_mutex);
  while (m_state_ends != kNoEnd) AdvanceTo(m_state_ends);
  return m_state;
}

void VirtualModem::Advance() {
  AdvanceTo(m_clock.Now());
}

void VirtualModem::AdvanceTo(Milliseconds moment) {
  while (moment >= m_state_ends) {
    const auto since = m_state_ends;
    switch (m_state) {
      case ModemState::kLeaving:
        EnterRestarting(since);
        break;
      case ModemState::kRestarting:
        EnterFlashPort(since);
        break;
      case ModemState::kFlashPort:
        Enter(ModemState::kReturning, since + m_timing.returning);
        break;
      default:
        Enter(ModemState::kNormal);
        break;
    }
  }
}

void VirtualModem::Enter(ModemState state, Milliseconds ends) {
  m_state = state;
  m_state_ends = ends;
  m_journal(JournalEvent::kStateChanged, NameOf(state));
}

void VirtualModem::EnterRestarting(Milliseconds since) {
  ++m_flash_mode_starts;
  const bool is_missing = m_faults.flash_port_missing.Hits(m_flash_mode_starts);
  const bool is_late = m_faults.flash_port_late.Hits(m_flash_mode_starts);
  const auto delay = m_timing.restarting + (is_late ? m_faults.flash_port_delay : Milliseconds::zero());
  Enter(ModemState::kRestarting, is_missing ? kNoEnd : since + delay);
}

void VirtualModem::EnterFlashPort(Milliseconds since) {
  Enter(ModemState::kFlashPort, m_stays_in_flash_mode ? kNoEnd : since + m_timing.boot_loader_window);
}

void VirtualModem::EndSession() {
  m_session = 0;
  m_is_booted = false;
  m_item.reset();
}

bool VirtualModem::LeaveForFlashMode() {
  if (m_state != ModemState::kNormal) return false;
  m_stays_in_flash_mode = true;
  Enter(ModemState::kLeaving, m_clock.Now() + m_timing.leaving);
  return true;
}

std::string VirtualModem::HearAtBytes(std::span<const std::uint8_t> bytes) {
  const std::lock_guard lock(m_mutex);
  Advance();
  std::string replies;
  for (const std::uint8_t byte : bytes) {
    m_at_input += static_cast<char>(byte);
    if (byte != '\r') continue;
    replies += Obey(std::exchange(m_at_input, {}));
  }
  return replies;
}

std::string VirtualModem::Obey(const std::string& command) {
  m_journal(JournalEvent::kAtCommand, command);
  if (command == kFlashModeCommand) {
    if (!m_faults.ignores_at_command) LeaveForFlashMode();
    return "\r\nOK\r\n";
  }
  return command == "at\r" || command == "AT\r" ? "\r\nOK\r\n" : "\r\nERROR\r\n";
}

bool VirtualModem::RebootByMbim() {
  const std::lock_guard lock(m_mutex);
  Advance();
  m_journal(JournalEvent::kMbimReboot, NameOf(m_state));
  if (m_faults.ignores_mbim_reboot) return m_state == ModemState::kNormal;
  return LeaveForFlashMode();
}

void VirtualModem::ResetBaseband() {
  const std::lock_guard lock(m_mutex);
  Advance();
  m_journal(JournalEvent::kBasebandReset, NameOf(m_state));
  if (m_state == ModemState::kDead) return;
  EndSession();
  m_returns_when_wait_expires = false;
  if (m_resets_until_return > 0) {
    if (--m_resets_until_return == 0) Enter(ModemState::kReturning, m_clock.Now() + m_timing.returning);
    return;
  }
  m_stays_in_flash_mode = false;
  EnterRestarting(m_clock.Now());
}

void VirtualModem::WaitForReturnExpired() {
  const std::lock_guard lock(m_mutex);
  Advance();
  if (std::exchange(m_returns_when_wait_expires, false)) Enter(ModemState::kNormal);
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
    if (m_state != ModemState::kFlashPort) {
      m_journal(JournalEvent::kFlashPortRefused, NameOf(m_state));
      return 0;
    }
    session = m_session = ++m_last_session;
    Enter(ModemState::kChannelOpen);
    m_journal(JournalEvent::kFlashPortOpened, std::to_string(session));
  }
  m_clock.Sleep(m_timing.open_port);
  const std::lock_guard lock(m_mutex);
  return IsOpen(session) ? session : 0;
}

void VirtualModem::ClosePort(std::uint32_t session) {
  const std::lock_guard lock(m_mutex);
  Advance();
  if (!IsOpen(session)) return;
  EndSession();
  m_journal(JournalEvent::kFlashPortClosed, std::to_string(session));
  EnterFlashPort(m_clock.Now());
}

bool VirtualModem::Boot(std::uint32_t session, std::span<const std::uint8_t> header) {
  {
    const std::lock_guard lock(m_mutex);
    if (!IsOpen(session)) return Refuse(JournalEvent::kBootRefused, "the port is not open");
    if (m_is_booted) return Refuse(JournalEvent::kBootRefused, "already booted");
    if (!ParseImageTable(header)) return Refuse(JournalEvent::kBootRefused, "damaged boot file");
  }
  m_clock.Sleep(m_timing.boot);
  const std::lock_guard lock(m_mutex);
  if (!IsOpen(session)) return Refuse(JournalEvent::kBootRefused, "reset while booting");
  m_is_booted = true;
  Enter(ModemState::kBooted);
  m_journal(JournalEvent::kBooted, std::to_string(session));
  return true;
}

bool VirtualModem::BeginItem(std::uint32_t session, const ImageItem& item) {
  const std::lock_guard lock(m_mutex);
  if (!IsOpen(session)) return Refuse(JournalEvent::kItemRefused, "the port is not open");
  if (!m_is_booted) return Refuse(JournalEvent::kItemRefused, "written before boot");
  if (m_item) return Refuse(JournalEvent::kItemRefused, "the item before is not complete");
  if (!LiesInMemory(item)) return Refuse(JournalEvent::kItemRefused, "outside the memory");
  m_item = Item{item, 0, 0, m_clock.Now()};
  Enter(ModemState::kWriting);
  return true;
}

bool VirtualModem::WriteBlock(std::uint32_t session, std::span<const std::uint8_t> bytes) {
  Milliseconds done{0};
  {
    const std::lock_guard lock(m_mutex);
    if (!IsOpen(session) || !m_item) return Refuse(JournalEvent::kItemRefused, "no item is being written");
    if (bytes.size() > m_item->announced.size - m_item->written) {
      m_item.reset();
      Enter(ModemState::kBooted);
      return Refuse(JournalEvent::kItemRefused, "more than announced");
    }
    if (!StoreBlock(m_item->announced.flash_offset + m_item->written, bytes)) {
      return Refuse(JournalEvent::kItemRefused, "the memory cannot be written");
    }
    m_item->written += static_cast<std::uint32_t>(bytes.size());
    m_item->crc = Crc32(bytes, m_item->crc);
    done = m_item->begun + Milliseconds(std::int64_t{m_item->written} * 1000 / m_timing.bytes_per_second);
  }
  m_clock.SleepUntil(done);
  return true;
}

bool VirtualModem::EndItem(std::uint32_t session) {
  const std::lock_guard lock(m_mutex);
  if (!IsOpen(session) || !m_item) return Refuse(JournalEvent::kItemRefused, "no item is being written");
  const Item item = *std::exchange(m_item, std::nullopt);
  Enter(ModemState::kBooted);
  const std::string what =
      Print("class %u at 0x%06x", item.announced.memory_class, item.announced.flash_offset);
  if (item.written != item.announced.size) return Refuse(JournalEvent::kItemRefused, what + ": incomplete");
  if (item.crc != item.announced.crc32) return Refuse(JournalEvent::kItemRefused, what + ": wrong checksum");
  ++m_items_written;
  m_bytes_written += item.written;
  m_journal(JournalEvent::kItemWritten, what);
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
  m_journal(JournalEvent::kForcedReset, NameOf(m_state));
  if (!IsOpen(session)) return false;
  EndSession();
  ReturnToNormal();
  return true;
}

void VirtualModem::ReturnToNormal() {
  if (m_faults.never_returns) return Enter(ModemState::kDead);
  m_resets_until_return = m_faults.returns_after_resets;
  m_returns_when_wait_expires = m_faults.returns_at_last_check;
  const bool waits = m_resets_until_return > 0 || m_returns_when_wait_expires;
  Enter(ModemState::kReturning, waits ? kNoEnd : m_clock.Now() + m_timing.returning + m_faults.return_delay);
}

std::uint32_t VirtualModem::ItemsWritten() {
  const std::lock_guard lock(m_mutex);
  return m_items_written;
}

std::uint64_t VirtualModem::BytesWritten() {
  const std::lock_guard lock(m_mutex);
  return m_bytes_written;
}

std::vector<std::uint8_t> VirtualModem::Memory() {
  const std::lock_guard lock(m_mutex);
  std::vector<std::uint8_t> bytes(kMemorySize);
  std::ifstream stream(m_memory_file, std::ios::binary);
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
    const auto there = std::span(memory).subspan(item.flash_offset, item.size);
    const auto at = std::ranges::mismatch(bytes, there).in1 - bytes.begin();
    ++comparison.items;
    comparison.bytes += item.size;
    if (at == std::ssize(bytes) || !comparison.difference.empty()) return;
    comparison.difference = Print("class %u differs at 0x%06x", item.memory_class,
                                  item.flash_offset + static_cast<std::uint32_t>(at));
  };
  const FlashImage* whole = modem != nullptr ? modem : nvm;
  if (whole != nullptr) {
    for (const auto& item : whole->items) compare(*whole, item);
  }
  if (modem != nullptr && nvm != nullptr) compare(*nvm, nvm->items.front());
  comparison.equal = comparison.items > 0 && comparison.difference.empty();
  return comparison;
}
