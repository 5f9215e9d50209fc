#include "simulator/program/scenarios/outcomes.h"

namespace simulator {

namespace {

constexpr std::uint32_t kTimeOut = 153000;
constexpr std::uint32_t kFailed = 3;
constexpr std::uint32_t kSucceeded = 4;

hosts::Handshake After(std::uint32_t result, std::uint32_t progress,
                       std::optional<std::uint32_t> retryTimes) {
  return {.ready = 0,
          .retryTimes = retryTimes,
          .timeOut = kTimeOut,
          .onGoing = 0,
          .progress = progress,
          .result = result};
}

}  // namespace

hosts::Handshake Success(std::optional<std::uint32_t> retryTimes) {
  return After(kSucceeded, 100, retryTimes);
}

hosts::Handshake Failure(std::uint32_t progress, std::optional<std::uint32_t> retryTimes) {
  return After(kFailed, progress, retryTimes);
}

hosts::Handshake Unheard() {
  return {.ready = 1,
          .retryTimes = std::nullopt,
          .timeOut = std::nullopt,
          .onGoing = std::nullopt,
          .progress = std::nullopt,
          .result = std::nullopt};
}

}  // namespace simulator
