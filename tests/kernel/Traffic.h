// Known numbers of TCP connections and of datagrams.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace traffic {

// Where a connection goes. The host is a numerical address.
struct Place {
    std::string host;
    uint16_t port;
};

// On loopback. For IPv4 an address that connections come to but do not come from, so that
// source and destination differ.
constexpr const char* local_v4 = "127.0.0.2";
inline Place Local(int family, uint16_t port)
{
    return {family == 4 ? local_v4 : "::1", port};
}

// A file descriptor that closes itself.
class Socket {
public:
    explicit Socket(int fd = -1) : fd_(fd) {}
    ~Socket() { Close(); }
    Socket(Socket&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    Socket& operator=(Socket&&) = delete;

    int fd() const { return fd_; }
    void Close();
    void ResetOnClose();  // RST in FIN's place

private:
    int fd_;
};

Socket Listen(const Place& place, int backlog = 128);

// Waits until connected.
Socket Connect(const Place& place);

enum class Ending { Finished, Reset };

// `count` connections, one after the other: a byte each way, then the client ends it.
void Converse(const Socket& listener, const Place& place, unsigned count,
              Ending ending = Ending::Finished);

// `count` connections to a place where nobody listens.
void BeRefused(const Place& place, unsigned count);

// `count` connection attempts that are not waited for.
std::vector<Socket> Attempt(const Place& place, unsigned count);

// One TCP segment without data from ::1 to ::1, made by hand.
void SendSegment(uint16_t port, uint8_t flags);

// `count` openings of connections that nobody goes on with, each from another place.
void Flood(uint16_t port, unsigned count);

struct Datagrams {
    Socket near;  // connected to far, which is bound
    Socket far;
};

// `count` datagrams of 10 bytes to a place of this host, and `answers` of 100 bytes back.
Datagrams Exchange(const Place& place, unsigned count, unsigned answers = 0);

}  // namespace traffic
