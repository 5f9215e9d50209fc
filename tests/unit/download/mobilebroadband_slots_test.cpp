// Calls every method of every declared interface by its slot number and with its documented arguments. What
// Windows calls is the slot, so this table is written from the documentation and not from the header.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <type_traits>

#include "download/mobilebroadband.h"

#if defined(__GNUC__)
// The interfaces have no destructor: one would take a slot.
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
#endif

namespace {

static_assert(sizeof(MBN_DEVICE_SERVICE) == 16);
static_assert(offsetof(MBN_DEVICE_SERVICE, deviceServiceID) == 0);
static_assert(offsetof(MBN_DEVICE_SERVICE, dataWriteSupported) == 8);
static_assert(offsetof(MBN_DEVICE_SERVICE, dataReadSupported) == 10);
static_assert(std::is_same_v<decltype(MBN_DEVICE_SERVICE::deviceServiceID), BSTR>);
static_assert(std::is_same_v<decltype(MBN_DEVICE_SERVICE::dataWriteSupported), VARIANT_BOOL>);
static_assert(sizeof(MBN_SMS_FORMAT) == 4 && sizeof(MBN_DEVICE_SERVICES_INTERFACE_STATE) == 4);
static_assert(MBN_SMS_FORMAT_NONE == 0 && MBN_SMS_FORMAT_PDU == 1 && MBN_SMS_FORMAT_TEXT == 2);
static_assert(MBN_DEVICE_SERVICES_CAPABLE_INTERFACE_ARRIVAL == 0);
static_assert(MBN_DEVICE_SERVICES_CAPABLE_INTERFACE_REMOVAL == 1);

template <typename T>
T* Pointer(std::uintptr_t number) {
  return reinterpret_cast<T*>(number);
}

template <typename T>
std::uint64_t Number(T value) {
  if constexpr (std::is_pointer_v<T>) {
    return reinterpret_cast<std::uintptr_t>(value);
  } else {
    return static_cast<std::uint64_t>(value);
  }
}

/// Remembers the last call of any method as "Name argument argument".
template <typename Interface>
class Probe : public Interface {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
    return Saw("QueryInterface", &iid, object);
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(Saw("AddRef")); }
  ULONG STDMETHODCALLTYPE Release() override { return static_cast<ULONG>(Saw("Release")); }

  std::string lastCall;

 protected:
  template <typename... Arguments>
  HRESULT Saw(const char* method, Arguments... arguments) {
    std::ostringstream call;
    call << method;
    ((call << ' ' << Number(arguments)), ...);
    lastCall = call.str();
    return S_OK;
  }
};

/// Calls what the object's table of methods holds at `slot`. @return what the object saw.
template <typename Interface, typename... Arguments>
std::string CallSlot(Probe<Interface>& object, std::size_t slot, Arguments... arguments) {
  Interface* pointer = &object;
  void** const table = *reinterpret_cast<void***>(pointer);
  using Method = HRESULT(STDMETHODCALLTYPE*)(void*, Arguments...);
  object.lastCall.clear();
  reinterpret_cast<Method>(table[slot])(pointer, arguments...);
  return object.lastCall;
}

template <typename Interface>
void ExpectUnknownInTheFirstThreeSlots(Probe<Interface>& object) {
  EXPECT_EQ(CallSlot(object, 0, Pointer<const IID>(1), Pointer<void*>(2)), "QueryInterface 1 2");
  EXPECT_EQ(CallSlot(object, 1), "AddRef");
  EXPECT_EQ(CallSlot(object, 2), "Release");
}

std::wstring TextOf(const GUID& guid) {
  wchar_t text[39]{};
  ::StringFromGUID2(guid, text, 39);
  return text;
}

struct MbnInterfaceManagerProbe final : Probe<IMbnInterfaceManager> {
  HRESULT STDMETHODCALLTYPE GetInterface(LPCWSTR interfaceID, IMbnInterface** mbnInterface) override {
    return Saw("GetInterface", interfaceID, mbnInterface);
  }
  HRESULT STDMETHODCALLTYPE GetInterfaces(SAFEARRAY** mbnInterfaces) override {
    return Saw("GetInterfaces", mbnInterfaces);
  }
};

struct MbnInterfaceProbe final : Probe<IMbnInterface> {
  HRESULT STDMETHODCALLTYPE get_InterfaceID(BSTR* interfaceID) override {
    return Saw("get_InterfaceID", interfaceID);
  }
  HRESULT STDMETHODCALLTYPE GetInterfaceCapability(MBN_INTERFACE_CAPS* interfaceCaps) override {
    return Saw("GetInterfaceCapability", interfaceCaps);
  }
  HRESULT STDMETHODCALLTYPE
  GetSubscriberInformation(IMbnSubscriberInformation** subscriberInformation) override {
    return Saw("GetSubscriberInformation", subscriberInformation);
  }
  HRESULT STDMETHODCALLTYPE GetReadyState(MBN_READY_STATE* readyState) override {
    return Saw("GetReadyState", readyState);
  }
  HRESULT STDMETHODCALLTYPE InEmergencyMode(VARIANT_BOOL* emergencyMode) override {
    return Saw("InEmergencyMode", emergencyMode);
  }
  HRESULT STDMETHODCALLTYPE GetHomeProvider(MBN_PROVIDER* homeProvider) override {
    return Saw("GetHomeProvider", homeProvider);
  }
  HRESULT STDMETHODCALLTYPE GetPreferredProviders(SAFEARRAY** preferredProviders) override {
    return Saw("GetPreferredProviders", preferredProviders);
  }
  HRESULT STDMETHODCALLTYPE SetPreferredProviders(SAFEARRAY* preferredProviders, ULONG* requestID) override {
    return Saw("SetPreferredProviders", preferredProviders, requestID);
  }
  HRESULT STDMETHODCALLTYPE GetVisibleProviders(ULONG* age, SAFEARRAY** visibleProviders) override {
    return Saw("GetVisibleProviders", age, visibleProviders);
  }
  HRESULT STDMETHODCALLTYPE ScanNetwork(ULONG* requestID) override { return Saw("ScanNetwork", requestID); }
  HRESULT STDMETHODCALLTYPE GetConnection(IMbnConnection** mbnConnection) override {
    return Saw("GetConnection", mbnConnection);
  }
};

struct MbnDeviceServicesManagerProbe final : Probe<IMbnDeviceServicesManager> {
  HRESULT STDMETHODCALLTYPE GetDeviceServicesContext(BSTR networkInterfaceID,
                                                     IMbnDeviceServicesContext** mbnDevicesContext) override {
    return Saw("GetDeviceServicesContext", networkInterfaceID, mbnDevicesContext);
  }
};

struct MbnDeviceServicesContextProbe final : Probe<IMbnDeviceServicesContext> {
  HRESULT STDMETHODCALLTYPE EnumerateDeviceServices(SAFEARRAY** deviceServices) override {
    return Saw("EnumerateDeviceServices", deviceServices);
  }
  HRESULT STDMETHODCALLTYPE GetDeviceService(BSTR deviceServiceID,
                                             IMbnDeviceService** mbnDeviceService) override {
    return Saw("GetDeviceService", deviceServiceID, mbnDeviceService);
  }
  HRESULT STDMETHODCALLTYPE get_MaxCommandSize(ULONG* maxCommandSize) override {
    return Saw("get_MaxCommandSize", maxCommandSize);
  }
  HRESULT STDMETHODCALLTYPE get_MaxDataSize(ULONG* maxDataSize) override {
    return Saw("get_MaxDataSize", maxDataSize);
  }
};

struct MbnDeviceServiceProbe final : Probe<IMbnDeviceService> {
  HRESULT STDMETHODCALLTYPE QuerySupportedCommands(ULONG* requestID) override {
    return Saw("QuerySupportedCommands", requestID);
  }
  HRESULT STDMETHODCALLTYPE OpenCommandSession(ULONG* requestID) override {
    return Saw("OpenCommandSession", requestID);
  }
  HRESULT STDMETHODCALLTYPE CloseCommandSession(ULONG* requestID) override {
    return Saw("CloseCommandSession", requestID);
  }
  HRESULT STDMETHODCALLTYPE SetCommand(ULONG commandID, SAFEARRAY* deviceServiceData,
                                       ULONG* requestID) override {
    return Saw("SetCommand", commandID, deviceServiceData, requestID);
  }
  HRESULT STDMETHODCALLTYPE QueryCommand(ULONG commandID, SAFEARRAY* deviceServiceData,
                                         ULONG* requestID) override {
    return Saw("QueryCommand", commandID, deviceServiceData, requestID);
  }
  HRESULT STDMETHODCALLTYPE OpenDataSession(ULONG* requestID) override {
    return Saw("OpenDataSession", requestID);
  }
  HRESULT STDMETHODCALLTYPE CloseDataSession(ULONG* requestID) override {
    return Saw("CloseDataSession", requestID);
  }
  HRESULT STDMETHODCALLTYPE WriteData(SAFEARRAY* deviceServiceData, ULONG* requestID) override {
    return Saw("WriteData", deviceServiceData, requestID);
  }
  HRESULT STDMETHODCALLTYPE get_InterfaceID(BSTR* interfaceID) override {
    return Saw("get_InterfaceID", interfaceID);
  }
  HRESULT STDMETHODCALLTYPE get_DeviceServiceID(BSTR* deviceServiceID) override {
    return Saw("get_DeviceServiceID", deviceServiceID);
  }
  HRESULT STDMETHODCALLTYPE get_IsCommandSessionOpen(BOOL* value) override {
    return Saw("get_IsCommandSessionOpen", value);
  }
  HRESULT STDMETHODCALLTYPE get_IsDataSessionOpen(BOOL* value) override {
    return Saw("get_IsDataSessionOpen", value);
  }
};

struct MbnDeviceServicesEventsProbe final : Probe<IMbnDeviceServicesEvents> {
  HRESULT STDMETHODCALLTYPE OnQuerySupportedCommandsComplete(IMbnDeviceService* deviceService,
                                                             SAFEARRAY* commandIDList, HRESULT status,
                                                             ULONG requestID) override {
    return Saw("OnQuerySupportedCommandsComplete", deviceService, commandIDList, status, requestID);
  }
  HRESULT STDMETHODCALLTYPE OnOpenCommandSessionComplete(IMbnDeviceService* deviceService, HRESULT status,
                                                         ULONG requestID) override {
    return Saw("OnOpenCommandSessionComplete", deviceService, status, requestID);
  }
  HRESULT STDMETHODCALLTYPE OnCloseCommandSessionComplete(IMbnDeviceService* deviceService, HRESULT status,
                                                          ULONG requestID) override {
    return Saw("OnCloseCommandSessionComplete", deviceService, status, requestID);
  }
  HRESULT STDMETHODCALLTYPE OnSetCommandComplete(IMbnDeviceService* deviceService, ULONG responseID,
                                                 SAFEARRAY* deviceServiceData, HRESULT status,
                                                 ULONG requestID) override {
    return Saw("OnSetCommandComplete", deviceService, responseID, deviceServiceData, status, requestID);
  }
  HRESULT STDMETHODCALLTYPE OnQueryCommandComplete(IMbnDeviceService* deviceService, ULONG responseID,
                                                   SAFEARRAY* deviceServiceData, HRESULT status,
                                                   ULONG requestID) override {
    return Saw("OnQueryCommandComplete", deviceService, responseID, deviceServiceData, status, requestID);
  }
  HRESULT STDMETHODCALLTYPE OnEventNotification(IMbnDeviceService* deviceService, ULONG eventID,
                                                SAFEARRAY* deviceServiceData) override {
    return Saw("OnEventNotification", deviceService, eventID, deviceServiceData);
  }
  HRESULT STDMETHODCALLTYPE OnOpenDataSessionComplete(IMbnDeviceService* deviceService, HRESULT status,
                                                      ULONG requestID) override {
    return Saw("OnOpenDataSessionComplete", deviceService, status, requestID);
  }
  HRESULT STDMETHODCALLTYPE OnCloseDataSessionComplete(IMbnDeviceService* deviceService, HRESULT status,
                                                       ULONG requestID) override {
    return Saw("OnCloseDataSessionComplete", deviceService, status, requestID);
  }
  HRESULT STDMETHODCALLTYPE OnWriteDataComplete(IMbnDeviceService* deviceService, HRESULT status,
                                                ULONG requestID) override {
    return Saw("OnWriteDataComplete", deviceService, status, requestID);
  }
  HRESULT STDMETHODCALLTYPE OnReadData(IMbnDeviceService* deviceService,
                                       SAFEARRAY* deviceServiceData) override {
    return Saw("OnReadData", deviceService, deviceServiceData);
  }
  HRESULT STDMETHODCALLTYPE OnInterfaceStateChange(BSTR interfaceID,
                                                   MBN_DEVICE_SERVICES_INTERFACE_STATE stateChange) override {
    return Saw("OnInterfaceStateChange", interfaceID, stateChange);
  }
};

struct MbnRadioEventsProbe final : Probe<IMbnRadioEvents> {
  HRESULT STDMETHODCALLTYPE OnRadioStateChange(IMbnRadio* newInterface) override {
    return Saw("OnRadioStateChange", newInterface);
  }
  HRESULT STDMETHODCALLTYPE OnSetSoftwareRadioStateComplete(IMbnRadio* newInterface, ULONG requestID,
                                                            HRESULT status) override {
    return Saw("OnSetSoftwareRadioStateComplete", newInterface, requestID, status);
  }
};

struct MbnRegistrationEventsProbe final : Probe<IMbnRegistrationEvents> {
  HRESULT STDMETHODCALLTYPE OnRegisterModeAvailable(IMbnRegistration* newInterface) override {
    return Saw("OnRegisterModeAvailable", newInterface);
  }
  HRESULT STDMETHODCALLTYPE OnRegisterStateChange(IMbnRegistration* newInterface) override {
    return Saw("OnRegisterStateChange", newInterface);
  }
  HRESULT STDMETHODCALLTYPE OnPacketServiceStateChange(IMbnRegistration* newInterface) override {
    return Saw("OnPacketServiceStateChange", newInterface);
  }
  HRESULT STDMETHODCALLTYPE OnSetRegisterModeComplete(IMbnRegistration* newInterface, ULONG requestID,
                                                      HRESULT status) override {
    return Saw("OnSetRegisterModeComplete", newInterface, requestID, status);
  }
};

struct MbnSignalEventsProbe final : Probe<IMbnSignalEvents> {
  HRESULT STDMETHODCALLTYPE OnSignalStateChange(IMbnSignal* newInterface) override {
    return Saw("OnSignalStateChange", newInterface);
  }
};

struct MbnInterfaceEventsProbe final : Probe<IMbnInterfaceEvents> {
  HRESULT STDMETHODCALLTYPE OnInterfaceCapabilityAvailable(IMbnInterface* newInterface) override {
    return Saw("OnInterfaceCapabilityAvailable", newInterface);
  }
  HRESULT STDMETHODCALLTYPE OnSubscriberInformationChange(IMbnInterface* newInterface) override {
    return Saw("OnSubscriberInformationChange", newInterface);
  }
  HRESULT STDMETHODCALLTYPE OnReadyStateChange(IMbnInterface* newInterface) override {
    return Saw("OnReadyStateChange", newInterface);
  }
  HRESULT STDMETHODCALLTYPE OnEmergencyModeChange(IMbnInterface* newInterface) override {
    return Saw("OnEmergencyModeChange", newInterface);
  }
  HRESULT STDMETHODCALLTYPE OnHomeProviderAvailable(IMbnInterface* newInterface) override {
    return Saw("OnHomeProviderAvailable", newInterface);
  }
  HRESULT STDMETHODCALLTYPE OnPreferredProvidersChange(IMbnInterface* newInterface) override {
    return Saw("OnPreferredProvidersChange", newInterface);
  }
  HRESULT STDMETHODCALLTYPE OnSetPreferredProvidersComplete(IMbnInterface* newInterface, ULONG requestID,
                                                            HRESULT status) override {
    return Saw("OnSetPreferredProvidersComplete", newInterface, requestID, status);
  }
  HRESULT STDMETHODCALLTYPE OnScanNetworkComplete(IMbnInterface* newInterface, ULONG requestID,
                                                  HRESULT status) override {
    return Saw("OnScanNetworkComplete", newInterface, requestID, status);
  }
};

struct MbnInterfaceManagerEventsProbe final : Probe<IMbnInterfaceManagerEvents> {
  HRESULT STDMETHODCALLTYPE OnInterfaceArrival(IMbnInterface* newInterface) override {
    return Saw("OnInterfaceArrival", newInterface);
  }
  HRESULT STDMETHODCALLTYPE OnInterfaceRemoval(IMbnInterface* oldInterface) override {
    return Saw("OnInterfaceRemoval", oldInterface);
  }
};

struct MbnConnectionManagerEventsProbe final : Probe<IMbnConnectionManagerEvents> {
  HRESULT STDMETHODCALLTYPE OnConnectionArrival(IMbnConnection* newConnection) override {
    return Saw("OnConnectionArrival", newConnection);
  }
  HRESULT STDMETHODCALLTYPE OnConnectionRemoval(IMbnConnection* oldConnection) override {
    return Saw("OnConnectionRemoval", oldConnection);
  }
};

struct MbnConnectionEventsProbe final : Probe<IMbnConnectionEvents> {
  HRESULT STDMETHODCALLTYPE OnConnectComplete(IMbnConnection* newConnection, ULONG requestID,
                                              HRESULT status) override {
    return Saw("OnConnectComplete", newConnection, requestID, status);
  }
  HRESULT STDMETHODCALLTYPE OnDisconnectComplete(IMbnConnection* newConnection, ULONG requestID,
                                                 HRESULT status) override {
    return Saw("OnDisconnectComplete", newConnection, requestID, status);
  }
  HRESULT STDMETHODCALLTYPE OnConnectStateChange(IMbnConnection* newConnection) override {
    return Saw("OnConnectStateChange", newConnection);
  }
  HRESULT STDMETHODCALLTYPE OnVoiceCallStateChange(IMbnConnection* newConnection) override {
    return Saw("OnVoiceCallStateChange", newConnection);
  }
};

struct MbnSmsEventsProbe final : Probe<IMbnSmsEvents> {
  HRESULT STDMETHODCALLTYPE OnSmsConfigurationChange(IMbnSms* sms) override {
    return Saw("OnSmsConfigurationChange", sms);
  }
  HRESULT STDMETHODCALLTYPE OnSetSmsConfigurationComplete(IMbnSms* sms, ULONG requestID,
                                                          HRESULT status) override {
    return Saw("OnSetSmsConfigurationComplete", sms, requestID, status);
  }
  HRESULT STDMETHODCALLTYPE OnSmsSendComplete(IMbnSms* sms, ULONG requestID, HRESULT status) override {
    return Saw("OnSmsSendComplete", sms, requestID, status);
  }
  HRESULT STDMETHODCALLTYPE OnSmsReadComplete(IMbnSms* sms, MBN_SMS_FORMAT smsFormat, SAFEARRAY* readMsgs,
                                              VARIANT_BOOL moreMsgs, ULONG requestID,
                                              HRESULT status) override {
    return Saw("OnSmsReadComplete", sms, smsFormat, readMsgs, moreMsgs, requestID, status);
  }
  HRESULT STDMETHODCALLTYPE OnSmsNewClass0Message(IMbnSms* sms, MBN_SMS_FORMAT smsFormat,
                                                  SAFEARRAY* readMsgs) override {
    return Saw("OnSmsNewClass0Message", sms, smsFormat, readMsgs);
  }
  HRESULT STDMETHODCALLTYPE OnSmsDeleteComplete(IMbnSms* sms, ULONG requestID, HRESULT status) override {
    return Saw("OnSmsDeleteComplete", sms, requestID, status);
  }
  HRESULT STDMETHODCALLTYPE OnSmsStatusChange(IMbnSms* sms) override { return Saw("OnSmsStatusChange", sms); }
};

struct MbnVendorSpecificEventsProbe final : Probe<IMbnVendorSpecificEvents> {
  HRESULT STDMETHODCALLTYPE OnEventNotification(IMbnVendorSpecificOperation* vendorOperation,
                                                SAFEARRAY* vendorSpecificData) override {
    return Saw("OnEventNotification", vendorOperation, vendorSpecificData);
  }
  HRESULT STDMETHODCALLTYPE OnSetVendorSpecificComplete(IMbnVendorSpecificOperation* vendorOperation,
                                                        SAFEARRAY* vendorSpecificData,
                                                        ULONG requestID) override {
    return Saw("OnSetVendorSpecificComplete", vendorOperation, vendorSpecificData, requestID);
  }
};

TEST(MobileBroadbandSlotsTest, IMbnInterfaceManager) {
  MbnInterfaceManagerProbe object;
  ExpectUnknownInTheFirstThreeSlots(object);
  EXPECT_EQ(CallSlot(object, 3, Pointer<const wchar_t>(1), Pointer<IMbnInterface*>(2)), "GetInterface 1 2");
  EXPECT_EQ(CallSlot(object, 4, Pointer<SAFEARRAY*>(1)), "GetInterfaces 1");
}

TEST(MobileBroadbandSlotsTest, IMbnInterface) {
  MbnInterfaceProbe object;
  ExpectUnknownInTheFirstThreeSlots(object);
  EXPECT_EQ(CallSlot(object, 3, Pointer<BSTR>(1)), "get_InterfaceID 1");
  EXPECT_EQ(CallSlot(object, 4, Pointer<MBN_INTERFACE_CAPS>(1)), "GetInterfaceCapability 1");
  EXPECT_EQ(CallSlot(object, 5, Pointer<IMbnSubscriberInformation*>(1)), "GetSubscriberInformation 1");
  EXPECT_EQ(CallSlot(object, 6, Pointer<MBN_READY_STATE>(1)), "GetReadyState 1");
  EXPECT_EQ(CallSlot(object, 7, Pointer<VARIANT_BOOL>(1)), "InEmergencyMode 1");
  EXPECT_EQ(CallSlot(object, 8, Pointer<MBN_PROVIDER>(1)), "GetHomeProvider 1");
  EXPECT_EQ(CallSlot(object, 9, Pointer<SAFEARRAY*>(1)), "GetPreferredProviders 1");
  EXPECT_EQ(CallSlot(object, 10, Pointer<SAFEARRAY>(1), Pointer<ULONG>(2)), "SetPreferredProviders 1 2");
  EXPECT_EQ(CallSlot(object, 11, Pointer<ULONG>(1), Pointer<SAFEARRAY*>(2)), "GetVisibleProviders 1 2");
  EXPECT_EQ(CallSlot(object, 12, Pointer<ULONG>(1)), "ScanNetwork 1");
  EXPECT_EQ(CallSlot(object, 13, Pointer<IMbnConnection*>(1)), "GetConnection 1");
}

TEST(MobileBroadbandSlotsTest, IMbnDeviceServicesManager) {
  MbnDeviceServicesManagerProbe object;
  ExpectUnknownInTheFirstThreeSlots(object);
  EXPECT_EQ(CallSlot(object, 3, Pointer<OLECHAR>(1), Pointer<IMbnDeviceServicesContext*>(2)),
            "GetDeviceServicesContext 1 2");
}

TEST(MobileBroadbandSlotsTest, IMbnDeviceServicesContext) {
  MbnDeviceServicesContextProbe object;
  ExpectUnknownInTheFirstThreeSlots(object);
  EXPECT_EQ(CallSlot(object, 3, Pointer<SAFEARRAY*>(1)), "EnumerateDeviceServices 1");
  EXPECT_EQ(CallSlot(object, 4, Pointer<OLECHAR>(1), Pointer<IMbnDeviceService*>(2)), "GetDeviceService 1 2");
  EXPECT_EQ(CallSlot(object, 5, Pointer<ULONG>(1)), "get_MaxCommandSize 1");
  EXPECT_EQ(CallSlot(object, 6, Pointer<ULONG>(1)), "get_MaxDataSize 1");
}

TEST(MobileBroadbandSlotsTest, IMbnDeviceService) {
  MbnDeviceServiceProbe object;
  ExpectUnknownInTheFirstThreeSlots(object);
  EXPECT_EQ(CallSlot(object, 3, Pointer<ULONG>(1)), "QuerySupportedCommands 1");
  EXPECT_EQ(CallSlot(object, 4, Pointer<ULONG>(1)), "OpenCommandSession 1");
  EXPECT_EQ(CallSlot(object, 5, Pointer<ULONG>(1)), "CloseCommandSession 1");
  EXPECT_EQ(CallSlot(object, 6, ULONG{1}, Pointer<SAFEARRAY>(2), Pointer<ULONG>(3)), "SetCommand 1 2 3");
  EXPECT_EQ(CallSlot(object, 7, ULONG{1}, Pointer<SAFEARRAY>(2), Pointer<ULONG>(3)), "QueryCommand 1 2 3");
  EXPECT_EQ(CallSlot(object, 8, Pointer<ULONG>(1)), "OpenDataSession 1");
  EXPECT_EQ(CallSlot(object, 9, Pointer<ULONG>(1)), "CloseDataSession 1");
  EXPECT_EQ(CallSlot(object, 10, Pointer<SAFEARRAY>(1), Pointer<ULONG>(2)), "WriteData 1 2");
  EXPECT_EQ(CallSlot(object, 11, Pointer<BSTR>(1)), "get_InterfaceID 1");
  EXPECT_EQ(CallSlot(object, 12, Pointer<BSTR>(1)), "get_DeviceServiceID 1");
  EXPECT_EQ(CallSlot(object, 13, Pointer<BOOL>(1)), "get_IsCommandSessionOpen 1");
  EXPECT_EQ(CallSlot(object, 14, Pointer<BOOL>(1)), "get_IsDataSessionOpen 1");
}

TEST(MobileBroadbandSlotsTest, IMbnDeviceServicesEvents) {
  MbnDeviceServicesEventsProbe object;
  ExpectUnknownInTheFirstThreeSlots(object);
  EXPECT_EQ(CallSlot(object, 3, Pointer<IMbnDeviceService>(1), Pointer<SAFEARRAY>(2), HRESULT{3}, ULONG{4}),
            "OnQuerySupportedCommandsComplete 1 2 3 4");
  EXPECT_EQ(CallSlot(object, 4, Pointer<IMbnDeviceService>(1), HRESULT{2}, ULONG{3}),
            "OnOpenCommandSessionComplete 1 2 3");
  EXPECT_EQ(CallSlot(object, 5, Pointer<IMbnDeviceService>(1), HRESULT{2}, ULONG{3}),
            "OnCloseCommandSessionComplete 1 2 3");
  EXPECT_EQ(CallSlot(object, 6, Pointer<IMbnDeviceService>(1), ULONG{2}, Pointer<SAFEARRAY>(3), HRESULT{4},
                     ULONG{5}),
            "OnSetCommandComplete 1 2 3 4 5");
  EXPECT_EQ(CallSlot(object, 7, Pointer<IMbnDeviceService>(1), ULONG{2}, Pointer<SAFEARRAY>(3), HRESULT{4},
                     ULONG{5}),
            "OnQueryCommandComplete 1 2 3 4 5");
  EXPECT_EQ(CallSlot(object, 8, Pointer<IMbnDeviceService>(1), ULONG{2}, Pointer<SAFEARRAY>(3)),
            "OnEventNotification 1 2 3");
  EXPECT_EQ(CallSlot(object, 9, Pointer<IMbnDeviceService>(1), HRESULT{2}, ULONG{3}),
            "OnOpenDataSessionComplete 1 2 3");
  EXPECT_EQ(CallSlot(object, 10, Pointer<IMbnDeviceService>(1), HRESULT{2}, ULONG{3}),
            "OnCloseDataSessionComplete 1 2 3");
  EXPECT_EQ(CallSlot(object, 11, Pointer<IMbnDeviceService>(1), HRESULT{2}, ULONG{3}),
            "OnWriteDataComplete 1 2 3");
  EXPECT_EQ(CallSlot(object, 12, Pointer<IMbnDeviceService>(1), Pointer<SAFEARRAY>(2)), "OnReadData 1 2");
  EXPECT_EQ(CallSlot(object, 13, Pointer<OLECHAR>(2), MBN_DEVICE_SERVICES_CAPABLE_INTERFACE_REMOVAL),
            "OnInterfaceStateChange 2 1");
}

TEST(MobileBroadbandSlotsTest, IMbnRadioEvents) {
  MbnRadioEventsProbe object;
  ExpectUnknownInTheFirstThreeSlots(object);
  EXPECT_EQ(CallSlot(object, 3, Pointer<IMbnRadio>(1)), "OnRadioStateChange 1");
  EXPECT_EQ(CallSlot(object, 4, Pointer<IMbnRadio>(1), ULONG{2}, HRESULT{3}),
            "OnSetSoftwareRadioStateComplete 1 2 3");
}

TEST(MobileBroadbandSlotsTest, IMbnRegistrationEvents) {
  MbnRegistrationEventsProbe object;
  ExpectUnknownInTheFirstThreeSlots(object);
  EXPECT_EQ(CallSlot(object, 3, Pointer<IMbnRegistration>(1)), "OnRegisterModeAvailable 1");
  EXPECT_EQ(CallSlot(object, 4, Pointer<IMbnRegistration>(1)), "OnRegisterStateChange 1");
  EXPECT_EQ(CallSlot(object, 5, Pointer<IMbnRegistration>(1)), "OnPacketServiceStateChange 1");
  EXPECT_EQ(CallSlot(object, 6, Pointer<IMbnRegistration>(1), ULONG{2}, HRESULT{3}),
            "OnSetRegisterModeComplete 1 2 3");
}

TEST(MobileBroadbandSlotsTest, IMbnSignalEvents) {
  MbnSignalEventsProbe object;
  ExpectUnknownInTheFirstThreeSlots(object);
  EXPECT_EQ(CallSlot(object, 3, Pointer<IMbnSignal>(1)), "OnSignalStateChange 1");
}

TEST(MobileBroadbandSlotsTest, IMbnInterfaceEvents) {
  MbnInterfaceEventsProbe object;
  ExpectUnknownInTheFirstThreeSlots(object);
  EXPECT_EQ(CallSlot(object, 3, Pointer<IMbnInterface>(1)), "OnInterfaceCapabilityAvailable 1");
  EXPECT_EQ(CallSlot(object, 4, Pointer<IMbnInterface>(1)), "OnSubscriberInformationChange 1");
  EXPECT_EQ(CallSlot(object, 5, Pointer<IMbnInterface>(1)), "OnReadyStateChange 1");
  EXPECT_EQ(CallSlot(object, 6, Pointer<IMbnInterface>(1)), "OnEmergencyModeChange 1");
  EXPECT_EQ(CallSlot(object, 7, Pointer<IMbnInterface>(1)), "OnHomeProviderAvailable 1");
  EXPECT_EQ(CallSlot(object, 8, Pointer<IMbnInterface>(1)), "OnPreferredProvidersChange 1");
  EXPECT_EQ(CallSlot(object, 9, Pointer<IMbnInterface>(1), ULONG{2}, HRESULT{3}),
            "OnSetPreferredProvidersComplete 1 2 3");
  EXPECT_EQ(CallSlot(object, 10, Pointer<IMbnInterface>(1), ULONG{2}, HRESULT{3}),
            "OnScanNetworkComplete 1 2 3");
}

TEST(MobileBroadbandSlotsTest, IMbnInterfaceManagerEvents) {
  MbnInterfaceManagerEventsProbe object;
  ExpectUnknownInTheFirstThreeSlots(object);
  EXPECT_EQ(CallSlot(object, 3, Pointer<IMbnInterface>(1)), "OnInterfaceArrival 1");
  EXPECT_EQ(CallSlot(object, 4, Pointer<IMbnInterface>(1)), "OnInterfaceRemoval 1");
}

TEST(MobileBroadbandSlotsTest, IMbnConnectionManagerEvents) {
  MbnConnectionManagerEventsProbe object;
  ExpectUnknownInTheFirstThreeSlots(object);
  EXPECT_EQ(CallSlot(object, 3, Pointer<IMbnConnection>(1)), "OnConnectionArrival 1");
  EXPECT_EQ(CallSlot(object, 4, Pointer<IMbnConnection>(1)), "OnConnectionRemoval 1");
}

TEST(MobileBroadbandSlotsTest, IMbnConnectionEvents) {
  MbnConnectionEventsProbe object;
  ExpectUnknownInTheFirstThreeSlots(object);
  EXPECT_EQ(CallSlot(object, 3, Pointer<IMbnConnection>(1), ULONG{2}, HRESULT{3}), "OnConnectComplete 1 2 3");
  EXPECT_EQ(CallSlot(object, 4, Pointer<IMbnConnection>(1), ULONG{2}, HRESULT{3}),
            "OnDisconnectComplete 1 2 3");
  EXPECT_EQ(CallSlot(object, 5, Pointer<IMbnConnection>(1)), "OnConnectStateChange 1");
  EXPECT_EQ(CallSlot(object, 6, Pointer<IMbnConnection>(1)), "OnVoiceCallStateChange 1");
}

TEST(MobileBroadbandSlotsTest, IMbnSmsEvents) {
  MbnSmsEventsProbe object;
  ExpectUnknownInTheFirstThreeSlots(object);
  EXPECT_EQ(CallSlot(object, 3, Pointer<IMbnSms>(1)), "OnSmsConfigurationChange 1");
  EXPECT_EQ(CallSlot(object, 4, Pointer<IMbnSms>(1), ULONG{2}, HRESULT{3}),
            "OnSetSmsConfigurationComplete 1 2 3");
  EXPECT_EQ(CallSlot(object, 5, Pointer<IMbnSms>(1), ULONG{2}, HRESULT{3}), "OnSmsSendComplete 1 2 3");
  EXPECT_EQ(CallSlot(object, 6, Pointer<IMbnSms>(1), MBN_SMS_FORMAT_TEXT, Pointer<SAFEARRAY>(3),
                     VARIANT_BOOL{4}, ULONG{5}, HRESULT{6}),
            "OnSmsReadComplete 1 2 3 4 5 6");
  EXPECT_EQ(CallSlot(object, 7, Pointer<IMbnSms>(1), MBN_SMS_FORMAT_TEXT, Pointer<SAFEARRAY>(3)),
            "OnSmsNewClass0Message 1 2 3");
  EXPECT_EQ(CallSlot(object, 8, Pointer<IMbnSms>(1), ULONG{2}, HRESULT{3}), "OnSmsDeleteComplete 1 2 3");
  EXPECT_EQ(CallSlot(object, 9, Pointer<IMbnSms>(1)), "OnSmsStatusChange 1");
}

TEST(MobileBroadbandSlotsTest, IMbnVendorSpecificEvents) {
  MbnVendorSpecificEventsProbe object;
  ExpectUnknownInTheFirstThreeSlots(object);
  EXPECT_EQ(CallSlot(object, 3, Pointer<IMbnVendorSpecificOperation>(1), Pointer<SAFEARRAY>(2)),
            "OnEventNotification 1 2");
  EXPECT_EQ(CallSlot(object, 4, Pointer<IMbnVendorSpecificOperation>(1), Pointer<SAFEARRAY>(2), ULONG{3}),
            "OnSetVendorSpecificComplete 1 2 3");
}

TEST(MobileBroadbandSlotsTest, ClassIdsAreThePlatformsOwn) {
  EXPECT_EQ(TextOf(__uuidof(MbnInterfaceManager)), L"{BDFEE05B-4418-11DD-90ED-001C257CCFF1}");
  EXPECT_EQ(TextOf(__uuidof(MbnDeviceServicesManager)), L"{2269DAA3-2A9F-4165-A501-CE00A6F7A75B}");
  EXPECT_EQ(TextOf(__uuidof(MbnConnectionManager)), L"{BDFEE05C-4418-11DD-90ED-001C257CCFF1}");
  EXPECT_EQ(TextOf(__uuidof(MbnConnectionProfileManager)), L"{BDFEE05A-4418-11DD-90ED-001C257CCFF1}");
}

TEST(MobileBroadbandSlotsTest, InterfaceIdsAreThePlatformsOwn) {
  EXPECT_EQ(TextOf(__uuidof(IMbnInterfaceManager)), L"{DCBBBAB6-201B-4BBB-AAEE-338E368AF6FA}");
  EXPECT_EQ(TextOf(__uuidof(IMbnInterface)), L"{DCBBBAB6-2001-4BBB-AAEE-338E368AF6FA}");
  EXPECT_EQ(TextOf(__uuidof(IMbnDeviceServicesManager)), L"{20A26258-6811-4478-AC1D-13324E45E41C}");
  EXPECT_EQ(TextOf(__uuidof(IMbnDeviceServicesContext)), L"{FC5AC347-1592-4068-80BB-6A57580150D8}");
  EXPECT_EQ(TextOf(__uuidof(IMbnDeviceService)), L"{B3BB9A71-DC70-4BE9-A4DA-7886AE8B191B}");
  EXPECT_EQ(TextOf(__uuidof(IMbnDeviceServicesEvents)), L"{0A900C19-6824-4E97-B76E-CF239D0CA642}");
  EXPECT_EQ(TextOf(__uuidof(IMbnRadioEvents)), L"{DCDDDAB6-201F-4BBB-AAEE-338E368AF6FA}");
  EXPECT_EQ(TextOf(__uuidof(IMbnRegistrationEvents)), L"{DCBBBAB6-200A-4BBB-AAEE-338E368AF6FA}");
  EXPECT_EQ(TextOf(__uuidof(IMbnSignalEvents)), L"{DCBBBAB6-2004-4BBB-AAEE-338E368AF6FA}");
  EXPECT_EQ(TextOf(__uuidof(IMbnInterfaceEvents)), L"{DCBBBAB6-2002-4BBB-AAEE-338E368AF6FA}");
  EXPECT_EQ(TextOf(__uuidof(IMbnInterfaceManagerEvents)), L"{DCBBBAB6-201C-4BBB-AAEE-338E368AF6FA}");
  EXPECT_EQ(TextOf(__uuidof(IMbnConnectionManagerEvents)), L"{DCBBBAB6-201E-4BBB-AAEE-338E368AF6FA}");
  EXPECT_EQ(TextOf(__uuidof(IMbnConnectionEvents)), L"{DCBBBAB6-200E-4BBB-AAEE-338E368AF6FA}");
  EXPECT_EQ(TextOf(__uuidof(IMbnSmsEvents)), L"{DCBBBAB6-2016-4BBB-AAEE-338E368AF6FA}");
  EXPECT_EQ(TextOf(__uuidof(IMbnVendorSpecificEvents)), L"{DCBBBAB6-201A-4BBB-AAEE-338E368AF6FA}");
  EXPECT_EQ(TextOf(__uuidof(IMbnConnection)), L"{DCBBBAB6-200D-4BBB-AAEE-338E368AF6FA}");
  EXPECT_EQ(TextOf(__uuidof(IMbnRegistration)), L"{DCBBBAB6-2009-4BBB-AAEE-338E368AF6FA}");
  EXPECT_EQ(TextOf(__uuidof(IMbnSignal)), L"{DCBBBAB6-2003-4BBB-AAEE-338E368AF6FA}");
  EXPECT_EQ(TextOf(__uuidof(IMbnSms)), L"{DCBBBAB6-2015-4BBB-AAEE-338E368AF6FA}");
  EXPECT_EQ(TextOf(__uuidof(IMbnVendorSpecificOperation)), L"{DCBBBAB6-2019-4BBB-AAEE-338E368AF6FA}");
  EXPECT_EQ(TextOf(__uuidof(IMbnRadio)), L"{DCCCCAB6-201F-4BBB-AAEE-338E368AF6FA}");
  EXPECT_EQ(TextOf(__uuidof(IMbnSubscriberInformation)), L"{459ECC43-BCF5-11DC-A8A8-001321F1405F}");
}

}  // namespace
