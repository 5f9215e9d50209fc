#include "download/firmwaredownloader.h"
CFirmwareDownloader::~CFirmwareDownloader() = default;
