// What the service shows, in windows of several widths. The files of tests/data/service hold what it looks
// like.

#include "hosts/service/service_text.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/hosts/kept_text.h"

namespace hosts {

namespace {

class ServiceTextTest : public testing::TestWithParam<std::size_t> {};

TEST_P(ServiceTextTest, Status) {
  const ServiceState running{.installed = true, .state = SERVICE_RUNNING, .processId = 41208};
  ExpectAsKept("service/status",
               ServiceStatusText(running, "cut short while flashing: no host runs", GetParam()), GetParam());
}

TEST_P(ServiceTextTest, StatusOfNone) {
  ExpectAsKept("service/status_none", ServiceStatusText({}, "unknown", GetParam()), GetParam());
}

INSTANTIATE_TEST_SUITE_P(Columns, ServiceTextTest, testing::Values(40, 80, 120));

}  // namespace

}  // namespace hosts
