#pragma once

#include <windows.h>

#include <objbase.h>
#include <ocidl.h>
#include <oleauto.h>

/// The Mobile Broadband API of Windows. Class and interface ids are taken with `__uuidof`, which needs no
/// import library: `__uuidof(MbnInterfaceManager)`, `__uuidof(IMbnDeviceService)`.
#if __has_include(<mbnapi.h>)
#include <mbnapi.h>
#else

// NOLINTBEGIN(readability-identifier-naming): the names are those of Windows.

// mingw-w64 ships no <mbnapi.h>. The order of the methods is the order of the slots that Windows calls: a
// line moved here compiles, links and fails on a real modem.

#if defined(__GNUC__)
#pragma GCC diagnostic push
// A virtual destructor would take slots of its own.
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
#endif

class MbnInterfaceManager;
class MbnDeviceServicesManager;
class MbnConnectionManager;
class MbnConnectionProfileManager;

__CRT_UUID_DECL(MbnInterfaceManager, 0xBDFEE05B, 0x4418, 0x11DD, 0x90, 0xED, 0x00, 0x1C, 0x25, 0x7C, 0xCF,
                0xF1)
__CRT_UUID_DECL(MbnDeviceServicesManager, 0x2269DAA3, 0x2A9F, 0x4165, 0xA5, 0x01, 0xCE, 0x00, 0xA6, 0xF7,
                0xA7, 0x5B)
__CRT_UUID_DECL(MbnConnectionManager, 0xBDFEE05C, 0x4418, 0x11DD, 0x90, 0xED, 0x00, 0x1C, 0x25, 0x7C, 0xCF,
                0xF1)
__CRT_UUID_DECL(MbnConnectionProfileManager, 0xBDFEE05A, 0x4418, 0x11DD, 0x90, 0xED, 0x00, 0x1C, 0x25, 0x7C,
                0xCF, 0xF1)

enum MBN_DEVICE_SERVICES_INTERFACE_STATE {
  MBN_DEVICE_SERVICES_CAPABLE_INTERFACE_ARRIVAL = 0,
  MBN_DEVICE_SERVICES_CAPABLE_INTERFACE_REMOVAL = 1,
};

enum MBN_SMS_FORMAT {
  MBN_SMS_FORMAT_NONE = 0,
  MBN_SMS_FORMAT_PDU = 1,
  MBN_SMS_FORMAT_TEXT = 2,
};

enum MBN_READY_STATE : int;
struct MBN_INTERFACE_CAPS;
struct MBN_PROVIDER;

struct MBN_DEVICE_SERVICE {
  BSTR deviceServiceID;
  VARIANT_BOOL dataWriteSupported;
  VARIANT_BOOL dataReadSupported;
};

// These only pass through: they are kept and released, and none of their own methods is called.
struct IMbnConnection : public IUnknown {};
struct IMbnRadio : public IUnknown {};
struct IMbnRegistration : public IUnknown {};
struct IMbnSignal : public IUnknown {};
struct IMbnSms : public IUnknown {};
struct IMbnSubscriberInformation : public IUnknown {};
struct IMbnVendorSpecificOperation : public IUnknown {};

__CRT_UUID_DECL(IMbnConnection, 0xDCBBBAB6, 0x200D, 0x4BBB, 0xAA, 0xEE, 0x33, 0x8E, 0x36, 0x8A, 0xF6, 0xFA)
__CRT_UUID_DECL(IMbnRadio, 0xDCCCCAB6, 0x201F, 0x4BBB, 0xAA, 0xEE, 0x33, 0x8E, 0x36, 0x8A, 0xF6, 0xFA)
__CRT_UUID_DECL(IMbnRegistration, 0xDCBBBAB6, 0x2009, 0x4BBB, 0xAA, 0xEE, 0x33, 0x8E, 0x36, 0x8A, 0xF6, 0xFA)
__CRT_UUID_DECL(IMbnSignal, 0xDCBBBAB6, 0x2003, 0x4BBB, 0xAA, 0xEE, 0x33, 0x8E, 0x36, 0x8A, 0xF6, 0xFA)
__CRT_UUID_DECL(IMbnSms, 0xDCBBBAB6, 0x2015, 0x4BBB, 0xAA, 0xEE, 0x33, 0x8E, 0x36, 0x8A, 0xF6, 0xFA)
__CRT_UUID_DECL(IMbnSubscriberInformation, 0x459ECC43, 0xBCF5, 0x11DC, 0xA8, 0xA8, 0x00, 0x13, 0x21, 0xF1,
                0x40, 0x5F)
__CRT_UUID_DECL(IMbnVendorSpecificOperation, 0xDCBBBAB6, 0x2019, 0x4BBB, 0xAA, 0xEE, 0x33, 0x8E, 0x36, 0x8A,
                0xF6, 0xFA)

// Objects of the service.

struct IMbnInterface : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE get_InterfaceID(BSTR* InterfaceID) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetInterfaceCapability(MBN_INTERFACE_CAPS* interfaceCaps) = 0;
  virtual HRESULT STDMETHODCALLTYPE
  GetSubscriberInformation(IMbnSubscriberInformation** subscriberInformation) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetReadyState(MBN_READY_STATE* readyState) = 0;
  virtual HRESULT STDMETHODCALLTYPE InEmergencyMode(VARIANT_BOOL* emergencyMode) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetHomeProvider(MBN_PROVIDER* homeProvider) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetPreferredProviders(SAFEARRAY** preferredProviders) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetPreferredProviders(SAFEARRAY* preferredProviders,
                                                          ULONG* requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetVisibleProviders(ULONG* age, SAFEARRAY** visibleProviders) = 0;
  virtual HRESULT STDMETHODCALLTYPE ScanNetwork(ULONG* requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetConnection(IMbnConnection** mbnConnection) = 0;
};
__CRT_UUID_DECL(IMbnInterface, 0xDCBBBAB6, 0x2001, 0x4BBB, 0xAA, 0xEE, 0x33, 0x8E, 0x36, 0x8A, 0xF6, 0xFA)

struct IMbnInterfaceManager : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE GetInterface(LPCWSTR interfaceID, IMbnInterface** mbnInterface) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetInterfaces(SAFEARRAY** mbnInterfaces) = 0;
};
__CRT_UUID_DECL(IMbnInterfaceManager, 0xDCBBBAB6, 0x201B, 0x4BBB, 0xAA, 0xEE, 0x33, 0x8E, 0x36, 0x8A, 0xF6,
                0xFA)

struct IMbnDeviceService : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE QuerySupportedCommands(ULONG* requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE OpenCommandSession(ULONG* requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE CloseCommandSession(ULONG* requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetCommand(ULONG commandID, SAFEARRAY* deviceServiceData,
                                               ULONG* requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE QueryCommand(ULONG commandID, SAFEARRAY* deviceServiceData,
                                                 ULONG* requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE OpenDataSession(ULONG* requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE CloseDataSession(ULONG* requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE WriteData(SAFEARRAY* deviceServiceData, ULONG* requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_InterfaceID(BSTR* InterfaceID) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_DeviceServiceID(BSTR* DeviceServiceID) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_IsCommandSessionOpen(BOOL* value) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_IsDataSessionOpen(BOOL* value) = 0;
};
__CRT_UUID_DECL(IMbnDeviceService, 0xB3BB9A71, 0xDC70, 0x4BE9, 0xA4, 0xDA, 0x78, 0x86, 0xAE, 0x8B, 0x19, 0x1B)

struct IMbnDeviceServicesContext : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE EnumerateDeviceServices(SAFEARRAY** deviceServices) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetDeviceService(BSTR deviceServiceID,
                                                     IMbnDeviceService** mbnDeviceService) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_MaxCommandSize(ULONG* maxCommandSize) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_MaxDataSize(ULONG* maxDataSize) = 0;
};
__CRT_UUID_DECL(IMbnDeviceServicesContext, 0xFC5AC347, 0x1592, 0x4068, 0x80, 0xBB, 0x6A, 0x57, 0x58, 0x01,
                0x50, 0xD8)

struct IMbnDeviceServicesManager : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE
  GetDeviceServicesContext(BSTR networkInterfaceID, IMbnDeviceServicesContext** mbnDevicesContext) = 0;
};
__CRT_UUID_DECL(IMbnDeviceServicesManager, 0x20A26258, 0x6811, 0x4478, 0xAC, 0x1D, 0x13, 0x32, 0x4E, 0x45,
                0xE4, 0x1C)

// Event interfaces, which a client implements. Those of the device services pass the status before the
// request id, all others after it.

struct IMbnDeviceServicesEvents : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE OnQuerySupportedCommandsComplete(IMbnDeviceService* deviceService,
                                                                     SAFEARRAY* commandIDList, HRESULT status,
                                                                     ULONG requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnOpenCommandSessionComplete(IMbnDeviceService* deviceService,
                                                                 HRESULT status, ULONG requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnCloseCommandSessionComplete(IMbnDeviceService* deviceService,
                                                                  HRESULT status, ULONG requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnSetCommandComplete(IMbnDeviceService* deviceService, ULONG responseID,
                                                         SAFEARRAY* deviceServiceData, HRESULT status,
                                                         ULONG requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnQueryCommandComplete(IMbnDeviceService* deviceService, ULONG responseID,
                                                           SAFEARRAY* deviceServiceData, HRESULT status,
                                                           ULONG requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnEventNotification(IMbnDeviceService* deviceService, ULONG eventID,
                                                        SAFEARRAY* deviceServiceData) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnOpenDataSessionComplete(IMbnDeviceService* deviceService,
                                                              HRESULT status, ULONG requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnCloseDataSessionComplete(IMbnDeviceService* deviceService,
                                                               HRESULT status, ULONG requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnWriteDataComplete(IMbnDeviceService* deviceService, HRESULT status,
                                                        ULONG requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnReadData(IMbnDeviceService* deviceService,
                                               SAFEARRAY* deviceServiceData) = 0;
  virtual HRESULT STDMETHODCALLTYPE
  OnInterfaceStateChange(BSTR interfaceID, MBN_DEVICE_SERVICES_INTERFACE_STATE stateChange) = 0;
};
__CRT_UUID_DECL(IMbnDeviceServicesEvents, 0x0A900C19, 0x6824, 0x4E97, 0xB7, 0x6E, 0xCF, 0x23, 0x9D, 0x0C,
                0xA6, 0x42)

struct IMbnRadioEvents : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE OnRadioStateChange(IMbnRadio* newInterface) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnSetSoftwareRadioStateComplete(IMbnRadio* newInterface, ULONG requestID,
                                                                    HRESULT status) = 0;
};
__CRT_UUID_DECL(IMbnRadioEvents, 0xDCDDDAB6, 0x201F, 0x4BBB, 0xAA, 0xEE, 0x33, 0x8E, 0x36, 0x8A, 0xF6, 0xFA)

struct IMbnRegistrationEvents : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE OnRegisterModeAvailable(IMbnRegistration* newInterface) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnRegisterStateChange(IMbnRegistration* newInterface) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnPacketServiceStateChange(IMbnRegistration* newInterface) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnSetRegisterModeComplete(IMbnRegistration* newInterface, ULONG requestID,
                                                              HRESULT status) = 0;
};
__CRT_UUID_DECL(IMbnRegistrationEvents, 0xDCBBBAB6, 0x200A, 0x4BBB, 0xAA, 0xEE, 0x33, 0x8E, 0x36, 0x8A, 0xF6,
                0xFA)

struct IMbnSignalEvents : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE OnSignalStateChange(IMbnSignal* newInterface) = 0;
};
__CRT_UUID_DECL(IMbnSignalEvents, 0xDCBBBAB6, 0x2004, 0x4BBB, 0xAA, 0xEE, 0x33, 0x8E, 0x36, 0x8A, 0xF6, 0xFA)

struct IMbnInterfaceEvents : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE OnInterfaceCapabilityAvailable(IMbnInterface* newInterface) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnSubscriberInformationChange(IMbnInterface* newInterface) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnReadyStateChange(IMbnInterface* newInterface) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnEmergencyModeChange(IMbnInterface* newInterface) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnHomeProviderAvailable(IMbnInterface* newInterface) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnPreferredProvidersChange(IMbnInterface* newInterface) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnSetPreferredProvidersComplete(IMbnInterface* newInterface,
                                                                    ULONG requestID, HRESULT status) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnScanNetworkComplete(IMbnInterface* newInterface, ULONG requestID,
                                                          HRESULT status) = 0;
};
__CRT_UUID_DECL(IMbnInterfaceEvents, 0xDCBBBAB6, 0x2002, 0x4BBB, 0xAA, 0xEE, 0x33, 0x8E, 0x36, 0x8A, 0xF6,
                0xFA)

struct IMbnInterfaceManagerEvents : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE OnInterfaceArrival(IMbnInterface* newInterface) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnInterfaceRemoval(IMbnInterface* oldInterface) = 0;
};
__CRT_UUID_DECL(IMbnInterfaceManagerEvents, 0xDCBBBAB6, 0x201C, 0x4BBB, 0xAA, 0xEE, 0x33, 0x8E, 0x36, 0x8A,
                0xF6, 0xFA)

struct IMbnConnectionManagerEvents : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE OnConnectionArrival(IMbnConnection* newConnection) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnConnectionRemoval(IMbnConnection* oldConnection) = 0;
};
__CRT_UUID_DECL(IMbnConnectionManagerEvents, 0xDCBBBAB6, 0x201E, 0x4BBB, 0xAA, 0xEE, 0x33, 0x8E, 0x36, 0x8A,
                0xF6, 0xFA)

struct IMbnConnectionEvents : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE OnConnectComplete(IMbnConnection* newConnection, ULONG requestID,
                                                      HRESULT status) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnDisconnectComplete(IMbnConnection* newConnection, ULONG requestID,
                                                         HRESULT status) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnConnectStateChange(IMbnConnection* newConnection) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnVoiceCallStateChange(IMbnConnection* newConnection) = 0;
};
__CRT_UUID_DECL(IMbnConnectionEvents, 0xDCBBBAB6, 0x200E, 0x4BBB, 0xAA, 0xEE, 0x33, 0x8E, 0x36, 0x8A, 0xF6,
                0xFA)

struct IMbnSmsEvents : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE OnSmsConfigurationChange(IMbnSms* sms) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnSetSmsConfigurationComplete(IMbnSms* sms, ULONG requestID,
                                                                  HRESULT status) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnSmsSendComplete(IMbnSms* sms, ULONG requestID, HRESULT status) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnSmsReadComplete(IMbnSms* sms, MBN_SMS_FORMAT smsFormat,
                                                      SAFEARRAY* readMsgs, VARIANT_BOOL moreMsgs,
                                                      ULONG requestID, HRESULT status) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnSmsNewClass0Message(IMbnSms* sms, MBN_SMS_FORMAT smsFormat,
                                                          SAFEARRAY* readMsgs) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnSmsDeleteComplete(IMbnSms* sms, ULONG requestID, HRESULT status) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnSmsStatusChange(IMbnSms* sms) = 0;
};
__CRT_UUID_DECL(IMbnSmsEvents, 0xDCBBBAB6, 0x2016, 0x4BBB, 0xAA, 0xEE, 0x33, 0x8E, 0x36, 0x8A, 0xF6, 0xFA)

struct IMbnVendorSpecificEvents : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE OnEventNotification(IMbnVendorSpecificOperation* vendorOperation,
                                                        SAFEARRAY* vendorSpecificData) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnSetVendorSpecificComplete(IMbnVendorSpecificOperation* vendorOperation,
                                                                SAFEARRAY* vendorSpecificData,
                                                                ULONG requestID) = 0;
};
__CRT_UUID_DECL(IMbnVendorSpecificEvents, 0xDCBBBAB6, 0x201A, 0x4BBB, 0xAA, 0xEE, 0x33, 0x8E, 0x36, 0x8A,
                0xF6, 0xFA)

#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

// NOLINTEND(readability-identifier-naming)

#endif
