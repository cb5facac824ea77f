// Known numbers of TCP connections and of datagrams.
#pragma once

#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace traffic {

constexpr std::uint16_t kPort = 8443;

// A numerical address and a port.
struct Place : sockaddr_storage {
    Place(const std::string& host, std::uint16_t port);
    operator sockaddr*() const { return reinterpret_cast<sockaddr*>(const_cast<Place*>(this)); }
};

// On loopback; connections to the IPv4 one come from another address.
inline Place Local(int family, std::uint16_t at = kPort)
{
    return {family == 4 ? "127.0.0.2" : "::1", at};
}

// A file descriptor that closes itself.
using Socket = std::shared_ptr<const int>;

Socket Listen(const Place& place, int backlog = 128);
Socket Accept(const Socket& listener);

// Each of these connections must meet this errno; with EINPROGRESS nothing is waited for.
std::vector<Socket> Connect(const Place& place, unsigned count = 1, int error = 0);

// One connection after the other: a byte each way, then the client ends it, maybe with a reset.
void Converse(const Socket& listener, const Place& place, unsigned count, bool reset = false);

// TCP segments without data or checksum, each from another address: the rules see them, nobody
// answers.
void SendSegments(std::uint8_t flags, unsigned count = 1);

// Datagrams of 10 bytes to a place of this host and answers of 100 bytes; returns both sockets.
std::vector<Socket> Exchange(const Place& place, unsigned count, unsigned answers = 0);

}  // namespace traffic
