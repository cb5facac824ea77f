// Kernel answers made to order, each in a heap block of exactly its size, so that a sanitizer sees
// every read beyond it.
#pragma once

#include <libmnl/libmnl.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

class Message {
public:
    explicit Message(const std::string& bytes) : size_(bytes.size()), bytes_(new char[size_])
    {
        memcpy(bytes_.get(), bytes.data(), size_);
        header().nlmsg_len = static_cast<uint32_t>(size_);
    }

    // The first `size` bytes, whose header says so.
    Message Cut(size_t size) const { return Message({bytes_.get(), size}); }

    nlmsghdr& header() const { return *reinterpret_cast<nlmsghdr*>(bytes_.get()); }
    char* bytes() const { return bytes_.get(); }
    size_t size() const { return size_; }

private:
    size_t size_;
    std::unique_ptr<char[]> bytes_;
};

template <class Plain>
std::string BytesOf(const Plain& plain)
{
    return {reinterpret_cast<const char*>(&plain), sizeof plain};
}

// An attribute with bytes, or with others in it.
struct Attribute {
    uint16_t type;
    std::string bytes;
    std::vector<Attribute> nested = {};
};
using AttributeList = std::vector<Attribute>;

inline Attribute Nest(uint16_t type, AttributeList nested)
{
    return {type, "", std::move(nested)};
}

inline std::string Serialize(const AttributeList& attributes)
{
    std::string all;
    for (const Attribute& each : attributes) {
        std::string body = each.bytes + Serialize(each.nested);
        all += BytesOf(nlattr{static_cast<uint16_t>(MNL_ATTR_HDRLEN + body.size()), each.type});
        body.resize(MNL_ALIGN(body.size()));
        all += body;
    }
    return all;
}

// `head` is what stands between the netlink header and the attributes.
inline Message Compose(uint16_t type, const std::string& head, const AttributeList& attributes)
{
    nlmsghdr header = {};
    header.nlmsg_type = type;
    return Message(BytesOf(header) + head + Serialize(attributes));
}

// The attribute that a path of types leads to gets another size, or goes away with -1.
inline AttributeList Resized(AttributeList attributes, const std::vector<uint16_t>& path, int size)
{
    AttributeList* level = &attributes;
    for (size_t depth = 0;; ++depth) {
        auto at = level->begin();
        while (at->type != path[depth]) {
            ++at;
        }
        if (depth + 1 < path.size()) {
            level = &at->nested;
            continue;
        }
        if (size < 0) {
            level->erase(at);
        } else {
            at->bytes.resize(static_cast<size_t>(size));
        }
        return attributes;
    }
}
