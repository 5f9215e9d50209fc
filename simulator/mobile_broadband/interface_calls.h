#pragma once

#include <array>
#include <span>

#include "download/mobilebroadband.h"

namespace simulator {

// The calls of the interfaces that the service hands out, in the order of their slots.

inline constexpr const char* kCallsOfIMbnInterfaceManager[] = {
    "IMbnInterfaceManager::QueryInterface", "IMbnInterfaceManager::AddRef",
    "IMbnInterfaceManager::Release",        "IMbnInterfaceManager::GetInterface",
    "IMbnInterfaceManager::GetInterfaces",
};
inline constexpr const char* kCallsOfIMbnInterface[] = {
    "IMbnInterface::QueryInterface",
    "IMbnInterface::AddRef",
    "IMbnInterface::Release",
    "IMbnInterface::get_InterfaceID",
    "IMbnInterface::GetInterfaceCapability",
    "IMbnInterface::GetSubscriberInformation",
    "IMbnInterface::GetReadyState",
    "IMbnInterface::InEmergencyMode",
    "IMbnInterface::GetHomeProvider",
    "IMbnInterface::GetPreferredProviders",
    "IMbnInterface::SetPreferredProviders",
    "IMbnInterface::GetVisibleProviders",
    "IMbnInterface::ScanNetwork",
    "IMbnInterface::GetConnection",
};
inline constexpr const char* kCallsOfIMbnDeviceServicesManager[] = {
    "IMbnDeviceServicesManager::QueryInterface",
    "IMbnDeviceServicesManager::AddRef",
    "IMbnDeviceServicesManager::Release",
    "IMbnDeviceServicesManager::GetDeviceServicesContext",
};
inline constexpr const char* kCallsOfIMbnDeviceServicesContext[] = {
    "IMbnDeviceServicesContext::QueryInterface",   "IMbnDeviceServicesContext::AddRef",
    "IMbnDeviceServicesContext::Release",          "IMbnDeviceServicesContext::EnumerateDeviceServices",
    "IMbnDeviceServicesContext::GetDeviceService", "IMbnDeviceServicesContext::get_MaxCommandSize",
    "IMbnDeviceServicesContext::get_MaxDataSize",
};
inline constexpr const char* kCallsOfIMbnDeviceService[] = {
    "IMbnDeviceService::QueryInterface",
    "IMbnDeviceService::AddRef",
    "IMbnDeviceService::Release",
    "IMbnDeviceService::QuerySupportedCommands",
    "IMbnDeviceService::OpenCommandSession",
    "IMbnDeviceService::CloseCommandSession",
    "IMbnDeviceService::SetCommand",
    "IMbnDeviceService::QueryCommand",
    "IMbnDeviceService::OpenDataSession",
    "IMbnDeviceService::CloseDataSession",
    "IMbnDeviceService::WriteData",
    "IMbnDeviceService::get_InterfaceID",
    "IMbnDeviceService::get_DeviceServiceID",
    "IMbnDeviceService::get_IsCommandSessionOpen",
    "IMbnDeviceService::get_IsDataSessionOpen",
};
inline constexpr const char* kCallsOfIConnectionPointContainer[] = {
    "IConnectionPointContainer::QueryInterface",
    "IConnectionPointContainer::AddRef",
    "IConnectionPointContainer::Release",
    "IConnectionPointContainer::EnumConnectionPoints",
    "IConnectionPointContainer::FindConnectionPoint",
};
inline constexpr const char* kCallsOfIConnectionPoint[] = {
    "IConnectionPoint::QueryInterface",
    "IConnectionPoint::AddRef",
    "IConnectionPoint::Release",
    "IConnectionPoint::GetConnectionInterface",
    "IConnectionPoint::GetConnectionPointContainer",
    "IConnectionPoint::Advise",
    "IConnectionPoint::Unadvise",
    "IConnectionPoint::EnumConnections",
};

template <typename Interface>
constexpr std::span<const char* const> CallsOf();
template <>
constexpr std::span<const char* const> CallsOf<IMbnInterfaceManager>() {
  return kCallsOfIMbnInterfaceManager;
}
template <>
constexpr std::span<const char* const> CallsOf<IMbnInterface>() {
  return kCallsOfIMbnInterface;
}
template <>
constexpr std::span<const char* const> CallsOf<IMbnDeviceServicesManager>() {
  return kCallsOfIMbnDeviceServicesManager;
}
template <>
constexpr std::span<const char* const> CallsOf<IMbnDeviceServicesContext>() {
  return kCallsOfIMbnDeviceServicesContext;
}
template <>
constexpr std::span<const char* const> CallsOf<IMbnDeviceService>() {
  return kCallsOfIMbnDeviceService;
}
template <>
constexpr std::span<const char* const> CallsOf<IConnectionPointContainer>() {
  return kCallsOfIConnectionPointContainer;
}
template <>
constexpr std::span<const char* const> CallsOf<IConnectionPoint>() {
  return kCallsOfIConnectionPoint;
}

/// All of them, by interface.
inline std::array<std::span<const char* const>, 7> InterfaceCalls() {
  return {kCallsOfIMbnInterfaceManager,      kCallsOfIMbnInterface,     kCallsOfIMbnDeviceServicesManager,
          kCallsOfIMbnDeviceServicesContext, kCallsOfIMbnDeviceService, kCallsOfIConnectionPointContainer,
          kCallsOfIConnectionPoint};
}

}  // namespace simulator
