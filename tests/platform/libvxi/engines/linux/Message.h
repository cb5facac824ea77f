// A kernel answer in a heap block of exactly its size, so that a sanitizer sees every read
// beyond it.
#pragma once

#include <libmnl/libmnl.h>

#include <cstring>
#include <functional>
#include <memory>

class Message {
public:
    explicit Message(size_t size) : size_(size), bytes_(new char[size]) {}

    // Composed by `put`, which gets the header.
    static Message Compose(const std::function<void(nlmsghdr*)>& put)
    {
        alignas(nlmsghdr) char buffer[1024] = {};
        nlmsghdr* header = mnl_nlmsg_put_header(buffer);
        put(header);
        Message message(header->nlmsg_len);
        memcpy(message.bytes(), buffer, message.size());
        return message;
    }

    // The first `size` bytes, whose header says so.
    Message Cut(size_t size) const
    {
        Message cut(size);
        memcpy(cut.bytes(), bytes(), size);
        cut.header().nlmsg_len = static_cast<uint32_t>(size);
        return cut;
    }

    nlmsghdr& header() const { return *reinterpret_cast<nlmsghdr*>(bytes_.get()); }
    char* bytes() const { return bytes_.get(); }
    size_t size() const { return size_; }

private:
    size_t size_;
    std::unique_ptr<char[]> bytes_;
};
