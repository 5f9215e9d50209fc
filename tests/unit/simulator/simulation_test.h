#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "common/handles.h"
#include "simulator/virtual_pc.h"
#include "support/temporary_folder.h"
#include "unit/simulator/platform_calls.h"

namespace simulator {

/// A virtual PC around a library that stands for the product; `platform` is what that library would call.
class SimulationTest : public testing::Test {
 protected:
  SimulationTest() {
    options.folder = folder.Path();
    options.speed = 1000;
    // A busy machine must not let a short-lived state pass unseen.
    options.timing.bootLoaderWindow = std::chrono::hours(1);
  }

  /// The PC takes its calls back out of the module, which has to be there still.
  ~SimulationTest() override { pc.reset(); }

  void Start() {
    pc = std::make_unique<VirtualPc>(options);
    caller.reset(::LoadLibraryW(L"platform_caller.dll"));
    ASSERT_NE(caller, nullptr);
    pc->Install(caller.get());
    const auto get =
        reinterpret_cast<GetPlatformCallsFunction>(::GetProcAddress(caller.get(), "GetPlatformCalls"));
    ASSERT_NE(get, nullptr);
    get(&platform);
  }

  /// Texts of a list as Configuration Manager delivers it.
  static std::vector<std::wstring> Split(const std::vector<wchar_t>& list) {
    std::vector<std::wstring> texts;
    for (const wchar_t* text = list.data(); *text != L'\0'; text += texts.back().size() + 1)
      texts.emplace_back(text);
    return texts;
  }

  std::vector<std::wstring> PresentIds() {
    ULONG size = 0;
    EXPECT_EQ(platform.IdListSize(&size, nullptr, CM_GETIDLIST_FILTER_PRESENT), CR_SUCCESS);
    std::vector<wchar_t> list(size);
    EXPECT_EQ(platform.IdList(nullptr, list.data(), size, CM_GETIDLIST_FILTER_PRESENT), CR_SUCCESS);
    return Split(list);
  }

  bool IsPresent(const std::wstring& part) {
    for (const auto& id : PresentIds()) {
      if (id.find(part) != std::wstring::npos) return true;
    }
    return false;
  }

  std::vector<std::wstring> Interfaces(GUID interfaceClass,
                                       ULONG flags = CM_GET_DEVICE_INTERFACE_LIST_PRESENT) {
    ULONG size = 0;
    EXPECT_EQ(platform.InterfaceListSize(&size, &interfaceClass, nullptr, flags), CR_SUCCESS);
    std::vector<wchar_t> list(size);
    EXPECT_EQ(platform.InterfaceList(&interfaceClass, nullptr, list.data(), size, flags), CR_SUCCESS);
    return Split(list);
  }

  /// Lets virtual time pass until the modem is in that state. @return false when it does not come there.
  bool Reaches(ModemState state, Milliseconds limit = Milliseconds(120000)) {
    const auto end = pc->Clock().Now() + limit;
    while (pc->Modem().State() != state && pc->Clock().Now() < end) pc->Clock().Pause(Milliseconds(1000));
    return pc->Modem().State() == state;
  }

  static constexpr GUID kSerialClass{
      0x86E0D1E0, 0x8089, 0x11D0, {0x9C, 0xE4, 0x08, 0x00, 0x3E, 0x30, 0x1F, 0x73}};
  static constexpr GUID kUdeFlashClass{
      0x6568C4A1, 0xB6EE, 0x4E4B, {0xBC, 0x5F, 0xCE, 0x81, 0x9E, 0x62, 0x72, 0x13}};

  TemporaryFolder folder;
  VirtualPcOptions options;
  std::unique_ptr<VirtualPc> pc;
  corvel::UniqueModule caller;
  PlatformCalls platform{};
};

}  // namespace simulator
