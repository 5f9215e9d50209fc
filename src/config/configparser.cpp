#include "config/configparser.h"
#include <cstdlib>
CConfigParser* CConfigParser::GetInstance() {
  std::abort();
}
void CConfigParser::ReleaseInstance() {
  std::abort();
}
void CConfigParser::ReleaseAtProcessExit() {
  std::abort();
}
CConfigParser::~CConfigParser() = default;
bool CConfigParser::LoadConfig(const wchar_t*) {
  std::abort();
}
CTString CConfigParser::ConfiguredRegistryLocation() {
  std::abort();
}
CTString CConfigParser::ConfiguredFirmwareFolder() {
  std::abort();
}
CTString CConfigParser::ConfiguredIPCType() {
  std::abort();
}
int CConfigParser::ConfiguredTraceLevel() {
  std::abort();
}
int CConfigParser::ConfiguredRebootType() {
  std::abort();
}
int CConfigParser::ConfiguredEraseMode() {
  std::abort();
}
