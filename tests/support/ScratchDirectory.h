// A directory for one test, removed afterwards, and whole files as strings.
#pragma once

#include <string>

class ScratchDirectory {
public:
    ScratchDirectory();  // in TMPDIR or /tmp; ends the program with a message if that fails
    ~ScratchDirectory();
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    std::string Path(const std::string& name) const
    {
        return name.empty() || name[0] == '/' ? m_path + name : m_path + "/" + name;
    }

private:
    std::string m_path;
};

std::string ReadText(const std::string& path);  // empty if it cannot be read
void WriteText(const std::string& path, const std::string& text);
