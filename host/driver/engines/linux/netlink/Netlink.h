// A netlink socket: requests, dumps and attribute access.
//
// Answers come from the kernel, but their shape differs between kernels. So every length is
// checked before it is used, every loop is bounded, and messages from any other sender are
// dropped.
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

// Whether the kernel's table changed during a dump (NLM_F_DUMP_INTR): if so, entries may be
// missing or appear twice.
enum class Consistency { kConsistent, kInterrupted };

// Functions throw vxi::Error with a negated errno and what that errno means.
class Netlink {
public:
    // Called for each message of an answer. An exception stops the calls, but the answer is
    // still read to its end before the exception is thrown again, so that the socket can be
    // used afterwards. An Error with -ECANCELED ends the exchange at once and closes the socket.
    using Visitor = FunctionRef<void(const nlmsghdr&)>;

    // A message of a batch that the kernel refused, and why (a negated errno).
    struct Refusal {
        int status;
        std::uint32_t sequence;
    };

    Netlink() = default;
    ~Netlink() { Close(); }
    Netlink(const Netlink&) = delete;
    Netlink& operator=(const Netlink&) = delete;

    // Opens a close-on-exec socket for one of the kernel's netlink protocols
    // (NETLINK_NETFILTER..); an open one is closed first.
    void Open(int protocol);
    void Close() noexcept;
    bool IsOpen() const noexcept { return m_descriptor.load() >= 0; }

    std::uint32_t NextSequence() { return ++m_sequence; }

    // Sends one request, flagged NLM_F_DUMP or NLM_F_ACK, and passes the answer to `visit` (the
    // sequence number is set here). A request that the kernel refuses leaves the socket open;
    // when the exchange itself fails, the socket is closed.
    Consistency Request(nlmsghdr& message, Visitor visit);

    // Sends the messages with sequence numbers `first` to `last` as one transaction; `last` asks
    // for an acknowledgement. Returns the first message that the kernel refused, nullopt if it
    // accepted all. After a refusal the socket is closed, because more answers may be queued.
    std::optional<Refusal> Transact(const void* messages, std::size_t size, std::uint32_t first,
                                    std::uint32_t last);

private:
    void Send(const void* data, std::size_t size);
    std::size_t Receive();
    void ReceiveUntil(FunctionRef<bool(const nlmsghdr&)> is_last);

    std::atomic<int> m_descriptor{-1};  // read in a fork's child while another thread writes
    std::uint32_t m_sequence = 0;
    std::unique_ptr<char[]> m_buffer;
};

// Repeats a dump while the kernel's table changes under it, five times at most. Returns how the
// last one ended.
Consistency RetryInterrupted(FunctionRef<Consistency()> dump);

// The attributes after a message's header of `header_size` bytes, or inside another attribute.
// Stops at the first attribute that overruns its container.
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

    // The first attribute of that type; null when there is none.
    const nlattr* Find(std::uint16_t type) const;

private:
    const char* m_first;
    std::size_t m_size;
};

// Copies the payload of an attribute to `to`. False when the attribute is null or its payload is
// not `size` bytes long.
bool CopyPayload(const nlattr* attribute, void* to, std::size_t size);

// The big-endian number in an attribute; nullopt for a null attribute or another length.
std::optional<std::uint32_t> DecodeBe32(const nlattr* attribute);
std::optional<std::uint64_t> DecodeBe64(const nlattr* attribute);

struct Counts {
    std::uint64_t packets;
    std::uint64_t bytes;
};

// The two big-endian numbers in a counter's attributes, of the given types; nullopt if one is
// missing.
std::optional<Counts> DecodeCounts(const nlattr* counter, std::uint16_t packets_type,
                                   std::uint16_t bytes_type);

// The string in an attribute, without its NUL; empty for a null attribute. Points into the
// message.
std::string_view DecodeString(const nlattr* attribute);

}  // namespace vxi
