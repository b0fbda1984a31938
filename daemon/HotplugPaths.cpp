#include "daemon/HotplugPaths.h"

const std::string cascadingInfoFilePath = "/ravo500/devs/cascade/ravo-casc-info";
