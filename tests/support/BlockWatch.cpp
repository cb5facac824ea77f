#include "BlockWatch.h"

#include <array>
#include <cstdlib>

// Names that the linker gives to the C library's functions and to ours.
extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void __real_free(void* block);
void* __wrap_malloc(std::size_t size);
void* __wrap_calloc(std::size_t count, std::size_t size);
void __wrap_free(void* block);
}

namespace blocks {
namespace {

std::array<Block, 64> s_blocks;
std::size_t s_count = 0;
bool s_watching = false;
int s_refused = -1;

bool IsRefused()
{
    return s_watching && static_cast<int>(s_count) == s_refused;
}

void* Note(void* block, std::size_t size)
{
    if (s_watching && s_count < s_blocks.size()) s_blocks[s_count++] = {size, 0, block};
    return block;
}

// The newest block at that place is the one meant.
void NoteFreed(const void* block)
{
    if (!s_watching || block == nullptr) return;
    for (std::size_t i = s_count; i-- > 0;)
        if (s_blocks[i].at == block) {
            ++s_blocks[i].freed;
            return;
        }
}

}  // namespace

void Watch(int refused)
{
    s_count = 0;
    s_refused = refused;
    s_watching = true;
}

std::vector<Block> Taken()
{
    s_watching = false;
    return {s_blocks.begin(), s_blocks.begin() + static_cast<std::ptrdiff_t>(s_count)};
}

}  // namespace blocks

void* __wrap_malloc(std::size_t size)
{
    return blocks::Note(blocks::IsRefused() ? nullptr : __real_malloc(size), size);
}

void* __wrap_calloc(std::size_t count, std::size_t size)
{
    return blocks::Note(blocks::IsRefused() ? nullptr : __real_calloc(count, size), count * size);
}

void __wrap_free(void* block)
{
    blocks::NoteFreed(block);
    __real_free(block);
}
