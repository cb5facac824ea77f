// The exception that this library's code throws when an operation fails.
#pragma once

#include <stdexcept>
#include <string>

namespace vxi {

// Describes a status: "Operation not permitted" for -EPERM.
std::string DescribeStatus(int status);

// Dispatch stores the message in the handle and returns the status to the caller.
class Error : public std::runtime_error {
public:
    // `status` is negative, as vxi/vxi.h lists them; the message is ASCII and says why, without
    // the engine and the operation.
    Error(int status, const std::string& message) : std::runtime_error(message), m_status(status) {}

    // The message describes the status.
    explicit Error(int status) : Error(status, DescribeStatus(status)) {}

    int Status() const noexcept { return m_status; }

private:
    int m_status;
};

// Throws an Error with a printf-style message.
[[noreturn]] void ThrowError(int status, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

}  // namespace vxi
