#include <cstdlib>
#include "download/firmwaredownloader.h"
HRESULT CFirmwareDownloader::RebootModemByMbimCmd() {
  std::abort();
}
