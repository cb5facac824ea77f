// What the objects of a program take from malloc and calloc and give to free themselves.
//
// Only of programs linked with the library "block_watch", whose linker options put it
// between them and the C library; what shared libraries do is not seen.
#pragma once

#include <cstddef>
#include <vector>

namespace blocks {

struct Block {
    std::size_t size;
    int freed;  // how often
    const void* at;
};

// From now on allocations are listed. The one at position `refused` fails; -1: none.
void Watch(int refused = -1);

// The allocations since Watch, refused ones with no address; ends the watch.
std::vector<Block> Taken();

}  // namespace blocks
