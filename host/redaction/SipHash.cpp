// Computes SipHash.
#include "redaction/SipHash.h"

#include <sys/random.h>

#include <cerrno>
#include <system_error>

namespace vxa::redaction {

namespace {

std::uint64_t RotateLeft(std::uint64_t word, unsigned bits)
{
    return word << bits | word >> (64 - bits);
}

struct State {
    std::uint64_t v0, v1, v2, v3;

    void Round()
    {
        v0 += v1;
        v1 = RotateLeft(v1, 13) ^ v0;
        v0 = RotateLeft(v0, 32);
        v2 += v3;
        v3 = RotateLeft(v3, 16) ^ v2;
        v0 += v3;
        v3 = RotateLeft(v3, 21) ^ v0;
        v2 += v1;
        v1 = RotateLeft(v1, 17) ^ v2;
        v2 = RotateLeft(v2, 32);
    }

    void Compress(std::uint64_t word)
    {
        v3 ^= word;
        Round();
        Round();
        v0 ^= word;
    }
};

// The last word also has the length of the whole message in its highest byte.
std::uint64_t LittleEndian(std::string_view bytes)
{
    std::uint64_t word = 0;
    for (std::size_t i = bytes.size(); i-- > 0;)
        word = word << 8 | static_cast<unsigned char>(bytes[i]);
    return word;
}

}  // namespace

Key RandomKey()
{
    Key key;
    ssize_t got;
    do got = getrandom(key.data(), sizeof key, 0);
    while (got < 0 && errno == EINTR);
    if (got != ssize_t{sizeof key})
        throw std::system_error(errno, std::generic_category(), "cannot get a random key");
    return key;
}

std::uint64_t SipHash(const Key& key, std::string_view message)
{
    State state = {key[0] ^ 0x736f6d6570736575, key[1] ^ 0x646f72616e646f6d,
                   key[0] ^ 0x6c7967656e657261, key[1] ^ 0x7465646279746573};
    const std::uint64_t length = message.size();
    for (; message.size() >= 8; message.remove_prefix(8))
        state.Compress(LittleEndian(message.substr(0, 8)));
    state.Compress(LittleEndian(message) | length << 56);
    state.v2 ^= 0xff;
    for (int round = 0; round < 4; ++round) state.Round();
    return state.v0 ^ state.v1 ^ state.v2 ^ state.v3;
}

}  // namespace vxa::redaction
