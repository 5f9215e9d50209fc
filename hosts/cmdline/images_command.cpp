#include <windows.h>

#include <algorithm>
#include <iostream>
#include <optional>
#include <string>

#include "hosts/cmdline/commands.h"
#include "hosts/cmdline/images_text.h"
#include "hosts/cmdline/preflight.h"
#include "hosts/cmdline/problems.h"
#include "hosts/cmdline/surroundings.h"
#include "hosts/common/file_digest.h"
#include "hosts/common/json_output.h"
#include "hosts/common/terminal.h"
#include "hosts/common/text.h"
#include "hosts/common/who_flashes.h"
#include "toolkit/toolkit.h"

namespace hosts {

namespace {

/// Why the images are left closed: whoever flashes opens them with nobody else beside it.
std::string WhoNeedsThem(bool digests) {
  if (!digests) return "--no-digests was given";
  auto obstacle = FindFlashingCommandLine();
  if (!obstacle) obstacle = FindServiceInTheWay(CommandLineKey());
  return obstacle ? obstacle->message : "";
}

void ReadDigest(ListedImage& image) {
  const FileDigest digest = DigestOf(image.file.path);
  image.sha256 = digest.sha256;
  if (digest.error != ERROR_SUCCESS) image.problem = SystemErrorText(digest.error);
}

ImageReport ReportOn(const ConfiguredFolder& folder, bool digests) {
  ImageReport report{.folder = folder.path, .images = {}, .whyNotRead = WhoNeedsThem(digests)};
  for (const ImageFile& file : ListImages(folder.path).images) {
    const bool isTaken = file.path == folder.images.modem || file.path == folder.images.nvm;
    ListedImage& image = report.images.emplace_back(ListedImage{.file = file, .isTaken = isTaken});
    if (report.whyNotRead.empty()) ReadDigest(image);
  }
  return report;
}

std::optional<Problem> ProblemOf(const ImageReport& report) {
  const auto bad =
      std::ranges::find_if(report.images, [](const ListedImage& image) { return !image.problem.empty(); });
  if (bad == report.images.end()) return std::nullopt;
  return Problem{"image_unreadable", ToUtf8(bad->file.path) + ": " + bad->problem + ".",
                 "Close the program that holds the image open, and give this one the right to read it."};
}

}  // namespace

ExitCode RunImages(const ImagesOptions& options) {
  // Looking must not empty the log of a run that is going on.
  ToolKit::TurnLoggingOff();
  if (IsServiceStarting()) {
    Report({kServiceStarts, "The flash service is starting and reads its configuration.",
            "Try again in a moment."},
           options.json);
    return ExitCode::NotReady;
  }
  const ConfiguredFolder folder = LookAtConfiguredFolder();
  if (folder.error) {
    Report(ProblemOf(*folder.error), options.json);
    return folder.error->exitCode;
  }
  const ImageReport report = ReportOn(folder, options.digests);
  const auto problem = ProblemOf(report);
  if (!options.json) {
    std::cout << ImagesText(report, TextColumns(::GetStdHandle(STD_OUTPUT_HANDLE))) << std::flush;
  } else if (!problem) {
    PrintJson(AsJson(report));
  }
  if (problem) Report(*problem, options.json, AsJson(report));
  return problem ? ExitCode::NotReady : ExitCode::Success;
}

}  // namespace hosts
