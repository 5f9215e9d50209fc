#include "soak/soak_host.h"

#include "toolkit/toolkit.h"

void SoakHostBegins() {
  ToolKit::Initialize_CmdLine();
  ToolKit::LoadConfig(nullptr);
}

void SoakHostFlashes() {
  char ipcType[] = "USB";
  ToolKit::FirmwareFlash_CmdLine(3, ipcType, 0, nullptr, nullptr);
}

void SoakHostLogs(int writer, int number) {
  ToolKit::OutputDebug(3, "soak", "SoakHost::Writer", __FILE__, __LINE__, "\t writer %d, number %d", writer,
                       number);
}
