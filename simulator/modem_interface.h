#pragma once

#include <cstdint>

namespace simulator {

/// The wire between the simulated flashing library and the virtual PC that it runs in: the virtual PC hands
/// this table to the library right after loading it. Plain C types only, since the two are separate modules.
extern "C" {

struct ModemItem {
  std::uint32_t memoryClass;
  std::uint32_t flashOffset;
  std::uint32_t size;
  std::uint32_t crc32;
};

/// Results of the functions: 1 = done, 0 = refused, unless stated otherwise.
struct ModemInterface {
  std::uint32_t size;  ///< of this structure

  /// Called first by every export. The virtual PC may hold the call back, and may decide its answer.
  /// `argument` is the parameter id or item index, -1 when there is none; `detail` is for the journal.
  /// @return 1 when the call ends at once with `*result`.
  std::int32_t (*beginCall)(const char* function, std::int32_t argument, const char* detail,
                            std::int32_t* result);
  /// @return a session, 0 when the port is not there or refuses.
  std::uint32_t (*openPort)(const char* path);
  void (*closePort)(std::uint32_t session);
  std::int32_t (*boot)(std::uint32_t session, const std::uint8_t* header, std::uint32_t size);
  std::int32_t (*beginItem)(std::uint32_t session, const ModemItem* item);
  std::int32_t (*writeBlock)(std::uint32_t session, const std::uint8_t* bytes, std::uint32_t size);
  std::int32_t (*endItem)(std::uint32_t session);
  std::int32_t (*forceReset)(std::uint32_t session);
  /// A value of `ProgressStyle`.
  std::uint32_t (*progressStyle)();
  /// How many bytes of an item to send at a time; at least 1.
  std::uint32_t (*blockSize)();
};

/// Type of the library's seventeenth export, "SimulatorAttachModem". The table must outlive the library.
using AttachModemFunction = void (*)(const ModemInterface* modem);
}

}  // namespace simulator
