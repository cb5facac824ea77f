// Known numbers of TCP connections and of datagrams.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace traffic {

constexpr std::uint16_t kPort = 8443;

// Where a connection goes; the host is a numerical address.
struct Place {
    std::string host;
    std::uint16_t port;
};

// On loopback. For IPv4 an address that connections come to but do not come from, so that
// source and destination differ.
inline Place Local(int family, std::uint16_t at = kPort)
{
    return {family == 4 ? "127.0.0.2" : "::1", at};
}

// A file descriptor that closes itself.
using Socket = std::shared_ptr<const int>;

// Waits for a connection for ten seconds at most.
Socket Listen(const Place& place, int backlog = 128);
Socket Accept(const Socket& listener);

Socket Connect(const Place& place);

// `count` connections, one after the other: a byte each way, then the client ends it, with
// a reset if so wished.
void Converse(const Socket& listener, const Place& place, unsigned count, bool reset = false);

// `count` connections to a place where nobody listens.
void BeRefused(const Place& place, unsigned count);

// `count` connection attempts that are not waited for.
std::vector<Socket> Attempt(const Place& place, unsigned count);

// `count` TCP segments without data or checksum, each from another place of IPv4: counted on
// the way in, and answered by nothing.
void SendSegments(std::uint8_t flags, unsigned count = 1);

// `count` datagrams of 10 bytes to a place of this host, and `answers` of 100 bytes back; the
// two sockets, the one at the place first.
std::vector<Socket> Exchange(const Place& place, unsigned count, unsigned answers = 0);

}  // namespace traffic
