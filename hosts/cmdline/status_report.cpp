#include "hosts/cmdline/status_report.h"

#include "hosts/common/shared_names.h"
#include "hosts/common/text.h"
#include "hosts/common/text_layout.h"

namespace hosts {

namespace {

constexpr std::size_t kNameColumn = 16;
constexpr std::size_t kValueColumn = 11;
constexpr std::size_t kTitleColumn = 13;

std::string Padded(std::string text, std::size_t width) {
  if (text.size() < width) text.resize(width, ' ');
  return text;
}

std::string OrDash(const std::wstring& text) {
  return text.empty() ? "-" : ToUtf8(text);
}

std::string FolderText(const Status& status) {
  if (status.serviceStarts) return "(not read: the flash service is starting)";
  return status.folder.empty() ? "(not configured)" : ToUtf8(status.folder);
}

/// Makes the lines of a status, none wider than the columns.
class Lines {
 public:
  explicit Lines(std::size_t columns) : m_Columns(columns) {}

  void Add(const std::string& text, const std::string& first, std::size_t indent) {
    m_Text += Wrapped(text, m_Columns, first, std::string(indent, ' '));
  }
  void AddFact(const char* title, const std::string& text) {
    Add(text, Padded(title, kTitleColumn), kTitleColumn);
  }
  const std::string& Text() const { return m_Text; }

 private:
  std::size_t m_Columns;
  std::string m_Text;
};

}  // namespace

std::string StatusText(const Status& status, std::size_t columns) {
  Lines lines(columns);
  lines.Add(status.key.Text(), "", 2);
  for (const HandshakeLine& line : Describe(status.values, status.writer)) {
    lines.Add(line.meaning,
              "  " + Padded(ToUtf8(line.name), kNameColumn) +
                  Padded(line.value ? std::to_string(*line.value) : "-", kValueColumn),
              4);
  }
  lines.AddFact("Host:", status.writer == Writer::Lives ? "running" : "none running");
  if (status.job) lines.AddFact("Job:", status.job->Text());
  if (status.WasCutShort()) {
    lines.AddFact("",
                  "The flash was cut short. The modem may be left in flash mode;\n"
                  "the next flash recovers it.");
  }
  for (const std::string& hindrance : status.hindrances) {
    lines.AddFact("Hindered:", hindrance + ".\n" + AdviceOnTakenNames());
  }
  lines.AddFact("Modem:",
                std::string(NameOf(status.modem.mode)) + (status.modem.atPort ? ", AT port present" : "") +
                    (status.modem.resetDriver ? ", reset driver present" : ", reset driver absent"));
  lines.AddFact("Folder:", FolderText(status));
  lines.AddFact("Modem image:", OrDash(status.images.modem));
  lines.AddFact("NVM image:", OrDash(status.images.nvm));
  return lines.Text();
}

nlohmann::ordered_json HandshakeAsJson(const HandshakeKey& key, const Handshake& values, Writer writer) {
  nlohmann::ordered_json described;
  for (const HandshakeLine& line : Describe(values, writer)) {
    described[ToUtf8(line.name)] = {
        {"value", line.value ? nlohmann::ordered_json(*line.value) : nlohmann::ordered_json()},
        {"meaning", line.meaning}};
  }
  return {{"key", key.Text()}, {"host_running", writer == Writer::Lives}, {"values", described}};
}

nlohmann::ordered_json AsJson(const Status& status) {
  nlohmann::ordered_json document = HandshakeAsJson(status.key, status.values, status.writer);
  document.update({{"job", status.job ? status.job->AsJson() : nlohmann::ordered_json()},
                   {"modem",
                    {{"mode", TokenOf(status.modem.mode)},
                     {"at_port", status.modem.atPort},
                     {"reset_driver", status.modem.resetDriver}}},
                   {"images",
                    {{"folder", ToUtf8(status.folder)},
                     {"modem", ToUtf8(status.images.modem)},
                     {"nvm", ToUtf8(status.images.nvm)}}},
                   {"hindrances", status.hindrances}});
  return document;
}

}  // namespace hosts
