#include "Address.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

namespace {

std::string written(const std::uint8_t (&address)[16], std::uint8_t family)
{
    char text[vxi::address_text_size];
    return {text, vxi::put_address(text, address, family)};
}

TEST(Address, AsRecommended)
{
    const struct {
        int family;
        const char* text;
    } cases[] = {
        {4, "0.0.0.0"},
        {4, "255.255.255.255"},
        {4, "10.9.99.100"},
        {6, "::"},
        {6, "::1"},
        {6, "1::"},
        {6, "2001:db8::1"},
        {6, "2001:db8:0:1:1:1:1:1"},  // one zero group is not shortened
        {6, "2001:0:0:1::1"},         // the longest run is
        {6, "2001:db8::1:0:0:1"},     // the first of two equals is
        {6, "0:1:2:3:4:5:6:7"},
        {6, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
        {6, "::ffff:192.0.2.128"},
    };
    for (const auto& each : cases) {
        std::uint8_t address[16] = {};
        ASSERT_EQ(1, inet_pton(each.family == 4 ? AF_INET : AF_INET6, each.text, address));
        EXPECT_EQ(each.text, written(address, static_cast<std::uint8_t>(each.family)));
    }
    EXPECT_EQ("?", written({}, 0));
    EXPECT_EQ("?", written({}, 255));
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
