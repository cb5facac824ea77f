// How an inner function of the engine reports: a status and, for a failure, its text.
#pragma once

#include <string>

namespace vxi {

struct Outcome {
    int status = 0;    // 0, or a negated errno
    std::string text;  // for a failure: the cause, pure ASCII, without engine and operation

    bool Failed() const { return status != 0; }
};

// printf-style text; returns by value so that an error path is one line.
Outcome Failure(int status, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace vxi
