// One netlink socket: requests, dumps and attribute access.
//
// Answers come from the kernel, but their shape differs between kernels and nothing in
// them is taken on trust: every length is checked before it is used, every loop is
// bounded, and a message from anyone but the kernel is dropped.
#pragma once

#include <linux/netlink.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "engines/linux/netlink/FunctionRef.h"

namespace vxi {

class Netlink {
public:
    // Called for each message of an answer; a negative status or an exception stops the
    // calls, but the answer is still read to its end, so that the socket can be used again.
    // -ECANCELED ends the exchange at once and closes the socket.
    using Visit = FunctionRef<int(const nlmsghdr&)>;

    // What became of a batch: the first failure and the message that met it.
    struct BatchResult {
        int status = 0;
        std::uint32_t sequence = 0;
    };

    Netlink() = default;
    ~Netlink() { Close(); }
    Netlink(const Netlink&) = delete;
    Netlink& operator=(const Netlink&) = delete;

    // Opens a close-on-exec socket on one of the kernel's netlink protocols
    // (NETLINK_NETFILTER..); an open one is closed first. 0 or a negated errno.
    int Open(int protocol);
    void Close();
    bool IsOpen() const { return m_descriptor.load() >= 0; }

    std::uint32_t NextSequence() { return ++m_sequence; }

    // Sends one request, flagged NLM_F_DUMP or NLM_F_ACK, and passes the answer to `visit`
    // (the sequence number is set here). -EINTR when the kernel says that the dump is not
    // consistent. When the exchange itself fails, the socket is closed.
    int Request(nlmsghdr& message, Visit visit);

    // Sends messages `first` to `last` (sequence numbers; `last` asks for an
    // acknowledgement) as one transaction. After any failure the socket is closed, for
    // further answers may be queued.
    BatchResult Transact(const void* messages, std::size_t size, std::uint32_t first,
                         std::uint32_t last);

private:
    int send(const void* data, std::size_t size);
    std::ptrdiff_t Receive();
    int Collect(Visit take);

    std::atomic<int> m_descriptor{-1};  // read by a fork's child while another thread writes
    std::uint32_t m_sequence = 0;
    std::unique_ptr<char[]> m_buffer;
};

// Calls `attempt` again, five times at most, while it returns -EINTR.
int RetryInterrupted(FunctionRef<int()> attempt);

// The attributes behind a message's header of `header_size` bytes, or inside another
// attribute. Ends before the first one that does not fit into what contains it.
class Attributes {
public:
    Attributes(const nlmsghdr& message, std::size_t header_size);
    explicit Attributes(const nlattr& outer);

    class Iterator {
    public:
        Iterator(const char* at, std::size_t rest);
        const nlattr& operator*() const { return *reinterpret_cast<const nlattr*>(m_at); }
        Iterator& operator++();
        bool operator!=(const Iterator& other) const { return m_at != other.m_at; }

    private:
        const char* m_at;  // null at the end
        std::size_t m_rest;
    };
    Iterator begin() const { return {m_first, m_size}; }
    Iterator end() const { return {nullptr, 0}; }

    // The first one of that type; null when there is none.
    const nlattr* Find(std::uint16_t type) const;

private:
    const char* m_first;
    std::size_t m_size;
};

// Contents of an attribute; empty for a null attribute or one of another length.
std::optional<std::uint32_t> Be32Of(const nlattr* attribute);
std::optional<std::uint64_t> Be64Of(const nlattr* attribute);
std::string_view TextOf(const nlattr* attribute);

}  // namespace vxi
