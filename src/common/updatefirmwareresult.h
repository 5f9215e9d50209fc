#pragma once

/// Outcome of one download attempt. Only FirmwareUpdated is a success.
enum UpdateFirmwareResult {
  FirmwareNotUpdated = 0,    ///< The images could not be marked for download; nothing was written.
  FirmwareUpdated = 1,       ///< Download and target reset succeeded.
  FirmwareUpdateFailed = 5,  ///< Writing, or the forced target reset, failed.
};
