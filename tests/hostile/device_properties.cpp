// What the system and the modem hand out: device lists, friendly names, replies on the AT port.

#include <windows.h>

#include <cfgmgr32.h>

#include <algorithm>
#include <climits>
#include <cwctype>
#include <deque>

#include "common/devicelist.h"
#include "download/atprocessor.h"
#include "download/devicepresence.h"
#include "hostile/guarded_memory.h"
#include "hostile/property.h"
#include "simulator/import_patch.h"

namespace hostile {

namespace {

GuardedMemory& Guarded() {
  static GuardedMemory memory(1 << 16);
  return memory;
}

HMODULE Library() {
  return ::GetModuleHandleW(L"toolkit_internals.dll");
}

// --- Device lists -----------------------------------------------------------------------------------------

/// A tree whose lists hold what a case says, at the end of memory.
class ScriptedTree {
 public:
  ScriptedTree() {
    m_Patch.Replace("CM_Get_Device_ID_List_SizeW", &IdLength);
    m_Patch.Replace("CM_Get_Device_ID_ListW", &Ids);
    m_Patch.Replace("CM_Get_Device_Interface_List_SizeW", &InterfaceLength);
    m_Patch.Replace("CM_Get_Device_Interface_ListW", &Interfaces);
    m_Patch.Replace("HeapAlloc", &Allocate);
    m_Patch.Replace("HeapFree", &Free);
  }
  static inline std::wstring s_list;

 private:
  static CONFIGRET Tell(ULONG* length) {
    *length = static_cast<ULONG>(s_list.size());
    return CR_SUCCESS;
  }
  static CONFIGRET Give(wchar_t* list, ULONG length) {
    s_list.copy(list, length);
    return CR_SUCCESS;
  }
  static CONFIGRET WINAPI IdLength(ULONG* length, const wchar_t*, ULONG) { return Tell(length); }
  static CONFIGRET WINAPI Ids(const wchar_t*, wchar_t* list, ULONG length, ULONG) {
    return Give(list, length);
  }
  static CONFIGRET WINAPI InterfaceLength(ULONG* length, GUID*, wchar_t*, ULONG) { return Tell(length); }
  static CONFIGRET WINAPI Interfaces(GUID*, wchar_t*, wchar_t* list, ULONG length, ULONG) {
    return Give(list, length);
  }
  static void* WINAPI Allocate(HANDLE, DWORD, SIZE_T bytes) { return Guarded().Room<char>(bytes); }
  static BOOL WINAPI Free(HANDLE, DWORD, void*) { return TRUE; }

  simulator::ImportPatch m_Patch{Library()};
};

std::string MakeDeviceList(Random& random) {
  std::string list;
  for (std::size_t i = random.Below(7); i > 0; --i) {
    list += random.OneIn(3)
                ? random.Pick<std::string>({"USB\\VID_1D5A&PID_0AC9&MI_00", "usb\\vid_1d5a&pid_0ac9&mi_00",
                                            "USB\\VID_1D5A&PID_0AC9&MI_0"})
                : random.Text("USB\\vid_1D5A&PM0\xE9", random.Size(60));
    if (random.OneIn(3)) list += "\\" + random.Text("0123", random.Below(9));
    if (!random.OneIn(9)) list += '\0';
  }
  return list + (random.OneIn(4) ? "" : std::string(1, '\0'));
}

/// One look finds what is in a text of the list, up to its first empty one and no further than it reaches.
void CheckDeviceList(std::string_view input) {
  std::wstring& list = ScriptedTree::s_list;
  list.clear();
  for (const char byte : input) list += static_cast<wchar_t>(static_cast<unsigned char>(byte));
  std::vector<std::wstring> entries;
  for (std::size_t from = 0; from < list.size();) {
    const std::size_t end = list.find(L'\0', from);
    if (end == std::wstring::npos || end == from) break;
    entries.push_back(list.substr(from, end - from));
    from = end + 1;
  }
  bool expected = false;
  for (std::wstring entry : entries) {
    for (wchar_t& unit : entry) unit = static_cast<wchar_t>(std::towupper(unit));
    expected = expected || entry.find(corvel::kMbimModemId) != std::wstring::npos;
  }
  ExpectEqual("the modem's presence", corvel::IsDevicePresent(corvel::kMbimModemId), expected);

  const corvel::DeviceList interfaces = corvel::FetchPresentInterfaces(GUID{});
  std::vector<std::wstring> paths;
  for (const wchar_t* path : interfaces.Entries()) paths.emplace_back(path);
  const bool isFilled = list.size() >= corvel::kShortestFilledList;
  ExpectEqual("the interfaces", paths, isFilled ? entries : std::vector<std::wstring>());
}

// --- The friendly name of the AT port ---------------------------------------------------------------------

class ScriptedName {
 public:
  ScriptedName() {
    m_Patch.Replace("CM_Get_Device_ID_ListW", &Ids);
    m_Patch.Replace("CM_Locate_DevNodeW", &Locate);
    m_Patch.Replace("CM_Get_DevNode_Registry_PropertyW", &Property);
  }
  static inline std::wstring s_name;

 private:
  static CONFIGRET WINAPI Ids(const wchar_t*, wchar_t* list, ULONG length, ULONG) {
    std::fill_n(list, length, L'\0');
    std::copy_n(L"USB\\A", 5, list);
    return CR_SUCCESS;
  }
  static CONFIGRET WINAPI Locate(DEVINST* node, wchar_t*, ULONG) {
    *node = 1;
    return CR_SUCCESS;
  }
  /// Fills what it is given, with or without room for an end.
  static CONFIGRET WINAPI Property(DEVINST, ULONG, ULONG*, void* buffer, ULONG* bytes, ULONG) {
    const std::size_t units = std::min<std::size_t>(s_name.size(), *bytes / sizeof(wchar_t));
    s_name.copy(static_cast<wchar_t*>(buffer), units);
    return CR_SUCCESS;
  }

  simulator::ImportPatch m_Patch{Library()};
};

std::string MakeName(Random& random) {
  if (random.OneIn(6)) return random.Text("0123456789 ab(", random.Below(700));
  return "Modem AT port " + random.Text("ab ()-", random.Below(6)) + "(COM" +
         random.Text("0123456789", random.Below(14)) + ")";
}

/// The number is made of all digits of the name, and no larger than an int.
void CheckName(std::string_view input) {
  ScriptedName::s_name.assign(input.begin(), input.end());
  for (wchar_t& unit : ScriptedName::s_name) unit = static_cast<wchar_t>(unit & 0xFF);
  std::int64_t expected = 0;
  constexpr std::size_t kMostUnits = 460;
  for (std::size_t i = 0; i < std::min(input.size(), kMostUnits) && input[i] != '\0'; ++i) {
    if (input[i] >= '0' && input[i] <= '9')
      expected = std::min<std::int64_t>(expected * 10 + (input[i] - '0'), INT_MAX);
  }
  ExpectEqual("the port", ATProcessor::GetInstance()->findComPort(corvel::kAtPortId),
              static_cast<int>(expected));
}

// --- Replies ----------------------------------------------------------------------------------------------

constexpr int kNoByte = -1;
constexpr int kFailedRead = -2;

/// A port that has batches of bytes for whoever reads, and a clock that goes on while he sleeps.
class ScriptedPort {
 public:
  using Batch = std::deque<int>;

  ScriptedPort() {
    m_Patch.Replace("ClearCommError", &Waiting);
    m_Patch.Replace("ReadFile", &Read);
    m_Patch.Replace("PurgeComm", &Purge);
    m_Patch.Replace("Sleep", &Sleep);
    m_Patch.Replace("GetTickCount64", &Now);
    m_Patch.Replace("CreateThread", &NoThread);
  }
  static inline std::deque<Batch> s_batches;
  static inline ULONGLONG s_now = 0;

 private:
  static BOOL WINAPI Waiting(HANDLE, DWORD*, COMSTAT* status) {
    while (!s_batches.empty() && s_batches.front().empty()) s_batches.pop_front();
    status->cbInQue = s_batches.empty() ? 0 : static_cast<DWORD>(s_batches.front().size());
    return TRUE;
  }
  static BOOL WINAPI Read(HANDLE, void* buffer, DWORD, DWORD* read, OVERLAPPED*) {
    const int byte = s_batches.front().front();
    s_batches.front().pop_front();
    *read = byte >= 0 ? 1 : 0;
    if (byte >= 0) *static_cast<char*>(buffer) = static_cast<char>(byte);
    return byte != kFailedRead;
  }
  static BOOL WINAPI Purge(HANDLE, DWORD) { return TRUE; }
  static void WINAPI Sleep(DWORD milliseconds) { s_now += milliseconds; }
  static ULONGLONG WINAPI Now() { return s_now; }
  static HANDLE WINAPI NoThread(SECURITY_ATTRIBUTES*, SIZE_T, LPTHREAD_START_ROUTINE, void*, DWORD, DWORD*) {
    ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }

  simulator::ImportPatch m_Patch{Library()};
};

std::string MakeReply(Random& random) {
  std::string reply(1, static_cast<char>(random.Next()));
  for (std::size_t i = random.Below(6); i > 0; --i) {
    reply += random.OneIn(3)
                 ? random.Pick<std::string>({"\r\nOK\r\n", "ERROR", "O", "K", "OK", "RRR", "\xFE", "\xFF"})
                 : random.Text("OKER \r\n+", random.Size(40));
    if (random.OneIn(2)) reply += '\xFD';
  }
  return reply;
}

/// Batches are cut at FD; FE is a read without a byte, FF one that fails.
std::deque<ScriptedPort::Batch> BatchesOf(std::string_view bytes) {
  std::deque<ScriptedPort::Batch> batches(1);
  for (const char letter : bytes) {
    const auto byte = static_cast<unsigned char>(letter);
    if (byte == 0xFD) {
      batches.emplace_back();
    } else {
      batches.back().push_back(byte == 0xFE ? kNoByte : byte == 0xFF ? kFailedRead : byte);
    }
  }
  return batches;
}

/// What a reader keeps who stops behind the batch with an OK or a third R, or when there is no more room.
std::string ReplyByTheBook(const std::deque<ScriptedPort::Batch>& batches, std::size_t room) {
  std::string reply;
  for (const auto& batch : batches) {
    bool ended = false;
    int rs = 0;
    int before = 0;
    for (std::size_t i = 0; i < batch.size() && reply.size() < room; ++i) {
      if (batch[i] < 0) continue;
      reply += static_cast<char>(batch[i]);
      rs += batch[i] == 'R' ? 1 : 0;
      ended = ended || rs == 3 || (before == 'O' && batch[i] == 'K');
      before = batch[i];
    }
    if (ended || reply.size() == room) break;
  }
  return reply;
}

class Processor : public ATProcessor {};

void CheckReply(std::string_view input) {
  static Processor processor;
  Choices choices(input);
  const std::size_t room = choices.Below(3) == 0 ? choices.Below(40) : 256;
  ScriptedPort::s_batches = BatchesOf(choices.Rest());
  const std::string expected = ReplyByTheBook(ScriptedPort::s_batches, room);
  const ULONGLONG began = ScriptedPort::s_now;
  char* const buffer = Guarded().Room<char>(room);
  auto length = static_cast<std::uint32_t>(room);
  ExpectEqual("the answer", processor.readResponse(buffer, &length), 0);
  ExpectEqual("the reply", std::string(buffer, length), expected);
  Expect(ScriptedPort::s_now - began <= 5010, "it waits for longer than five seconds");
}

}  // namespace

std::vector<Property> DeviceProperties() {
  return {
      {"device-list", 1, &MakeDeviceList, &CheckDeviceList,
       [] { return std::shared_ptr<void>(std::make_shared<ScriptedTree>()); }},
      {"friendly-name", 4, &MakeName, &CheckName,
       [] { return std::shared_ptr<void>(std::make_shared<ScriptedName>()); }},
      {"at-reply", 10, &MakeReply, &CheckReply,
       [] { return std::shared_ptr<void>(std::make_shared<ScriptedPort>()); }},
  };
}

}  // namespace hostile
