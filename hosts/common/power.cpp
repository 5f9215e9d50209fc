#include "hosts/common/power.h"

#include "hosts/common/power_calls.h"
#include "hosts/common/text.h"

namespace hosts {

namespace {

constexpr BYTE kOffline = 0;
constexpr BYTE kFull = 100;

}  // namespace

StayAwake::StayAwake() {
  wchar_t reason[] = L"The firmware of the cellular modem is being updated.";
  REASON_CONTEXT context{};
  context.Version = POWER_REQUEST_CONTEXT_VERSION;
  context.Flags = POWER_REQUEST_CONTEXT_SIMPLE_STRING;
  context.Reason.SimpleReasonString = reason;
  const HANDLE request = ::PowerCreateRequest(&context);
  if (request == INVALID_HANDLE_VALUE || request == nullptr) {
    Refuse(::GetLastError());
    return;
  }
  m_Request.reset(request);
  Ask(PowerRequestSystemRequired);
  Ask(kExecutionRequired);
}

void StayAwake::Ask(POWER_REQUEST_TYPE type) {
  if (!::PowerSetRequest(m_Request.get(), type)) Refuse(::GetLastError());
}

void StayAwake::Refuse(DWORD error) {
  m_Refusal = "Windows does not promise to keep the PC awake: " + SystemErrorText(error) +
              ". The flash goes on. Do not let the PC sleep and do not close its lid until the flash is "
              "over: a modem that is "
              "cut off stays in flash mode until the next flash.";
}

std::string PowerSource::Text() const {
  return "the PC runs on its battery, " +
         (percent ? std::to_string(*percent) + " % charged" : std::string("whose charge is unknown"));
}

PowerSource LookAtPowerSource() {
  SYSTEM_POWER_STATUS status{};
  if (!::GetSystemPowerStatus(&status)) return {};
  PowerSource source{.isBattery = status.ACLineStatus == kOffline, .percent = std::nullopt};
  // Everything else means that nobody knows.
  if (status.BatteryLifePercent <= kFull) source.percent = status.BatteryLifePercent;
  return source;
}

}  // namespace hosts
