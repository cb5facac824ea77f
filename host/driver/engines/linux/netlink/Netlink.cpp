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

constexpr std::size_t kBufferSize =
    64 * 1024;  // the kernel fills up to 32 KiB a datagram of a dump
constexpr unsigned kDatagramsMax = 65536;
constexpr unsigned kRetriesMax = 5;
constexpr int kMore = 1;  // an answer that is not finished; finished ones are 0 or negative

// The kernel answers while it works on the request, so this only ends a wait for
// something that will not come.
constexpr timeval kAnswerWait = {2, 0};

int ErrorOf(const nlmsghdr& message)
{
    if (message.nlmsg_len < mnl_nlmsg_size(sizeof(nlmsgerr))) {
        return -EPROTO;
    }
    nlmsgerr report;
    memcpy(&report, mnl_nlmsg_get_payload(&message), sizeof report);
    return report.error > 0 ? -EPROTO : report.error;
}

// A dump that fails half-way says so in its last message.
int ErrorOfDone(const nlmsghdr& message)
{
    std::int32_t error = 0;
    if (message.nlmsg_len >= mnl_nlmsg_size(sizeof error)) {
        memcpy(&error, mnl_nlmsg_get_payload(&message), sizeof error);
    }
    return error < 0 ? error : 0;
}

// The answer to one request, as its messages come in.
class Answer {
public:
    Answer(std::uint32_t sequence, Netlink::Visit visit) : m_sequence(sequence), m_visit(visit) {}

    int Take(const nlmsghdr& message)
    {
        if (message.nlmsg_seq != m_sequence) {
            return kMore;
        }
        m_interrupted = m_interrupted || (message.nlmsg_flags & NLM_F_DUMP_INTR);
        switch (message.nlmsg_type) {
            case NLMSG_NOOP:
                return kMore;
            case NLMSG_ERROR:
                return ErrorOf(message);
            case NLMSG_DONE:
                return ErrorOfDone(message);
            case NLMSG_OVERRUN:
                return -ENOBUFS;
            default:
                Show(message);
                return m_visited == -ECANCELED ? -ECANCELED : kMore;
        }
    }

    int Status() const { return m_interrupted ? -EINTR : m_visited; }

private:
    void Show(const nlmsghdr& message)
    {
        try {
            m_visited = m_visited < 0 ? m_visited : m_visit(message);
        } catch (const std::exception&) {
            m_visited = -ENOMEM;  // what visitors can run out of
        }
    }

    std::uint32_t m_sequence;
    Netlink::Visit m_visit;
    bool m_interrupted = false;
    int m_visited = 0;
};

int Configure(int descriptor)
{
    const int on = 1;
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    if (setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &kAnswerWait, sizeof kAnswerWait) < 0 ||
        bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0)
        return -errno;
    // Acknowledgements without a copy of the request; kernels that lack it copy.
    setsockopt(descriptor, SOL_NETLINK, NETLINK_CAP_ACK, &on, sizeof on);
    return 0;
}

}  // namespace

int Netlink::Open(int protocol)
{
    Close();
    // Message ends are rounded up to 4 bytes.
    if (!m_buffer) {
        m_buffer = std::make_unique<char[]>(kBufferSize + NLMSG_ALIGNTO);
    }
    const int descriptor = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol);
    if (descriptor < 0) {
        return -errno;
    }
    const int status = Configure(descriptor);
    if (status < 0) {
        ::close(descriptor);
    } else {
        m_descriptor = descriptor;
    }
    return status;
}

void Netlink::Close()
{
    // Taken away first: the child of a fork must not close a number that has since been
    // given to another file.
    const int descriptor = m_descriptor.exchange(-1);
    if (descriptor >= 0) {
        ::close(descriptor);
    }
}

int Netlink::send(const void* data, std::size_t size)
{
    sockaddr_nl kernel = {};
    kernel.nl_family = AF_NETLINK;
    return RetryInterrupted([&] {
        const ssize_t sent = sendto(m_descriptor, data, size, 0,
                                    reinterpret_cast<sockaddr*>(&kernel), sizeof kernel);
        if (sent < 0) {
            return -errno;
        }
        return static_cast<std::size_t>(sent) == size ? 0 : -EMSGSIZE;
    });
}

// One datagram into the buffer: its size, 0 for one that did not come from the kernel, or
// a negated errno.
std::ptrdiff_t Netlink::Receive()
{
    sockaddr_nl sender = {};
    socklen_t sender_size = sizeof sender;
    ssize_t size = 0;
    const int status = RetryInterrupted([&] {
        size = recvfrom(m_descriptor, m_buffer.get(), kBufferSize, MSG_TRUNC,
                        reinterpret_cast<sockaddr*>(&sender), &sender_size);
        return size < 0 ? -errno : 0;
    });
    if (status == -EAGAIN) {
        return -ETIMEDOUT;
    }
    if (status < 0) {
        return status;
    }
    if (static_cast<std::size_t>(size) > kBufferSize) {
        return -EMSGSIZE;
    }
    const bool from_kernel = sender_size == sizeof sender && sender.nl_pid == 0;
    return from_kernel ? size : 0;
}

// Hands every message that arrives to `take` until it returns something else than `more`.
int Netlink::Collect(Visit take)
{
    int failed = -EOVERFLOW;
    for (unsigned datagrams = 0; datagrams < kDatagramsMax; ++datagrams) {
        const std::ptrdiff_t received = Receive();
        if (received < 0) {
            failed = static_cast<int>(received);
            break;
        }
        int rest = static_cast<int>(received);
        auto* message = reinterpret_cast<const nlmsghdr*>(m_buffer.get());
        for (; mnl_nlmsg_ok(message, rest); message = mnl_nlmsg_next(message, &rest)) {
            const int status = take(*message);
            if (status != kMore) {
                return status;
            }
        }
    }
    Close();
    return failed;
}

int Netlink::Request(nlmsghdr& message, Visit visit)
{
    message.nlmsg_seq = NextSequence();
    Answer answer(message.nlmsg_seq, visit);
    int status = send(&message, message.nlmsg_len);
    if (status == 0) {
        status = Collect([&](const nlmsghdr& part) { return answer.Take(part); });
    }
    if (status == -ECANCELED) {
        Close();
    }
    return status < 0 ? status : answer.Status();
}

Netlink::BatchResult Netlink::Transact(const void* messages, std::size_t size, std::uint32_t first,
                                       std::uint32_t last)
{
    BatchResult result;
    const auto take = [&](const nlmsghdr& part) {
        const std::uint32_t sequence = part.nlmsg_seq;
        if (part.nlmsg_type != NLMSG_ERROR || sequence - first > last - first) {
            return kMore;
        }
        const int status = ErrorOf(part);
        if (status < 0 && result.status == 0) {
            result = {status, sequence};
        }
        // A failure of the first message stands for the whole batch and may be the only
        // answer.
        return sequence == last || (sequence == first && status < 0) ? 0 : kMore;
    };
    int status = send(messages, size);
    if (status == 0) {
        status = Collect(take);
    }
    if (status < 0) {
        result = {status, first};
    }
    if (result.status < 0) {
        Close();
    }
    return result;
}

int RetryInterrupted(FunctionRef<int()> attempt)
{
    int status = attempt();
    for (unsigned retries = 0; status == -EINTR && retries < kRetriesMax; ++retries) {
        status = attempt();
    }
    return status;
}

Attributes::Attributes(const nlmsghdr& message, std::size_t header_size)
    : m_first(reinterpret_cast<const char*>(&message)), m_size(0)
{
    const std::size_t before = NLMSG_HDRLEN + NLMSG_ALIGN(header_size);
    if (message.nlmsg_len > before) {
        m_first += before;
        m_size = message.nlmsg_len - before;
    }
}

Attributes::Attributes(const nlattr& outer)
    : m_first(static_cast<const char*>(mnl_attr_get_payload(&outer))),
      m_size(mnl_attr_get_payload_len(&outer))
{
}

const nlattr* Attributes::Find(std::uint16_t type) const
{
    for (const nlattr& attribute : *this) {
        if (mnl_attr_get_type(&attribute) == type) {
            return &attribute;
        }
    }
    return nullptr;
}

Attributes::Iterator::Iterator(const char* at, std::size_t rest) : m_at(at), m_rest(rest)
{
    const bool fits = m_at && m_rest >= NLA_HDRLEN && (**this).nla_len >= NLA_HDRLEN &&
                      (**this).nla_len <= m_rest;
    if (!fits) {
        m_at = nullptr;
    }
}

Attributes::Iterator& Attributes::Iterator::operator++()
{
    const std::size_t size = NLA_ALIGN((**this).nla_len);
    return *this = size < m_rest ? Iterator(m_at + size, m_rest - size) : Iterator(nullptr, 0);
}

std::optional<std::uint32_t> Be32Of(const nlattr* attribute)
{
    std::uint32_t value;
    if (!attribute || mnl_attr_get_payload_len(attribute) != sizeof value) {
        return {};
    }
    memcpy(&value, mnl_attr_get_payload(attribute), sizeof value);
    return be32toh(value);
}

std::optional<std::uint64_t> Be64Of(const nlattr* attribute)
{
    std::uint64_t value;
    if (!attribute || mnl_attr_get_payload_len(attribute) != sizeof value) {
        return {};
    }
    memcpy(&value, mnl_attr_get_payload(attribute), sizeof value);
    return be64toh(value);
}

std::string_view TextOf(const nlattr* attribute)
{
    if (!attribute) {
        return {};
    }
    auto* text = static_cast<const char*>(mnl_attr_get_payload(attribute));
    return {text, strnlen(text, mnl_attr_get_payload_len(attribute))};
}

}  // namespace vxi
