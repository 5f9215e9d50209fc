#include "simulator/program/scenarios/groups.h"

#include "simulator/program/scenarios/outcomes.h"

namespace simulator {

const std::vector<Scenario>& Configurations() {
  static const std::vector<Scenario> rows{
      {.name = "config-missing",
       .group = "config",
       .description = "there is no configuration: the service does not begin",
       .setup = {.configuration = Configuration::Missing},
       .expected = {.values = Unheard(),
                    .memory = Memory::Untouched,
                    .imagesLeft = 2,
                    .log = {"Start LoadConfig ++", Error("CorvelConfig.ini not exist, exit"),
                            Error("\t Load Config failed, Initialize --")},
                    .forbidden = {"\t MainThreadImplementation ++"},
                    .serviceStarts = false}},
      {.name = "config-locked",
       .group = "config",
       .description = "somebody else has the configuration open: the service does not begin",
       .setup = {.configuration = Configuration::Locked},
       .expected = {.values = Unheard(),
                    .memory = Memory::Untouched,
                    .imagesLeft = 2,
                    .log = {"Start LoadConfig ++", "CConfigParser::LoadConfig: file: ",
                            "CConfigParser::LoadConfig --", Error("\t Load Config failed, Initialize --")},
                    .forbidden = {"\t MainThreadImplementation ++", "\t get Config Var"},
                    .serviceStarts = false}},
      {.name = "config-empty",
       .group = "config",
       .description = "the configuration is empty: no log, the handshake lies in the root itself",
       .setup = {.configuration = Configuration::Empty},
       .expected = {.values = Failure(),
                    .memory = Memory::Untouched,
                    .imagesLeft = 2,
                    .log = {"Start LoadConfig ++", "VERSION: " CORVEL_VERSION, "\t Log Turn OFF"},
                    .forbidden = {"\t get Config Var", "\t to GetLabelsLocation"}}},
      {.name = "config-one-line",
       .group = "config",
       .description = "the configuration's only line is its title, whatever it says",
       .setup = {.configuration = Configuration::OneLine},
       .expected = {.values = Failure(),
                    .memory = Memory::Untouched,
                    .imagesLeft = 2,
                    .log = {"Start LoadConfig ++", "VERSION: " CORVEL_VERSION, "\t Log Turn OFF"},
                    .forbidden = {"\t get Config Var", "\t to GetLabelsLocation"}}},
      {.name = "config-odd-lines",
       .group = "config",
       .description = "the configuration is full of odd lines; the later of two settings counts",
       .setup = {.route = Route::At, .configuration = Configuration::OddLines},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .log = {"\t get Config Var,  : a value without a key", "\t get Config Var, [UNKNOWN] : 1",
                            "\t get Config Var, [TraceLevel] : 1 and more",
                            "\t get Config Var, [RegistryLocation] : HKLM\\SOFTWARE\\Corvel\\LaterLinesWin",
                            "\t get Config Var, [RegistryLocation] : HKCU\\",
                            "\t get Config Var, [IPCTYPE] : pcie", "\t get Config Var, [ERASEMODE] : 7",
                            "\t get Config Var, [REBOOTTYPE] : 1", "\t get Config Var, [REBOOTTYPE]  : 0",
                            "mMainKey:HKCU", "++ use IPCType: USB", "RebootModemByXlog4 ++",
                            "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"TitleLinesDoNotCount", "a comment", "no equals sign"}}},
  };
  return rows;
}

}  // namespace simulator
