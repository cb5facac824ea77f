// Exchanges with the kernel over netlink (netlink(7), RFC 3549).
#include "engines/linux/netlink/Netlink.h"

#include <endian.h>
#include <libmnl/libmnl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>

#include "api/Error.h"

namespace vxi {

namespace {

// The kernel fills up to 32 KiB per datagram of a dump (netlink_dump in net/netlink/af_netlink.c).
constexpr std::size_t kBufferSize = std::size_t{64} * 1024;
constexpr unsigned kDatagramsMax = 65536;
constexpr unsigned kRetriesMax = 5;

// The kernel answers while it processes the request, so this only ends a wait for an answer
// that will not come.
constexpr timeval kAnswerWait = {2, 0};

// Result of a system call that is repeated while signals interrupt it, five times at most.
template <typename Call>
std::size_t Uninterrupted(Call call)
{
    ssize_t result = call();
    for (unsigned retries = 0; result < 0 && errno == EINTR && retries < kRetriesMax; ++retries) {
        result = call();
    }
    if (result < 0) {
        throw Error(errno == EAGAIN ? -ETIMEDOUT : -errno);
    }
    return static_cast<std::size_t>(result);
}

// The status in an NLMSG_ERROR message; 0 for an acknowledgement.
int ErrorStatus(const nlmsghdr& message)
{
    if (message.nlmsg_len < mnl_nlmsg_size(sizeof(nlmsgerr))) {
        return -EPROTO;
    }
    nlmsgerr report;
    memcpy(&report, mnl_nlmsg_get_payload(&message), sizeof report);
    return report.error > 0 ? -EPROTO : report.error;
}

// The status in an NLMSG_DONE message: a dump that fails half-way reports it there.
int DoneStatus(const nlmsghdr& message)
{
    std::int32_t error = 0;
    if (message.nlmsg_len >= mnl_nlmsg_size(sizeof error)) {
        memcpy(&error, mnl_nlmsg_get_payload(&message), sizeof error);
    }
    return error < 0 ? error : 0;
}

// The answer to one request, as its messages arrive.
class Answer {
public:
    Answer(std::uint32_t sequence, Netlink::Visitor visit) : m_sequence(sequence), m_visit(visit) {}

    // Whether no more messages are to be read.
    bool Take(const nlmsghdr& message)
    {
        if (message.nlmsg_seq != m_sequence) {
            return false;
        }
        m_interrupted = m_interrupted || (message.nlmsg_flags & NLM_F_DUMP_INTR);
        switch (message.nlmsg_type) {
            case NLMSG_NOOP:
                return false;
            case NLMSG_ERROR:
                return End(ErrorStatus(message));
            case NLMSG_DONE:
                return End(DoneStatus(message));
            case NLMSG_OVERRUN:
                return End(-ENOBUFS);
            default:
                Show(message);
                return m_cancelled;
        }
    }

    bool Cancelled() const { return m_cancelled; }

    Consistency Result() const
    {
        if (m_thrown) {
            std::rethrow_exception(m_thrown);
        }
        if (m_status < 0) {
            throw Error(m_status);
        }
        return m_interrupted ? Consistency::kInterrupted : Consistency::kConsistent;
    }

private:
    bool End(int status)
    {
        m_interrupted = m_interrupted || status == -EINTR;
        m_status = status == -EINTR ? 0 : status;
        return true;
    }

    void Show(const nlmsghdr& message)
    {
        if (m_thrown) {
            return;
        }
        try {
            m_visit(message);
        } catch (const Error& error) {
            m_thrown = std::current_exception();
            m_cancelled = error.Status() == -ECANCELED;
        } catch (const std::exception&) {
            m_thrown = std::current_exception();
        }
    }

    std::uint32_t m_sequence;
    Netlink::Visitor m_visit;
    bool m_interrupted = false;
    bool m_cancelled = false;
    int m_status = 0;
    std::exception_ptr m_thrown;
};

// The answer to a batch, of which only the first refused message matters.
class BatchAnswer {
public:
    BatchAnswer(std::uint32_t first, std::uint32_t last) : m_first(first), m_last(last) {}

    // Whether no more messages are to be read.
    bool Take(const nlmsghdr& message)
    {
        const std::uint32_t sequence = message.nlmsg_seq;
        if (message.nlmsg_type != NLMSG_ERROR || sequence - m_first > m_last - m_first) {
            return false;
        }
        const int status = ErrorStatus(message);
        if (status < 0 && !m_refusal) {
            m_refusal = {status, sequence};
        }
        // A refusal of the first message applies to the whole batch and may be the only answer.
        return sequence == m_last || (sequence == m_first && status < 0);
    }

    const std::optional<Netlink::Refusal>& FirstRefusal() const { return m_refusal; }

private:
    std::uint32_t m_first;
    std::uint32_t m_last;
    std::optional<Netlink::Refusal> m_refusal;
};

void Configure(int descriptor)
{
    const int on = 1;
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    if (setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &kAnswerWait, sizeof kAnswerWait) < 0 ||
        bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0) {
        throw Error(-errno);
    }
    // Acknowledgements without a copy of the request; kernels that lack the option copy it.
    setsockopt(descriptor, SOL_NETLINK, NETLINK_CAP_ACK, &on, sizeof on);
}

}  // namespace

void Netlink::Open(int protocol)
{
    Close();
    // Message ends are rounded up to 4 bytes.
    if (!m_buffer) {
        m_buffer = std::make_unique<char[]>(kBufferSize + NLMSG_ALIGNTO);
    }
    m_descriptor = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol);
    if (!IsOpen()) {
        throw Error(-errno);
    }
    try {
        Configure(m_descriptor);
    } catch (...) {
        Close();
        throw;
    }
}

void Netlink::Close() noexcept
{
    // Cleared first: the child of a fork must not close a number that has since been reused
    // for another file.
    const int descriptor = m_descriptor.exchange(-1);
    if (descriptor >= 0) {
        ::close(descriptor);
    }
}

void Netlink::Send(const void* data, std::size_t size)
{
    sockaddr_nl kernel = {};
    kernel.nl_family = AF_NETLINK;
    const std::size_t sent = Uninterrupted([&] {
        return sendto(m_descriptor, data, size, 0, reinterpret_cast<sockaddr*>(&kernel),
                      sizeof kernel);
    });
    if (sent != size) {
        throw Error(-EMSGSIZE);
    }
}

// Reads one datagram into the buffer. Returns its size, 0 when it is not from the kernel.
std::size_t Netlink::Receive()
{
    sockaddr_nl sender = {};
    socklen_t sender_size = sizeof sender;
    const std::size_t size = Uninterrupted([&] {
        return recvfrom(m_descriptor, m_buffer.get(), kBufferSize, MSG_TRUNC,
                        reinterpret_cast<sockaddr*>(&sender), &sender_size);
    });
    if (size > kBufferSize) {
        throw Error(-EMSGSIZE);
    }
    const bool from_kernel = sender_size == sizeof sender && sender.nl_pid == 0;
    return from_kernel ? size : 0;
}

void Netlink::ReceiveUntil(FunctionRef<bool(const nlmsghdr&)> is_last)
try {
    for (unsigned datagrams = 0; datagrams < kDatagramsMax; ++datagrams) {
        int rest = static_cast<int>(Receive());
        auto* message = reinterpret_cast<const nlmsghdr*>(m_buffer.get());
        for (; mnl_nlmsg_ok(message, rest); message = mnl_nlmsg_next(message, &rest)) {
            if (is_last(*message)) {
                return;
            }
        }
    }
    throw Error(-EOVERFLOW);
} catch (...) {
    Close();
    throw;
}

Consistency Netlink::Request(nlmsghdr& message, Visitor visit)
{
    message.nlmsg_seq = NextSequence();
    Answer answer(message.nlmsg_seq, visit);
    Send(&message, message.nlmsg_len);
    ReceiveUntil([&](const nlmsghdr& part) { return answer.Take(part); });
    if (answer.Cancelled()) {
        Close();
    }
    return answer.Result();
}

std::optional<Netlink::Refusal> Netlink::Transact(const void* messages, std::size_t size,
                                                  std::uint32_t first, std::uint32_t last)
{
    BatchAnswer answer(first, last);
    try {
        Send(messages, size);
    } catch (...) {
        Close();
        throw;
    }
    ReceiveUntil([&](const nlmsghdr& part) { return answer.Take(part); });
    if (answer.FirstRefusal()) {
        Close();
    }
    return answer.FirstRefusal();
}

Consistency RetryInterrupted(FunctionRef<Consistency()> dump)
{
    Consistency result = dump();
    for (unsigned retries = 0; result == Consistency::kInterrupted && retries < kRetriesMax;
         ++retries) {
        result = dump();
    }
    return result;
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

bool CopyPayload(const nlattr* attribute, void* to, std::size_t size)
{
    if (!attribute || mnl_attr_get_payload_len(attribute) != size) {
        return false;
    }
    memcpy(to, mnl_attr_get_payload(attribute), size);
    return true;
}

std::optional<std::uint32_t> DecodeBe32(const nlattr* attribute)
{
    std::uint32_t value;
    return CopyPayload(attribute, &value, sizeof value) ? std::optional(be32toh(value))
                                                        : std::nullopt;
}

std::optional<std::uint64_t> DecodeBe64(const nlattr* attribute)
{
    std::uint64_t value;
    return CopyPayload(attribute, &value, sizeof value) ? std::optional(be64toh(value))
                                                        : std::nullopt;
}

std::optional<Counts> DecodeCounts(const nlattr* counter, std::uint16_t packets_type,
                                   std::uint16_t bytes_type)
{
    if (!counter) {
        return std::nullopt;
    }
    const Attributes attributes(*counter);
    const auto packets = DecodeBe64(attributes.Find(packets_type));
    const auto bytes = DecodeBe64(attributes.Find(bytes_type));
    return packets && bytes ? std::optional(Counts{*packets, *bytes}) : std::nullopt;
}

std::string_view DecodeString(const nlattr* attribute)
{
    if (!attribute) {
        return {};
    }
    auto* string = static_cast<const char*>(mnl_attr_get_payload(attribute));
    return {string, strnlen(string, mnl_attr_get_payload_len(attribute))};
}

}  // namespace vxi
