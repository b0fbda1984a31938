// The exception type of the system's own code: a failed system call (class,
// method, call and errno) or a broken precondition (class, method and a text).
// The message is complete once constructed; catchers only read or print it.
#pragma once

#include <exception>
#include <ostream>
#include <string>

namespace Common {
namespace Exceptions {

class RavoException : public std::exception {
public:
    // "Class::method(): The call to call() returns the error: N (text)"
    RavoException(const std::string& className, const std::string& method, const std::string& call,
                  int errorNumber);
    // "Class::method(): text", error number 0
    RavoException(const std::string& className, const std::string& method, const std::string& text);
    explicit RavoException(const std::string& text);

    RavoException(const RavoException& other) = default;
    RavoException& operator=(const RavoException& other) = default;
    ~RavoException() override = default;

    const char* what() const noexcept override;
    // Writes Exception: "<what()>" without a line end.
    virtual void print(std::ostream& stream) const;

    // The errno of the failed call, 0 when the exception reports no call.
    int errorNumber() const { return number; }

private:
    std::string message;
    int number;
};

std::ostream& operator<<(std::ostream& stream, const RavoException& exception);

} // namespace Exceptions
} // namespace Common
