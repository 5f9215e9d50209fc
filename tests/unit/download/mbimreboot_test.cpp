#include "download/mbimreboot.h"
