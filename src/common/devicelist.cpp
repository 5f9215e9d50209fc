#include "common/devicelist.h"

#include <cstddef>

namespace corvel {

namespace {

UniqueHeapText AllocateText(ULONG length) {
  const std::size_t bytes = std::size_t{length} * sizeof(wchar_t);
  return UniqueHeapText(static_cast<wchar_t*>(::HeapAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, bytes)));
}

template <typename AskLength, typename Fetch>
DeviceList FetchList(AskLength askLength, ULONG shortest, Fetch fetch) {
  DeviceList list;
  list.error = askLength(&list.length);
  if (list.error != CR_SUCCESS) return list;

  list.outcome = DeviceListOutcome::Empty;
  if (list.length < shortest) return list;

  list.outcome = DeviceListOutcome::NoMemory;
  list.text = AllocateText(list.length);
  if (list.text == nullptr) return list;

  list.error = fetch(list.text.get(), list.length);
  list.outcome = list.error == CR_SUCCESS ? DeviceListOutcome::Fetched : DeviceListOutcome::ListRefused;
  return list;
}

}  // namespace

MultiStringView DeviceList::Entries() const {
  const bool fetched = outcome == DeviceListOutcome::Fetched;
  return MultiStringView({text.get(), fetched ? std::size_t{length} : 0});
}

DeviceList FetchPresentDeviceIds() {
  return FetchList(
      [](ULONG* length) {
        return ::CM_Get_Device_ID_List_SizeW(length, nullptr, CM_GETIDLIST_FILTER_PRESENT);
      },
      0,
      [](wchar_t* text, ULONG length) {
        return ::CM_Get_Device_ID_ListW(nullptr, text, length, CM_GETIDLIST_FILTER_PRESENT);
      });
}

DeviceList FetchPresentInterfaces(const GUID& interfaceClass) {
  // The calls take the class by a pointer to what they could change.
  GUID guid = interfaceClass;
  return FetchList(
      [&guid](ULONG* length) {
        return ::CM_Get_Device_Interface_List_SizeW(length, &guid, nullptr,
                                                    CM_GET_DEVICE_INTERFACE_LIST_PRESENT);
      },
      kShortestFilledList,
      [&guid](wchar_t* text, ULONG length) {
        return ::CM_Get_Device_Interface_ListW(&guid, nullptr, text, length,
                                               CM_GET_DEVICE_INTERFACE_LIST_PRESENT);
      });
}

}  // namespace corvel
