#include "simulator/program/report.h"

#include <windows.h>

#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "hosts/common/json_output.h"
#include "hosts/common/text.h"

namespace simulator {

namespace {

std::string Seconds(std::chrono::milliseconds duration) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.1f s", static_cast<double>(duration.count()) / 1000);
  return text.data();
}

std::string Number(double value) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%g", value);
  return text.data();
}

std::string MemoryLine(const SessionReport& session) {
  const MemoryComparison& comparison = session.comparison;
  if (comparison.equal) {
    return "equal to the images, byte for byte (" + std::to_string(comparison.items) + " items, " +
           std::to_string(comparison.bytes) + " bytes)";
  }
  if (session.memory == Memory::Untouched) return "untouched";
  return "not equal to the images: " + comparison.difference;
}

nlohmann::ordered_json Value(std::optional<std::uint32_t> value) {
  return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
}

nlohmann::ordered_json JsonOfValues(const hosts::Handshake& values) {
  return {{"Fls_Ready", Value(values.ready)},         {"Retry_Times", Value(values.retryTimes)},
          {"Time_Out", Value(values.timeOut)},        {"Flash_OnGoing", Value(values.onGoing)},
          {"Flash_Progress", Value(values.progress)}, {"Flash_Result", Value(values.result)}};
}

}  // namespace

bool Outcome::IsGood() const {
  if (scenario != nullptr) return differences.empty();
  return session.finished && session.values.Is(hosts::FlashResult::Succeeded) && session.comparison.equal;
}

std::string SummaryOf(const Outcome& outcome) {
  const SessionReport& session = outcome.session;
  std::string text;
  const auto line = [&](const char* label, const std::string& value) {
    std::array<char, 32> field{};
    std::snprintf(field.data(), field.size(), "  %-14s ", label);
    text += field.data() + value + "\n";
  };
  text += outcome.scenario != nullptr ? std::string("Scenario ") + outcome.scenario->name + ": " +
                                            outcome.scenario->description + "\n"
                                      : std::string("Flash by route ") + NameOf(outcome.route) + "\n";
  if (!session.finished) line("trouble", session.difficulty);
  line("result", (session.values.result ? std::to_string(*session.values.result) : "-") + " (" +
                     hosts::MeaningOfResult(session.values.result) + ")");
  line("attempts", std::to_string(session.attempts));
  line("duration", Seconds(session.duration) + (outcome.speed == 1.0
                                                    ? ""
                                                    : " of virtual time, " + Seconds(session.realDuration) +
                                                          " at speed " + Number(outcome.speed)));
  line("written",
       std::to_string(session.itemsWritten) + " items, " + std::to_string(session.bytesWritten) + " bytes");
  line("flash memory", MemoryLine(session));
  line("modem",
       std::string(NameOf(session.modem)) + ", " + std::to_string(session.resets) + " baseband resets");
  line("debug log", NameForPeople(session.logFile));
  for (const std::string& difference : outcome.differences) line("NOT EXPECTED", difference);
  if (outcome.scenario != nullptr && outcome.differences.empty()) line("expectations", "all hold");
  return text;
}

nlohmann::ordered_json JsonOf(const Outcome& outcome) {
  const SessionReport& session = outcome.session;
  nlohmann::ordered_json json{{"good", outcome.IsGood()},
                              {"route", NameOf(outcome.route)},
                              {"speed", outcome.speed},
                              {"finished", session.finished},
                              {"result", Value(session.values.result)},
                              {"meaning", hosts::MeaningOfResult(session.values.result)},
                              {"attempts", session.attempts},
                              {"duration_s", static_cast<double>(session.duration.count()) / 1000},
                              {"real_duration_s", static_cast<double>(session.realDuration.count()) / 1000},
                              {"items_written", session.itemsWritten},
                              {"bytes_written", session.bytesWritten},
                              {"memory_equal", session.comparison.equal},
                              {"memory", NameOf(session.memory)},
                              {"memory_difference", session.comparison.difference},
                              {"modem", NameOf(session.modem)},
                              {"baseband_resets", session.resets},
                              {"mbim_reboots", session.mbimReboots},
                              {"at_commands", session.atCommands},
                              {"images_left", session.imagesLeft},
                              {"registry", JsonOfValues(session.values)},
                              {"debug_log", NameForPeople(session.logFile)}};
  if (!session.finished) json["difficulty"] = session.difficulty;
  if (outcome.scenario == nullptr) return json;
  json["scenario"] = outcome.scenario->name;
  json["differences"] = outcome.differences;
  return json;
}

nlohmann::ordered_json JsonOfError(const std::string& message) {
  return {{"good", false}, {"error", message}};
}

void PrintJson(const nlohmann::ordered_json& fields) {
  constexpr int kDocumentVersion = 1;
  hosts::PrintJson(fields, hosts::JsonLayout::Indented, kDocumentVersion);
}

std::string NameForPeople(const std::filesystem::path& path) {
  using UnixName = char*(CDECL*)(const wchar_t*);
  const auto unixName = reinterpret_cast<UnixName>(
      ::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name"));
  char* const name = unixName != nullptr ? unixName(path.c_str()) : nullptr;
  if (name == nullptr) return hosts::ToUtf8(path.wstring());
  std::string text(name);
  ::HeapFree(::GetProcessHeap(), 0, name);
  return text;
}

}  // namespace simulator
