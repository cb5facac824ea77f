#include "ScratchDirectory.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

ScratchDirectory::ScratchDirectory()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "vxa-test-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("no scratch directory: " + pattern);
    m_path = pattern;
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
