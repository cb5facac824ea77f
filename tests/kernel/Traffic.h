// Known numbers of TCP connections on loopback.
#pragma once

#include <cstdint>
#include <vector>

namespace traffic {

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

// `family` is 4 or 6 throughout.
Socket Listen(int family, uint16_t port, int backlog = 128);

// A connection attempt that is not waited for.
Socket Attempt(int family, uint16_t port);

enum class Ending { Finished, Reset };

// `count` connections, one after the other: a byte each way, then the client ends it.
void Converse(const Socket& listener, int family, uint16_t port, unsigned count,
              Ending ending = Ending::Finished);

// `count` attempts on a port that nobody listens on.
void BeRefused(int family, uint16_t port, unsigned count);

// `count` attempts, left as they are.
std::vector<Socket> Attempts(int family, uint16_t port, unsigned count);

}  // namespace traffic
