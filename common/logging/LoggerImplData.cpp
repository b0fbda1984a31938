#include "common/logging/LoggerImplData.h"

#include <syslog.h>

namespace Common {
namespace Logging {

LoggerImplData::LoggerImplData(const std::string& componentName)
    : debugStream(LOG_DEBUG, componentName), infoStream(LOG_INFO, componentName),
      warnStream(LOG_WARNING, componentName), errorStream(LOG_ERR, componentName),
      fatalStream(LOG_CRIT, componentName)
{
}

} // namespace Logging
} // namespace Common
