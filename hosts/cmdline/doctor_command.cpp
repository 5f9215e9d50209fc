#include <windows.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <string>
#include <system_error>
#include <utility>

#include "hosts/cmdline/commands.h"
#include "hosts/cmdline/doctor_contents.h"
#include "hosts/cmdline/doctor_report.h"
#include "hosts/cmdline/problems.h"
#include "hosts/common/json_output.h"
#include "hosts/common/terminal.h"
#include "hosts/common/text.h"
#include "hosts/common/zip_file.h"
#include "toolkit/toolkit.h"

namespace hosts {

namespace {

/// Names each file of the archive, and what is not there; in the archive, too.
constexpr char kContentsName[] = "contents.txt";
constexpr char kContentsWhat[] = "this list, and what of it was left out, with the reason";

SYSTEMTIME Now() {
  SYSTEMTIME now{};
  ::GetLocalTime(&now);
  return now;
}

/// The archive on its way, under a name of its own until it is whole. Never over another file.
class Archive : public DoctorCollection {
 public:
  explicit Archive(std::wstring path)
      : m_Path(std::move(path)),
        m_Draft(m_Path + L".new"),
        m_Zip(m_Draft),
        m_IsDraftThere(m_Zip.Error() == ERROR_SUCCESS),
        m_Report{.archive = ToUtf8(m_Path), .files = {}, .leftOut = {}} {}
  ~Archive() override {
    if (!m_IsDraftThere) return;
    // It cannot be deleted while it is open.
    m_Zip.Finish();
    ::DeleteFileW(m_Draft.c_str());
  }
  Archive(const Archive&) = delete;
  Archive& operator=(const Archive&) = delete;

  void Take(const std::string& name, std::string_view bytes, const SYSTEMTIME& modified) override {
    m_Zip.Add(name, bytes, modified);
    m_Report.files.emplace_back(name, bytes.size());
  }
  void LeaveOut(const std::string& name, const std::string& why) override {
    m_Report.leftOut.emplace_back(name, why);
  }
  bool TakesMore() const override { return m_Zip.Error() == ERROR_SUCCESS; }

  /// @return the system's error; 0 when the archive is there.
  DWORD Finish() {
    const std::string contents = Contents();
    Take(kContentsName, contents, Now());
    if (const DWORD error = m_Zip.Finish()) return error;
    if (!::MoveFileExW(m_Draft.c_str(), m_Path.c_str(), 0)) return ::GetLastError();
    m_IsDraftThere = false;
    return ERROR_SUCCESS;
  }
  const DoctorReport& Told() const { return m_Report; }

 private:
  std::string Contents() const {
    std::string text;
    for (const DoctorItem& item : DoctorItems()) text += std::string(item.name) + ": " + item.what + "\r\n";
    text += std::string(kContentsName) + ": " + kContentsWhat + "\r\n";
    for (const auto& [name, why] : m_Report.leftOut) {
      text.append("Left out: ").append(name).append(": ").append(why).append(".\r\n");
    }
    return text;
  }

  std::wstring m_Path;
  std::wstring m_Draft;
  ZipFile m_Zip;
  bool m_IsDraftThere;
  DoctorReport m_Report;
};

std::wstring NameByTime() {
  const SYSTEMTIME now = Now();
  wchar_t name[64]{};
  std::swprintf(name, std::size(name), L"corvel_doctor_%04d-%02d-%02d_%02d-%02d-%02d.zip", now.wYear,
                now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond);
  return name;
}

std::wstring FullPath(const std::wstring& name) {
  std::error_code failed;
  const std::filesystem::path path = std::filesystem::absolute(name, failed);
  return failed ? name : path.wstring();
}

ExitCode ShowList(bool json) {
  DoctorList list;
  for (const DoctorItem& item : DoctorItems()) list.emplace_back(item.name, item.what);
  list.emplace_back(kContentsName, kContentsWhat);
  if (!json) {
    std::cout << DoctorListText(list, TextColumns(::GetStdHandle(STD_OUTPUT_HANDLE))) << std::flush;
    return ExitCode::Success;
  }
  auto rows = nlohmann::ordered_json::array();
  for (const auto& [name, what] : list) rows.push_back({{"name", name}, {"what", what}});
  PrintJson({{"contents", rows}});
  return ExitCode::Success;
}

}  // namespace

ExitCode RunDoctor(const DoctorOptions& options) {
  // Looking must not empty the log of the last flash.
  ToolKit::TurnLoggingOff();
  if (options.list) return ShowList(options.json);
  const std::wstring path = FullPath(options.output.empty() ? NameByTime() : ToWide(options.output));
  Archive archive(path);
  Collect(DoctorItems(), archive);
  if (const DWORD error = archive.Finish()) {
    Report({"archive_unwritable",
            "The archive " + ToUtf8(path) + " cannot be written: " + SystemErrorText(error) + ".",
            "Name another file with --output, in a folder that you may write."},
           options.json);
    return ExitCode::NotReady;
  }
  if (options.json) {
    PrintJson(AsJson(archive.Told()));
  } else {
    std::cout << DoctorText(archive.Told(), TextColumns(::GetStdHandle(STD_OUTPUT_HANDLE))) << std::flush;
  }
  return ExitCode::Success;
}

}  // namespace hosts
