#include "Address.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <random>
#include <string>

namespace {

std::string written(const std::uint8_t (&address)[16], std::uint8_t family)
{
    char text[vxi::address_text_size];
    return {text, vxi::put_address(text, address, family)};
}

TEST(Address, OfSpecialKinds)
{
    for (const char* text : {"::", "::1", "::ffff:192.0.2.128"}) {
        std::uint8_t address[16] = {};
        ASSERT_EQ(1, inet_pton(AF_INET6, text, address));
        EXPECT_EQ(text, written(address, 6));
    }
    EXPECT_EQ("?", written({}, 0));
}

TEST(Address, LikeTheLibraryOnRandomOnes)
{
    std::mt19937 random(1);
    for (int round = 0; round < 100000; ++round) {
        std::uint8_t address[16];
        for (unsigned i = 0; i < 16; i += 2) {
            const unsigned group = random() % 3 ? 0 : random() >> random() % 16;
            address[i] = static_cast<std::uint8_t>(group >> 8);
            address[i + 1] = static_cast<std::uint8_t>(group);
        }
        address[0] |= 1;  // the library writes IPv4-compatible addresses its own way
        char expected[INET6_ADDRSTRLEN];
        ASSERT_TRUE(inet_ntop(AF_INET6, address, expected, sizeof expected));
        ASSERT_EQ(expected, written(address, 6));
        ASSERT_TRUE(inet_ntop(AF_INET, address, expected, sizeof expected));
        ASSERT_EQ(expected, written(address, 4));
    }
}

}  // namespace
