// A directory of its own for each test, removed afterwards; files as texts.
#pragma once

#include <string>

class ScratchDirectory {
public:
    ScratchDirectory();
    ~ScratchDirectory();
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    std::string Path(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

std::string ReadText(const std::string& path);  // empty when it cannot be read
void WriteText(const std::string& path, const std::string& text);
