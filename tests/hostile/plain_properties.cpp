// What is plain arithmetic and plain texts. These also build where there is no Windows, for a fuzzer.

#include <algorithm>
#include <cmath>
#include <memory>
#include <optional>

#include "common/multistring.h"
#include "download/downloadfile.h"
#include "download/progress.h"
#include "hostile/property.h"

namespace hostile {

namespace {

std::string MakeBytes(Random& random) {
  return random.Bytes(random.Size(200));
}

// --- Multi-strings ----------------------------------------------------------------------------------------

std::string MakeMultiString(Random& random) {
  std::string list;
  for (std::size_t i = random.Below(6); i > 0; --i)
    list += random.Text("USB\\VID_&PI", random.Size(40)) + (random.OneIn(9) ? "" : std::string(1, '\0'));
  return list + (random.OneIn(3) ? "" : std::string(1, '\0'));
}

/// The texts up to the first empty one; one without an end is none.
void CheckMultiString(std::string_view input) {
  // Its own allocation, so that a checker of addresses sees each unit too many.
  const auto units = std::make_unique<wchar_t[]>(input.size());
  std::ranges::transform(input, units.get(), [](char byte) { return static_cast<wchar_t>(byte & 0x7F); });
  std::vector<std::wstring> expected;
  for (std::size_t from = 0;;) {
    const auto* const begin = units.get() + from;
    const auto* const all = units.get() + input.size();
    const auto* const end = std::find(begin, all, L'\0');
    if (end == all || end == begin) break;
    expected.emplace_back(begin, end);
    from = static_cast<std::size_t>(end - units.get()) + 1;
  }
  std::vector<std::wstring> got;
  for (const wchar_t* text : corvel::MultiStringView({units.get(), input.size()})) got.emplace_back(text);
  ExpectEqual("the list", got, expected);
}

// --- Progress ---------------------------------------------------------------------------------------------

/// The whole's percentage by the book, with room to spare.
struct ProgressModel {
  std::uint64_t all = 0;
  std::optional<std::uint32_t> item;
  std::int64_t last = 0;
  std::int64_t sum = 0;

  void Report(std::int32_t percent) {
    if (!item) return;
    const float share = all == 0 ? 0.0f : static_cast<float>(*item * 100.0 / static_cast<double>(all));
    const double wide = std::floor(static_cast<double>(static_cast<float>(percent) * share / 100.0f) + 0.5);
    const auto scaled = static_cast<std::int64_t>(std::clamp<double>(wide, INT32_MIN, INT32_MAX));
    const std::int64_t delta = std::clamp<std::int64_t>(scaled - last, INT32_MIN, INT32_MAX);
    last = scaled;
    if (delta > 0) sum = std::min<std::int64_t>(sum + delta, INT32_MAX);
  }
};

void CheckProgress(std::string_view input) {
  Choices choices(input);
  corvel::Progress progress;
  ProgressModel model;
  int before = 0;
  while (!choices.AtEnd()) {
    switch (choices.Below(5)) {
      case 0: {
        const std::uint32_t bars = choices.Flag() ? choices.Byte() : choices.Number();
        progress.AddBars(bars);
        model.all = static_cast<std::uint32_t>(model.all + bars);
        break;
      }
      case 1: {
        const std::uint32_t bars = choices.Flag() ? choices.Byte() : choices.Number();
        progress.SetItem(bars);
        model.item = bars;
        break;
      }
      case 2:
        progress.SetItem(std::nullopt);
        model.item.reset();
        break;
      default: {
        const std::int32_t percent =
            choices.Flag() ? static_cast<std::int32_t>(choices.Below(101)) : choices.Integer();
        const bool reported = progress.Report(percent).has_value();
        ExpectEqual("whether an item is written", reported, model.item.has_value());
        model.Report(percent);
      }
    }
    const int now = progress.Overall();
    ExpectEqual("the sum", static_cast<std::int64_t>(progress.Current()), model.sum);
    ExpectEqual("the last update", static_cast<std::int64_t>(progress.LastUpdate()), model.last);
    ExpectEqual("the percentage", static_cast<std::int64_t>(now), std::min<std::int64_t>(model.sum, 100));
    Expect(now >= before && now <= 100, "the percentage goes back, or beyond 100");
    before = now;
  }
}

// --- Memory classes ---------------------------------------------------------------------------------------

/// Codes that nobody knows count as a certificate, and each item's name tells its number and file.
void CheckMemoryClass(std::string_view input) {
  Choices choices(input);
  const std::uint32_t code = choices.Flag() ? choices.Byte() % 32 : choices.Number();
  const std::uint32_t index = choices.Number();
  const std::string path(choices.Rest());
  const CDownloadFile file(0, code, path, nullptr, index);
  ExpectEqual("the name", file.GetTocName(), "|" + std::to_string(index) + "|" + path);
  ExpectEqual("the class", file.GetMemoryClass().code, code < 20 ? code : 19u);
}

}  // namespace

std::vector<Property> PlainProperties() {
  return {{"multi-string", 1, &MakeMultiString, &CheckMultiString},
          {"progress", 1, &MakeBytes, &CheckProgress},
          {"memory-class", 1, &MakeBytes, &CheckMemoryClass}};
}

}  // namespace hostile
