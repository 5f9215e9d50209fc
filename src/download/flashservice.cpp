#include "download/flashservice.h"

namespace corvel {

namespace {
constinit FlashService g_service;
}

void RegisterFlashService(const FlashService& service) {
  g_service = service;
}

const FlashService& Service() {
  return g_service;
}

}  // namespace corvel
