#include "engines/linux/Netlink.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "Message.h"

namespace {

constexpr uint16_t number = 1, nest = 2, text = 3;

TEST(Attributes, AreFoundAtBothLevelsAndHaveAValueOfTheirSizeOnly)
{
    const Message message = Compose(0, "",
                                    {{number, BytesOf(htobe32(7))},
                                     Nest(nest, {{number, BytesOf(htobe64(8))}}),
                                     {text, "ends without NUL"}});
    const vxi::Attributes attributes(message.header(), 0);
    EXPECT_EQ(vxi::be32_of(attributes.find(number)), 7u);
    ASSERT_NE(attributes.find(nest), nullptr);
    EXPECT_EQ(vxi::be64_of(vxi::Attributes(*attributes.find(nest)).find(number)), 8u);
    EXPECT_EQ(vxi::text_of(attributes.find(text)), "ends without NUL");
    EXPECT_EQ(attributes.find(4), nullptr);
    EXPECT_FALSE(vxi::be64_of(attributes.find(number)));
    EXPECT_FALSE(vxi::be32_of(attributes.find(text)));
    EXPECT_FALSE(vxi::be32_of(nullptr));
    EXPECT_EQ(vxi::text_of(nullptr), "");
}

TEST(RetryInterrupted, GivesUpAfterFiveRetries)
{
    int calls = 0;
    EXPECT_EQ(vxi::retry_interrupted([&] { return ++calls, -EINTR; }), -EINTR);
    EXPECT_EQ(calls, 6);
    calls = 0;
    EXPECT_EQ(vxi::retry_interrupted([&] { return ++calls < 3 ? -EINTR : -ENOENT; }), -ENOENT);
    EXPECT_EQ(calls, 3);
}

}  // namespace
