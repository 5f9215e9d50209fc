#pragma once

#include <windows.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <vector>

#include "common/automation.h"
#include "common/internaldata.h"
#include "download/mobilebroadband.h"

class CMbnSinks;

// What the notifications bring, process-wide. Handlers write on threads of the Mobile Broadband API before
// they set an event; whoever waited for that event reads.

/// The only sink; null while no reboot is under way.
extern CORVEL_INTERNAL_DATA CMbnSinks* g_CMbnSinks;

/// Auto-reset events of the three completions that somebody waits for; null outside of Initilazation and
/// DeInitilazation. Nobody waits for the other notifications, so they have none.
extern CORVEL_INTERNAL_DATA HANDLE g_Event_OnOpenCommandSessionComplete;
extern CORVEL_INTERNAL_DATA HANDLE g_Event_OnQuerySupportedCommandsComplete;
extern CORVEL_INTERNAL_DATA HANDLE g_Event_OnSetCommandComplete;

/// The status that the last completion of any kind reported.
extern CORVEL_INTERNAL_DATA HRESULT g_LastStatus;

/// The last object of its kind that a notification came with, with a reference. Empty between two reboots.
extern CORVEL_INTERNAL_DATA IMbnDeviceService* g_MbnDeviceService;
extern CORVEL_INTERNAL_DATA IMbnConnection* g_MbnConnection;
extern CORVEL_INTERNAL_DATA IMbnInterface* g_MbnInterface;
extern CORVEL_INTERNAL_DATA IMbnRadio* g_MbnRadio;
extern CORVEL_INTERNAL_DATA IMbnSignal* g_MbnSignal;

/// How many commands the modem listed. Survives a reboot and a completion without a list.
extern CORVEL_INTERNAL_DATA std::atomic<ULONG> g_ulNumberSupportedCommands;
/// Ids of the supported commands. The sink counts and logs the ids and keeps none, so all stay 0.
extern CORVEL_INTERNAL_DATA std::array<ULONG, 64> g_ulSupportedCommandIds;

/// The data of the last successful completion of each kind.
extern CORVEL_INTERNAL_DATA std::vector<BYTE> g_SetCommandResponse;
extern CORVEL_INTERNAL_DATA std::vector<BYTE> g_QueryCommandResponse;

namespace corvel {

/// What a client of the sink may want to hear of; this library wants nothing. Set before the sink is advised.
struct MbnClientHooks {
  /// Called with 1 when an interface has arrived.
  void (*onInterfaceArrival)(IMbnInterface* mbnInterface, int arrived) noexcept = nullptr;
  /// Called with the kind, the id of the interface or device service, and the data, if there is any.
  void (*onNotification)(ULONG kind, const wchar_t* id, const BYTE* data, ULONG count) noexcept = nullptr;
  /// Bits of the kinds that are wanted.
  ULONG wantedNotifications = 0;
  /// The data of the last device-service notification that was passed on.
  std::vector<BYTE> deviceServiceData;
};

/// The objects that notifications came with, for the one who is to give them up.
using MbnKeptObjects = std::array<UniqueUnknown, 5>;

inline constexpr ULONG kInterfaceArrivalNotification = 0x80;
inline constexpr ULONG kDeviceServiceNotification = 0x100;

}  // namespace corvel

#if defined(__GNUC__)
#pragma GCC diagnostic push
// The interfaces have no destructor: one would take a slot.
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
#endif

/// Receives the notifications of the Mobile Broadband API while the modem is rebooted. Called on any thread.
/// The reference count keeps nothing alive: the sink belongs to whoever made it, who retires it in the end.
/// One at a time, since making one clears the process-wide events.
class CMbnSinks final : public IMbnRadioEvents,
                        public IMbnRegistrationEvents,
                        public IMbnSignalEvents,
                        public IMbnInterfaceEvents,
                        public IMbnInterfaceManagerEvents,
                        public IMbnConnectionManagerEvents,
                        public IMbnConnectionEvents,
                        public IMbnSmsEvents,
                        public IMbnDeviceServicesEvents,
                        public IMbnVendorSpecificEvents {
 public:
  CMbnSinks();
  CMbnSinks(const CMbnSinks&) = delete;
  CMbnSinks& operator=(const CMbnSinks&) = delete;
  ~CMbnSinks();

  /// Creates those of the three events that are missing; on failure none.
  HRESULT Initilazation();
  /// Closes the events. @return S_OK.
  HRESULT DeInitilazation();
  /// Lets nothing more be recorded or signalled through this sink.
  /// @return the objects kept, for the caller to give up: releasing them runs the service's code.
  corvel::MbnKeptObjects Retire();
  /// Cuts off the stubs through which another apartment may still hold the sink. May wait for the service.
  void Disconnect();
  /// True when nobody refers to it or is in one of its handlers. A retired sink may be deleted then.
  bool IsDeserted() const { return m_References == 0 && m_CallsInProgress == 0; }

  corvel::MbnClientHooks& ClientHooks() { return m_Hooks; }

  /// For whoever keeps retired sinks: the one that was retired before this one.
  CMbnSinks* retiredBefore = nullptr;

  // IUnknown
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;

  // IMbnRadioEvents
  HRESULT STDMETHODCALLTYPE OnRadioStateChange(IMbnRadio* newInterface) override;
  HRESULT STDMETHODCALLTYPE OnSetSoftwareRadioStateComplete(IMbnRadio* newInterface, ULONG requestID,
                                                            HRESULT status) override;

  // IMbnRegistrationEvents
  HRESULT STDMETHODCALLTYPE OnRegisterModeAvailable(IMbnRegistration* newInterface) override;
  HRESULT STDMETHODCALLTYPE OnRegisterStateChange(IMbnRegistration* newInterface) override;
  HRESULT STDMETHODCALLTYPE OnPacketServiceStateChange(IMbnRegistration* newInterface) override;
  HRESULT STDMETHODCALLTYPE OnSetRegisterModeComplete(IMbnRegistration* newInterface, ULONG requestID,
                                                      HRESULT status) override;

  // IMbnSignalEvents
  HRESULT STDMETHODCALLTYPE OnSignalStateChange(IMbnSignal* newInterface) override;

  // IMbnInterfaceEvents
  HRESULT STDMETHODCALLTYPE OnInterfaceCapabilityAvailable(IMbnInterface* newInterface) override;
  HRESULT STDMETHODCALLTYPE OnSubscriberInformationChange(IMbnInterface* newInterface) override;
  HRESULT STDMETHODCALLTYPE OnReadyStateChange(IMbnInterface* newInterface) override;
  HRESULT STDMETHODCALLTYPE OnEmergencyModeChange(IMbnInterface* newInterface) override;
  HRESULT STDMETHODCALLTYPE OnHomeProviderAvailable(IMbnInterface* newInterface) override;
  HRESULT STDMETHODCALLTYPE OnPreferredProvidersChange(IMbnInterface* newInterface) override;
  HRESULT STDMETHODCALLTYPE OnSetPreferredProvidersComplete(IMbnInterface* newInterface, ULONG requestID,
                                                            HRESULT status) override;
  HRESULT STDMETHODCALLTYPE OnScanNetworkComplete(IMbnInterface* newInterface, ULONG requestID,
                                                  HRESULT status) override;

  // IMbnInterfaceManagerEvents
  HRESULT STDMETHODCALLTYPE OnInterfaceArrival(IMbnInterface* newInterface) override;
  HRESULT STDMETHODCALLTYPE OnInterfaceRemoval(IMbnInterface* oldInterface) override;

  // IMbnConnectionManagerEvents
  HRESULT STDMETHODCALLTYPE OnConnectionArrival(IMbnConnection* newConnection) override;
  HRESULT STDMETHODCALLTYPE OnConnectionRemoval(IMbnConnection* oldConnection) override;

  // IMbnConnectionEvents
  HRESULT STDMETHODCALLTYPE OnConnectComplete(IMbnConnection* newConnection, ULONG requestID,
                                              HRESULT status) override;
  HRESULT STDMETHODCALLTYPE OnDisconnectComplete(IMbnConnection* newConnection, ULONG requestID,
                                                 HRESULT status) override;
  HRESULT STDMETHODCALLTYPE OnConnectStateChange(IMbnConnection* newConnection) override;
  HRESULT STDMETHODCALLTYPE OnVoiceCallStateChange(IMbnConnection* newConnection) override;

  // IMbnSmsEvents
  HRESULT STDMETHODCALLTYPE OnSmsConfigurationChange(IMbnSms* sms) override;
  HRESULT STDMETHODCALLTYPE OnSetSmsConfigurationComplete(IMbnSms* sms, ULONG requestID,
                                                          HRESULT status) override;
  HRESULT STDMETHODCALLTYPE OnSmsSendComplete(IMbnSms* sms, ULONG requestID, HRESULT status) override;
  HRESULT STDMETHODCALLTYPE OnSmsReadComplete(IMbnSms* sms, MBN_SMS_FORMAT smsFormat, SAFEARRAY* readMsgs,
                                              VARIANT_BOOL moreMsgs, ULONG requestID,
                                              HRESULT status) override;
  HRESULT STDMETHODCALLTYPE OnSmsNewClass0Message(IMbnSms* sms, MBN_SMS_FORMAT smsFormat,
                                                  SAFEARRAY* readMsgs) override;
  HRESULT STDMETHODCALLTYPE OnSmsDeleteComplete(IMbnSms* sms, ULONG requestID, HRESULT status) override;
  HRESULT STDMETHODCALLTYPE OnSmsStatusChange(IMbnSms* sms) override;

  // IMbnDeviceServicesEvents
  HRESULT STDMETHODCALLTYPE OnQuerySupportedCommandsComplete(IMbnDeviceService* deviceService,
                                                             SAFEARRAY* commandIDList, HRESULT status,
                                                             ULONG requestID) override;
  HRESULT STDMETHODCALLTYPE OnOpenCommandSessionComplete(IMbnDeviceService* deviceService, HRESULT status,
                                                         ULONG requestID) override;
  HRESULT STDMETHODCALLTYPE OnCloseCommandSessionComplete(IMbnDeviceService* deviceService, HRESULT status,
                                                          ULONG requestID) override;
  HRESULT STDMETHODCALLTYPE OnSetCommandComplete(IMbnDeviceService* deviceService, ULONG responseID,
                                                 SAFEARRAY* deviceServiceData, HRESULT status,
                                                 ULONG requestID) override;
  HRESULT STDMETHODCALLTYPE OnQueryCommandComplete(IMbnDeviceService* deviceService, ULONG responseID,
                                                   SAFEARRAY* deviceServiceData, HRESULT status,
                                                   ULONG requestID) override;
  HRESULT STDMETHODCALLTYPE OnEventNotification(IMbnDeviceService* deviceService, ULONG eventID,
                                                SAFEARRAY* deviceServiceData) override;
  HRESULT STDMETHODCALLTYPE OnOpenDataSessionComplete(IMbnDeviceService* deviceService, HRESULT status,
                                                      ULONG requestID) override;
  HRESULT STDMETHODCALLTYPE OnCloseDataSessionComplete(IMbnDeviceService* deviceService, HRESULT status,
                                                       ULONG requestID) override;
  HRESULT STDMETHODCALLTYPE OnWriteDataComplete(IMbnDeviceService* deviceService, HRESULT status,
                                                ULONG requestID) override;
  HRESULT STDMETHODCALLTYPE OnReadData(IMbnDeviceService* deviceService,
                                       SAFEARRAY* deviceServiceData) override;
  HRESULT STDMETHODCALLTYPE OnInterfaceStateChange(BSTR interfaceID,
                                                   MBN_DEVICE_SERVICES_INTERFACE_STATE stateChange) override;

  // IMbnVendorSpecificEvents
  HRESULT STDMETHODCALLTYPE OnEventNotification(IMbnVendorSpecificOperation* vendorOperation,
                                                SAFEARRAY* vendorSpecificData) override;
  HRESULT STDMETHODCALLTYPE OnSetVendorSpecificComplete(IMbnVendorSpecificOperation* vendorOperation,
                                                        SAFEARRAY* vendorSpecificData,
                                                        ULONG requestID) override;

 private:
  class Handling;
  bool AddRefToOthers();
  static constexpr std::size_t kLongestName = 64;

  std::atomic<ULONG> m_References{0};
  std::array<wchar_t, kLongestName> m_DisplayName{};
  corvel::MbnClientHooks m_Hooks;
  std::atomic<int> m_CallsInProgress{0};
  std::atomic<bool> m_Retired{false};
};

#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
