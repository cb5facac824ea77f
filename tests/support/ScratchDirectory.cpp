// The scratch directory; see ScratchDirectory.h.
#include "ScratchDirectory.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

ScratchDirectory::ScratchDirectory()
{
    const char* const parent = std::getenv("TMPDIR");
    m_path = std::string(parent && parent[0] != '\0' ? parent : "/tmp") + "/fc-test-XXXXXX";
    if (mkdtemp(m_path.data())) return;
    std::fprintf(stderr, "TMPDIR: cannot make %s: %s\n", m_path.c_str(), std::strerror(errno));
    std::exit(1);
}

ScratchDirectory::~ScratchDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string ReadText(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void WriteText(const std::string& path, const std::string& text)
{
    std::ofstream file(path, std::ios::binary);
    file << text;
    if (!file.flush()) throw std::runtime_error("cannot write " + path);
}
