#include "common/exceptions/RavoException.h"

#include <cstring>
#include <sstream>

namespace Common {
namespace Exceptions {

RavoException::RavoException(const std::string& className, const std::string& method,
                             const std::string& call, int errorNumber)
    : message(), number(errorNumber)
{
    // GNU strerror_r: the text may be a static string rather than the buffer.
    char buffer[128];
    const char* text = strerror_r(errorNumber, buffer, sizeof(buffer));

    std::ostringstream stream;
    stream << className << "::" << method << "(): The call to " << call
           << "() returns the error: " << errorNumber << " (";
    if (text != nullptr) {
        stream << text;
    }
    stream << ")";
    message = stream.str();
}

RavoException::RavoException(const std::string& className, const std::string& method,
                             const std::string& text)
    : message(className + "::" + method + "(): " + text), number(0)
{
}

RavoException::RavoException(const std::string& text) : message(text), number(0) {}

const char* RavoException::what() const noexcept
{
    return message.c_str();
}

void RavoException::print(std::ostream& stream) const
{
    // Through the virtual what(), so that a derived class's text is printed.
    const char* text = what();
    stream << "Exception: \"";
    if (text != nullptr) {
        stream << text;
    }
    stream << '"';
    if (text == nullptr) {
        stream.setstate(std::ios::badbit);
    }
}

std::ostream& operator<<(std::ostream& stream, const RavoException& exception)
{
    exception.print(stream);
    return stream;
}

} // namespace Exceptions
} // namespace Common
