// A compressed copy of a file, made in steps.
#pragma once

#include <memory>
#include <string>

#include "files/File.h"

namespace VxaCore {

// Calls throw std::runtime_error with the path and the reason.
class GzipCopy {
public:
    // `source` becomes `path`, with the same mode and group; where the group is not allowed, only
    // its owner can access it.
    GzipCopy(File source, const std::string& path);
    ~GzipCopy();
    GzipCopy(const GzipCopy&) = delete;
    GzipCopy& operator=(const GzipCopy&) = delete;

    // Copies some megabytes; returns false when the copy is complete and on the disk under its
    // name.
    bool Step();

    const File& Source() const;

private:
    struct State;
    std::unique_ptr<State> m_state;
};

}  // namespace VxaCore
