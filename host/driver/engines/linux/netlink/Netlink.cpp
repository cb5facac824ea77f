#include "engines/linux/netlink/Netlink.h"

#include <endian.h>
#include <libmnl/libmnl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>

namespace vxi {

namespace {

constexpr size_t buffer_size = 64 * 1024;  // the kernel fills up to 32 KiB a datagram of a dump
constexpr unsigned datagrams_max = 65536;
constexpr unsigned retries_max = 5;
constexpr int more = 1;  // an answer that is not finished; finished ones are 0 or negative

// The kernel answers while it works on the request, so this only ends a wait for
// something that will not come.
constexpr timeval answer_wait = {2, 0};

int error_of(const nlmsghdr& message)
{
    if (message.nlmsg_len < mnl_nlmsg_size(sizeof(nlmsgerr))) {
        return -EPROTO;
    }
    nlmsgerr report;
    memcpy(&report, mnl_nlmsg_get_payload(&message), sizeof report);
    return report.error > 0 ? -EPROTO : report.error;
}

// A dump that fails half-way says so in its last message.
int error_of_done(const nlmsghdr& message)
{
    int32_t error = 0;
    if (message.nlmsg_len >= mnl_nlmsg_size(sizeof error)) {
        memcpy(&error, mnl_nlmsg_get_payload(&message), sizeof error);
    }
    return error < 0 ? error : 0;
}

// The answer to one request, as its messages come in.
class Answer {
public:
    Answer(uint32_t sequence, Netlink::Visit visit) : sequence_(sequence), visit_(visit) {}

    int take(const nlmsghdr& message)
    {
        if (message.nlmsg_seq != sequence_) {
            return more;
        }
        interrupted_ = interrupted_ || (message.nlmsg_flags & NLM_F_DUMP_INTR);
        switch (message.nlmsg_type) {
            case NLMSG_NOOP:
                return more;
            case NLMSG_ERROR:
                return error_of(message);
            case NLMSG_DONE:
                return error_of_done(message);
            case NLMSG_OVERRUN:
                return -ENOBUFS;
            default:
                show(message);
                return visited_ == -ECANCELED ? -ECANCELED : more;
        }
    }

    int status() const { return interrupted_ ? -EINTR : visited_; }

private:
    void show(const nlmsghdr& message)
    {
        try {
            visited_ = visited_ < 0 ? visited_ : visit_(message);
        } catch (const std::exception&) {
            visited_ = -ENOMEM;  // what visitors can run out of
        }
    }

    uint32_t sequence_;
    Netlink::Visit visit_;
    bool interrupted_ = false;
    int visited_ = 0;
};

int configure(int descriptor)
{
    const int on = 1;
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    if (setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &answer_wait, sizeof answer_wait) < 0 ||
        bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0)
        return -errno;
    // Acknowledgements without a copy of the request; kernels that lack it copy.
    setsockopt(descriptor, SOL_NETLINK, NETLINK_CAP_ACK, &on, sizeof on);
    return 0;
}

}  // namespace

int Netlink::open(int protocol)
{
    close();
    // Message ends are rounded up to 4 bytes.
    if (!buffer_) {
        buffer_ = std::make_unique<char[]>(buffer_size + NLMSG_ALIGNTO);
    }
    const int descriptor = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol);
    if (descriptor < 0) {
        return -errno;
    }
    const int status = configure(descriptor);
    if (status < 0) {
        ::close(descriptor);
    } else {
        descriptor_ = descriptor;
    }
    return status;
}

void Netlink::close()
{
    // Taken away first: the child of a fork must not close a number that has since been
    // given to another file.
    const int descriptor = descriptor_.exchange(-1);
    if (descriptor >= 0) {
        ::close(descriptor);
    }
}

int Netlink::send(const void* data, size_t size)
{
    sockaddr_nl kernel = {};
    kernel.nl_family = AF_NETLINK;
    return retry_interrupted([&] {
        const ssize_t sent =
            sendto(descriptor_, data, size, 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel);
        if (sent < 0) {
            return -errno;
        }
        return static_cast<size_t>(sent) == size ? 0 : -EMSGSIZE;
    });
}

// One datagram into the buffer: its size, 0 for one that did not come from the kernel, or
// a negated errno.
ptrdiff_t Netlink::receive()
{
    sockaddr_nl sender = {};
    socklen_t sender_size = sizeof sender;
    ssize_t size = 0;
    const int status = retry_interrupted([&] {
        size = recvfrom(descriptor_, buffer_.get(), buffer_size, MSG_TRUNC,
                        reinterpret_cast<sockaddr*>(&sender), &sender_size);
        return size < 0 ? -errno : 0;
    });
    if (status == -EAGAIN) {
        return -ETIMEDOUT;
    }
    if (status < 0) {
        return status;
    }
    if (static_cast<size_t>(size) > buffer_size) {
        return -EMSGSIZE;
    }
    const bool from_kernel = sender_size == sizeof sender && sender.nl_pid == 0;
    return from_kernel ? size : 0;
}

// Hands every message that arrives to `take` until it returns something else than `more`.
int Netlink::collect(Visit take)
{
    int failed = -EOVERFLOW;
    for (unsigned datagrams = 0; datagrams < datagrams_max; ++datagrams) {
        const ptrdiff_t received = receive();
        if (received < 0) {
            failed = static_cast<int>(received);
            break;
        }
        int rest = static_cast<int>(received);
        auto* message = reinterpret_cast<const nlmsghdr*>(buffer_.get());
        for (; mnl_nlmsg_ok(message, rest); message = mnl_nlmsg_next(message, &rest)) {
            const int status = take(*message);
            if (status != more) {
                return status;
            }
        }
    }
    close();
    return failed;
}

int Netlink::request(nlmsghdr& message, Visit visit)
{
    message.nlmsg_seq = next_sequence();
    Answer answer(message.nlmsg_seq, visit);
    int status = send(&message, message.nlmsg_len);
    if (status == 0) {
        status = collect([&](const nlmsghdr& part) { return answer.take(part); });
    }
    if (status == -ECANCELED) {
        close();
    }
    return status < 0 ? status : answer.status();
}

Netlink::BatchResult Netlink::transact(const void* messages, size_t size, uint32_t first,
                                       uint32_t last)
{
    BatchResult result;
    const auto take = [&](const nlmsghdr& part) {
        const uint32_t sequence = part.nlmsg_seq;
        if (part.nlmsg_type != NLMSG_ERROR || sequence - first > last - first) {
            return more;
        }
        const int status = error_of(part);
        if (status < 0 && result.status == 0) {
            result = {status, sequence};
        }
        // A failure of the first message stands for the whole batch and may be the only
        // answer.
        return sequence == last || (sequence == first && status < 0) ? 0 : more;
    };
    int status = send(messages, size);
    if (status == 0) {
        status = collect(take);
    }
    if (status < 0) {
        result = {status, first};
    }
    if (result.status < 0) {
        close();
    }
    return result;
}

int retry_interrupted(FunctionRef<int()> attempt)
{
    int status = attempt();
    for (unsigned retries = 0; status == -EINTR && retries < retries_max; ++retries) {
        status = attempt();
    }
    return status;
}

Attributes::Attributes(const nlmsghdr& message, size_t header_size)
    : first_(reinterpret_cast<const char*>(&message)), size_(0)
{
    const size_t before = NLMSG_HDRLEN + NLMSG_ALIGN(header_size);
    if (message.nlmsg_len > before) {
        first_ += before;
        size_ = message.nlmsg_len - before;
    }
}

Attributes::Attributes(const nlattr& outer)
    : first_(static_cast<const char*>(mnl_attr_get_payload(&outer))),
      size_(mnl_attr_get_payload_len(&outer))
{
}

const nlattr* Attributes::find(uint16_t type) const
{
    for (const nlattr& attribute : *this) {
        if (mnl_attr_get_type(&attribute) == type) {
            return &attribute;
        }
    }
    return nullptr;
}

Attributes::Iterator::Iterator(const char* at, size_t rest) : at_(at), rest_(rest)
{
    const bool fits =
        at_ && rest_ >= NLA_HDRLEN && (**this).nla_len >= NLA_HDRLEN && (**this).nla_len <= rest_;
    if (!fits) {
        at_ = nullptr;
    }
}

Attributes::Iterator& Attributes::Iterator::operator++()
{
    const size_t size = NLA_ALIGN((**this).nla_len);
    return *this = size < rest_ ? Iterator(at_ + size, rest_ - size) : Iterator(nullptr, 0);
}

std::optional<uint32_t> be32_of(const nlattr* attribute)
{
    uint32_t value;
    if (!attribute || mnl_attr_get_payload_len(attribute) != sizeof value) {
        return {};
    }
    memcpy(&value, mnl_attr_get_payload(attribute), sizeof value);
    return be32toh(value);
}

std::optional<uint64_t> be64_of(const nlattr* attribute)
{
    uint64_t value;
    if (!attribute || mnl_attr_get_payload_len(attribute) != sizeof value) {
        return {};
    }
    memcpy(&value, mnl_attr_get_payload(attribute), sizeof value);
    return be64toh(value);
}

std::string_view text_of(const nlattr* attribute)
{
    if (!attribute) {
        return {};
    }
    auto* text = static_cast<const char*>(mnl_attr_get_payload(attribute));
    return {text, strnlen(text, mnl_attr_get_payload_len(attribute))};
}

}  // namespace vxi
