// Attribute access must stay inside whatever contains the attribute.
#include "engines/linux/Netlink.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "Message.h"

namespace {

constexpr uint16_t number = 1, nest = 2, text = 3;

Message Sample()
{
    return Message::Compose([](nlmsghdr* header) {
        mnl_attr_put_u32(header, number, 0x01020304);
        nlattr* outer = mnl_attr_nest_start(header, nest);
        mnl_attr_put_u64(header, number, 0x0102030405060708);
        mnl_attr_nest_end(header, outer);
        mnl_attr_put_str(header, text, "ends without NUL");
    });
}

TEST(Attributes, AreFoundAtBothLevels)
{
    const Message message = Sample();
    const vxi::Attributes attributes(message.header(), 0);
    EXPECT_EQ(vxi::be32_of(attributes.find(number)), 0x04030201u);
    ASSERT_NE(attributes.find(nest), nullptr);
    const vxi::Attributes inner(*attributes.find(nest));
    EXPECT_EQ(vxi::be64_of(inner.find(number)), 0x0807060504030201u);
    EXPECT_EQ(vxi::text_of(attributes.find(text)), "ends without NUL");
    EXPECT_EQ(attributes.find(4), nullptr);
}

TEST(Attributes, OfTheWrongSizeHaveNoValue)
{
    const Message message = Sample();
    const vxi::Attributes attributes(message.header(), 0);
    EXPECT_FALSE(vxi::be64_of(attributes.find(number)));
    EXPECT_FALSE(vxi::be32_of(attributes.find(text)));
    EXPECT_FALSE(vxi::be32_of(nullptr));
    EXPECT_EQ(vxi::text_of(nullptr), "");
}

void Walk(const Message& message, size_t header_size)
{
    const vxi::Attributes outer(message.header(), header_size);
    size_t seen = 0;
    for (const nlattr& attribute : outer) {
        for (const nlattr& inner : vxi::Attributes(attribute)) {
            seen += vxi::be64_of(&inner).has_value();
        }
        seen += vxi::text_of(&attribute).size() + vxi::be32_of(&attribute).has_value();
        ASSERT_LE(seen, message.size());
    }
}

// Nothing is read outside the message, whatever its lengths say: cut anywhere, and with
// any byte at any place.
TEST(Attributes, StayInsideDamagedMessages)
{
    const Message whole = Sample();
    for (size_t size = sizeof(nlmsghdr); size <= whole.size(); ++size) {
        for (const size_t header_size : {0, 4, 60, 4096}) {
            Walk(whole.Cut(size), header_size);
        }
    }
    for (size_t at = sizeof(nlmsghdr); at < whole.size(); ++at) {
        for (unsigned byte = 0; byte < 256; ++byte) {
            const Message damaged = whole.Cut(whole.size());
            damaged.bytes()[at] = static_cast<char>(byte);
            Walk(damaged, 0);
        }
    }
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
