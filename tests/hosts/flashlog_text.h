#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <string>

namespace hosts::flashlog {

/// The text of a debug log, record by record, with a clock that the test moves.
class LogText {
 public:
  static constexpr unsigned kSupervisor = 20;
  static constexpr unsigned kWorker = 30;

  /// Seconds since 10 o'clock.
  LogText& At(double seconds) {
    m_Milliseconds = static_cast<int>(std::lround(seconds * 1000));
    return *this;
  }
  LogText& By(unsigned thread) {
    m_Thread = thread;
    return *this;
  }
  LogText& Process(unsigned process) {
    m_Process = process;
    return *this;
  }
  LogText& Trace(const std::string& function, const std::string& message) {
    return Record("Trace", function, message);
  }
  LogText& Warning(const std::string& function, const std::string& message) {
    return Record("Warning", function, message);
  }
  LogText& Error(const std::string& function, const std::string& message) {
    return Record("Error", function, message);
  }
  /// As it is.
  LogText& Raw(const std::string& text) {
    m_Text += text;
    return *this;
  }

  // What a job logs, by the procedures that log it.
  LogText& Job(const std::string& message) { return By(kSupervisor).Trace(m_Procedure, message); }
  LogText& JobError(const std::string& message) { return By(kSupervisor).Error(m_Procedure, message); }
  LogText& Download(const std::string& message) {
    return By(kWorker).Trace("CFirmwareDownloader::Download", message);
  }
  LogText& ByCommandLine() {
    m_Procedure = "ToolKit::FirmwareFlash_CmdLine";
    return *this;
  }

  LogText& Request() {
    return By(kSupervisor).Trace("ToolKit::MonitorFlashReadyFlag", "\t flash flag changed to 1");
  }
  LogText& AttemptBegins() {
    return Job("\t DownloadFirmwareImplementation timeout: 130s")
        .By(kWorker)
        .Trace("ToolKit::DownloadFirmwareImplementation", "ToolKit::DownloadFirmwareImplementation ++");
  }
  /// Into flash mode, to the flash port, to booting and to writing, a second each.
  LogText& ReachesWriting() {
    const double begin = Seconds();
    return Download("\t GO BootDeviceInFirmwareMode, g_retry_times: 0\n")
        .At(begin + 1)
        .Trace("CFirmwareDownloader::BootDeviceInFirmwareMode",
               "\t CFirmwareDownloader::BootDeviceInFirmwareMode --, retValue: 0\n")
        .At(begin + 2)
        .Trace("CFirmwareDownloader::InjectBootTarget", "\t InjectBootTargetThread timeout: 10s")
        .At(begin + 3)
        .Download("\t BootDeviceInFirmwareMode OK");
  }
  LogText& Progress(int percent) {
    return By(kWorker).Trace("ToolKit::SetFlashProcess",
                             "\t WriteRegistry Flash_Progress: " + std::to_string(percent));
  }
  LogText& Result(int result) {
    return By(kSupervisor)
        .Trace("ToolKit::SetFlashResult", "\t WriteRegistry Flash_Result: " + std::to_string(result));
  }
  LogText& Tidied() {
    return By(kSupervisor)
        .Error("ToolKit::DeleteFLSFiles", "\t DeleteFLSFiles ++")
        .Error("ToolKit::DeleteFLSFiles", "\t DeleteFLSFiles --");
  }
  /// One flash that succeeds in 20 s, from the request on.
  LogText& SuccessfulFlash() {
    const double begin = Seconds();
    return Request()
        .AttemptBegins()
        .ReachesWriting()
        .Progress(40)
        .At(begin + 14)
        .Progress(100)
        .Job("\t Flash OK, to wait for MBIM Modem re-arrival")
        .At(begin + 20)
        .Job("\t MBIM Modem re-arrival, FW update OK")
        .Result(4)
        .Tidied();
  }

  double Seconds() const { return m_Milliseconds / 1000.0; }
  const std::string& Text() const { return m_Text; }

  /// The beginning of a record, up to its message.
  std::string Begin(const std::string& level, const std::string& function) const;

 private:
  LogText& Record(const std::string& level, const std::string& function, const std::string& message) {
    m_Text += Begin(level, function) + message + "##\r\n";
    return *this;
  }

  std::string m_Text;
  std::string m_Procedure = "ToolKit::MainThreadImplementation";
  int m_Milliseconds = 0;
  unsigned m_Process = 10;
  unsigned m_Thread = kSupervisor;
};

inline std::string LogText::Begin(const std::string& level, const std::string& function) const {
  const auto digits = [](int number, std::size_t width) {
    const std::string text = std::to_string(number);
    return std::string(width - std::min(width, text.size()), '0') + text;
  };
  const int seconds = m_Milliseconds / 1000;
  return "#2026-11-15\t" + digits(10 + seconds / 3600, 2) + ":" + digits(seconds / 60 % 60, 2) + ":" +
         digits(seconds % 60, 2) + "." + digits(m_Milliseconds % 1000, 3) + "\t" + std::to_string(m_Process) +
         "~" + std::to_string(m_Thread) + "\tFlashSvc\t" + level + "\tsource.cpp\t7\t" + function + "\t";
}

}  // namespace hosts::flashlog
