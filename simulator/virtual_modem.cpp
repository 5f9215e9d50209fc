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

class VirtualModem::Turn {
 public:
  explicit Turn(VirtualModem& modem) : m_Modem(modem), m_Lock(modem.m_Mutex) {
    if (!m_Modem.m_Shared) return;
    m_Modem.m_Data = m_Modem.m_Shared->Take();
    m_Modem.LetGoOfTheDead();
  }
  ~Turn() {
    if (m_Modem.m_Shared) m_Modem.m_Shared->PutBack(m_Modem.m_Data);
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

 private:
  VirtualModem& m_Modem;
  const std::lock_guard<Lock> m_Lock;
};

VirtualModem::VirtualModem(const VirtualClock& clock, std::filesystem::path memoryFile, ModemTiming timing,
                           ModemFaults faults, ModemState initial, Journal journal,
                           const ModemSharing& sharing)
    : m_Clock(clock),
      m_MemoryFile(std::move(memoryFile)),
      m_Timing(timing),
      m_Faults(faults),
      m_Journal(std::move(journal)),
      m_User(sharing.user) {
  m_Data.state = initial;
  if (!sharing.name.empty())
    m_Shared = std::make_unique<SharedData<ModemData>>(sharing.name + L"-modem", m_Data);
  // No turn: whom it would tell of the dead may not be there yet.
  if (m_Shared) m_Data = m_Shared->Take();
  MakeErasedMemory(m_MemoryFile, kMemorySize);
  m_Memory.open(m_MemoryFile, std::ios::binary | std::ios::in | std::ios::out);
  if (m_Shared) m_Shared->PutBack(m_Data);
}

void VirtualModem::LetGoOfTheDead() {
  if (m_Data.atPortUser.IsAny() && m_Data.atPortUser != m_User && !Lives(m_Data.atPortUser))
    m_Data.atPortUser = {};
  if (m_Data.session == 0 || m_Data.sessionUser == m_User || Lives(m_Data.sessionUser)) return;
  const bool wasBooted = m_Data.isBooted;
  EndSession();
  // The boot file that runs talks to nobody else; only a reset ends it.
  if (wasBooted) return Enter(ModemState::Booted);
  m_Journal(JournalEvent::FlashPortClosed, "its user has died");
  EnterFlashPort(m_Clock.Now());
}

ModemState VirtualModem::State() {
  const Turn turn(*this);
  Advance();
  return m_Data.state;
}

void VirtualModem::Put(ModemState state) {
  const Turn turn(*this);
  EndSession();
  m_Data.staysInFlashMode = true;
  m_Data.resetsUntilReturn = 0;
  m_Data.returnsWhenWaitExpires = false;
  Enter(state);
}

void VirtualModem::KeepStateIn(std::filesystem::path file) {
  const Turn turn(*this);
  m_StateFile = std::move(file);
  KeepState();
}

void VirtualModem::KeepState() {
  if (m_StateFile.empty()) return;
  std::ofstream(m_StateFile) << static_cast<int>(m_Data.state) << ' ' << (m_Data.staysInFlashMode ? 1 : 0)
                             << ' ' << (m_Data.stateEnds == kNoEnd ? 1 : 0) << '\n';
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
  const Turn turn(*this);
  while (m_Data.stateEnds != kNoEnd) AdvanceTo(m_Data.stateEnds);
  return m_Data.state;
}

void VirtualModem::Advance() {
  AdvanceTo(m_Clock.Now());
}

void VirtualModem::AdvanceTo(Milliseconds moment) {
  while (moment >= m_Data.stateEnds) {
    const auto since = m_Data.stateEnds;
    switch (m_Data.state) {
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
  m_Data.state = state;
  m_Data.stateEnds = ends;
  KeepState();
  m_Journal(JournalEvent::StateChanged, NameOf(state));
}

void VirtualModem::EnterRestarting(Milliseconds since) {
  ++m_Data.flashModeStarts;
  const bool isMissing = m_Faults.flashPortMissing.Hits(m_Data.flashModeStarts);
  const bool isLate = m_Faults.flashPortLate.Hits(m_Data.flashModeStarts);
  const auto delay = m_Timing.restarting + (isLate ? m_Faults.flashPortDelay : Milliseconds::zero());
  Enter(ModemState::Restarting, isMissing ? kNoEnd : since + delay);
}

void VirtualModem::EnterFlashPort(Milliseconds since) {
  Enter(ModemState::FlashPort, m_Data.staysInFlashMode ? kNoEnd : since + m_Timing.bootLoaderWindow);
}

void VirtualModem::EndSession() {
  m_Data.session = 0;
  m_Data.sessionUser = {};
  m_Data.isBooted = false;
  m_Data.item.reset();
}

bool VirtualModem::LeaveForFlashMode() {
  if (m_Data.state != ModemState::Normal) return false;
  m_Data.staysInFlashMode = true;
  Enter(ModemState::Leaving, m_Clock.Now() + m_Timing.leaving);
  return true;
}

bool VirtualModem::TakeAtPort() {
  const Turn turn(*this);
  if (m_Data.atPortUser.IsAny()) return false;
  m_Data.atPortUser = m_User;
  return true;
}

void VirtualModem::GiveAtPortBack() {
  const Turn turn(*this);
  m_Data.atPortUser = {};
}

std::string VirtualModem::HearAtBytes(std::span<const std::uint8_t> bytes) {
  const Turn turn(*this);
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
  const Turn turn(*this);
  Advance();
  m_Journal(JournalEvent::MbimReboot, NameOf(m_Data.state));
  if (m_Faults.ignoresMbimReboot) return m_Data.state == ModemState::Normal;
  return LeaveForFlashMode();
}

void VirtualModem::ResetBaseband() {
  const Turn turn(*this);
  Advance();
  m_Journal(JournalEvent::BasebandReset, NameOf(m_Data.state));
  if (m_Data.state == ModemState::Dead) return;
  EndSession();
  m_Data.returnsWhenWaitExpires = false;
  if (m_Data.resetsUntilReturn > 0) {
    if (--m_Data.resetsUntilReturn == 0) Enter(ModemState::Returning, m_Clock.Now() + m_Timing.returning);
    return;
  }
  m_Data.staysInFlashMode = false;
  EnterRestarting(m_Clock.Now());
}

void VirtualModem::WaitForReturnExpired() {
  const Turn turn(*this);
  Advance();
  if (std::exchange(m_Data.returnsWhenWaitExpires, false)) Enter(ModemState::Normal);
}

bool VirtualModem::IsOpen(std::uint32_t session) const {
  return session != 0 && session == m_Data.session;
}

bool VirtualModem::Refuse(JournalEvent event, const std::string& reason) {
  m_Journal(event, reason);
  return false;
}

std::uint32_t VirtualModem::OpenPort() {
  std::uint32_t session = 0;
  {
    const Turn turn(*this);
    Advance();
    if (m_Data.state != ModemState::FlashPort) {
      m_Journal(JournalEvent::FlashPortRefused, NameOf(m_Data.state));
      return 0;
    }
    session = m_Data.session = ++m_Data.lastSession;
    m_Data.sessionUser = m_User;
    Enter(ModemState::ChannelOpen);
    m_Journal(JournalEvent::FlashPortOpened, std::to_string(session));
  }
  m_Clock.Pause(m_Timing.openPort);
  const Turn turn(*this);
  return IsOpen(session) ? session : 0;
}

void VirtualModem::ClosePort(std::uint32_t session) {
  const Turn turn(*this);
  Advance();
  if (!IsOpen(session)) return;
  EndSession();
  m_Journal(JournalEvent::FlashPortClosed, std::to_string(session));
  EnterFlashPort(m_Clock.Now());
}

bool VirtualModem::Boot(std::uint32_t session, std::span<const std::uint8_t> header) {
  {
    const Turn turn(*this);
    if (!IsOpen(session)) return Refuse(JournalEvent::BootRefused, "the port is not open");
    if (m_Data.isBooted) return Refuse(JournalEvent::BootRefused, "already booted");
    if (!ParseImageTable(header)) return Refuse(JournalEvent::BootRefused, "damaged boot file");
  }
  m_Clock.Pause(m_Timing.boot);
  const Turn turn(*this);
  if (!IsOpen(session)) return Refuse(JournalEvent::BootRefused, "reset while booting");
  m_Data.isBooted = true;
  Enter(ModemState::Booted);
  m_Journal(JournalEvent::Booted, std::to_string(session));
  return true;
}

bool VirtualModem::BeginItem(std::uint32_t session, const ImageItem& item) {
  const Turn turn(*this);
  if (!IsOpen(session)) return Refuse(JournalEvent::ItemRefused, "the port is not open");
  if (!m_Data.isBooted) return Refuse(JournalEvent::ItemRefused, "written before boot");
  if (m_Data.item) return Refuse(JournalEvent::ItemRefused, "the item before is not complete");
  if (!LiesInMemory(item)) return Refuse(JournalEvent::ItemRefused, "outside the memory");
  m_Data.item = ModemData::Item{item, 0, 0, m_Clock.Now()};
  Enter(ModemState::Writing);
  return true;
}

bool VirtualModem::WriteBlock(std::uint32_t session, std::span<const std::uint8_t> bytes) {
  Milliseconds done{0};
  std::uint32_t written = 0;
  BlockObserver observer;
  {
    const Turn turn(*this);
    if (!IsOpen(session) || !m_Data.item)
      return Refuse(JournalEvent::ItemRefused, "no item is being written");
    if (bytes.size() > m_Data.item->announced.size - m_Data.item->written) {
      m_Data.item.reset();
      Enter(ModemState::Booted);
      return Refuse(JournalEvent::ItemRefused, "more than announced");
    }
    if (!StoreBlock(m_Data.item->announced.flashOffset + m_Data.item->written, bytes)) {
      return Refuse(JournalEvent::ItemRefused, "the memory cannot be written");
    }
    m_Data.item->written += static_cast<std::uint32_t>(bytes.size());
    m_Data.item->crc = Crc32(bytes, m_Data.item->crc);
    done = m_Data.item->begun +
           Milliseconds(std::int64_t{m_Data.item->written} * 1000 / m_Timing.bytesPerSecond);
    written = m_Data.item->written;
    observer = m_BlockObserver;
  }
  if (observer) observer(written);
  m_Clock.PauseUntil(done);
  return true;
}

std::uint32_t VirtualModem::BlockSize() {
  const Turn turn(*this);
  return m_BlockSize;
}

void VirtualModem::TakeInBlocks(std::uint32_t size, BlockObserver observer) {
  const Turn turn(*this);
  m_BlockSize = size;
  m_BlockObserver = std::move(observer);
}

bool VirtualModem::EndItem(std::uint32_t session) {
  const Turn turn(*this);
  if (!IsOpen(session) || !m_Data.item) return Refuse(JournalEvent::ItemRefused, "no item is being written");
  const ModemData::Item item = *std::exchange(m_Data.item, std::nullopt);
  Enter(ModemState::Booted);
  const std::string what =
      Print("class %u at 0x%06x", item.announced.memoryClass, item.announced.flashOffset);
  if (item.written != item.announced.size) return Refuse(JournalEvent::ItemRefused, what + ": incomplete");
  if (item.crc != item.announced.crc32) return Refuse(JournalEvent::ItemRefused, what + ": wrong checksum");
  ++m_Data.itemsWritten;
  m_Data.bytesWritten += item.written;
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
  const Turn turn(*this);
  m_Journal(JournalEvent::ForcedReset, NameOf(m_Data.state));
  if (!IsOpen(session)) return false;
  EndSession();
  ReturnToNormal();
  return true;
}

void VirtualModem::ReturnToNormal() {
  if (m_Faults.neverReturns) return Enter(ModemState::Dead);
  m_Data.resetsUntilReturn = m_Faults.returnsAfterResets;
  m_Data.returnsWhenWaitExpires = m_Faults.returnsAtLastCheck;
  const bool waits = m_Data.resetsUntilReturn > 0 || m_Data.returnsWhenWaitExpires;
  Enter(ModemState::Returning, waits ? kNoEnd : m_Clock.Now() + m_Timing.returning + m_Faults.returnDelay);
}

std::uint32_t VirtualModem::ItemsWritten() {
  const Turn turn(*this);
  return m_Data.itemsWritten;
}

std::uint64_t VirtualModem::BytesWritten() {
  const Turn turn(*this);
  return m_Data.bytesWritten;
}

std::vector<std::uint8_t> VirtualModem::Memory() {
  const Turn turn(*this);
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
