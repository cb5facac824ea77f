#include "Traffic.h"

#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <stdexcept>

namespace traffic {

namespace {

struct Address {
    sockaddr_storage storage = {};
    socklen_t size;

    explicit Address(const Place& place)
    {
        addrinfo hints = {};
        hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
        addrinfo* found = nullptr;
        const std::string number = std::to_string(place.port);
        if (getaddrinfo(place.host.c_str(), number.c_str(), &hints, &found) != 0) {
            throw std::runtime_error("no address: " + place.host);
        }
        size = found->ai_addrlen;
        memcpy(&storage, found->ai_addr, size);
        freeaddrinfo(found);
    }
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

Socket Open(const Address& address, int type = SOCK_STREAM)
{
    const int fd = socket(address.storage.ss_family, type | SOCK_CLOEXEC, 0);
    EXPECT_GE(fd, 0) << strerror(errno);
    return Socket(fd);
}

tcphdr Segment(uint16_t source_port, uint16_t port, uint8_t flags)
{
    tcphdr segment = {};
    segment.th_sport = htons(source_port);
    segment.th_dport = htons(port);
    segment.th_seq = htonl(1000);
    segment.th_off = sizeof segment / 4;
    segment.th_flags = flags;
    segment.th_win = htons(1000);
    return segment;
}

void PassByte(const Socket& from, const Socket& to)
{
    char byte = 'x';
    EXPECT_EQ(send(from.fd(), &byte, 1, MSG_NOSIGNAL), 1) << strerror(errno);
    EXPECT_EQ(recv(to.fd(), &byte, 1, 0), 1) << strerror(errno);
}

}  // namespace

void Socket::Close()
{
    if (fd_ >= 0) {
        close(fd_);
    }
    fd_ = -1;
}

void Socket::ResetOnClose()
{
    const linger at_once = {1, 0};
    EXPECT_EQ(setsockopt(fd_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once), 0);
}

Socket Listen(const Place& place, int backlog)
{
    const Address address(place);
    Socket listener = Open(address);
    const int on = 1;
    EXPECT_EQ(setsockopt(listener.fd(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), 0);
    // A connection that does not come must not stop the test for good.
    const timeval patience = {10, 0};
    EXPECT_EQ(setsockopt(listener.fd(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience), 0);
    EXPECT_EQ(bind(listener.fd(), address.get(), address.size), 0) << strerror(errno);
    EXPECT_EQ(listen(listener.fd(), backlog), 0) << strerror(errno);
    return listener;
}

Socket Connect(const Place& place)
{
    const Address address(place);
    Socket client = Open(address);
    EXPECT_EQ(connect(client.fd(), address.get(), address.size), 0) << strerror(errno);
    return client;
}

void Converse(const Socket& listener, const Place& place, unsigned count, Ending ending)
{
    for (unsigned i = 0; i < count; ++i) {
        Socket client = Connect(place);
        const Socket server(accept4(listener.fd(), nullptr, nullptr, SOCK_CLOEXEC));
        ASSERT_GE(server.fd(), 0) << strerror(errno);
        PassByte(client, server);
        PassByte(server, client);
        if (ending == Ending::Reset) {
            client.ResetOnClose();
        }
        client.Close();
    }
}

void BeRefused(const Place& place, unsigned count)
{
    const Address address(place);
    for (unsigned i = 0; i < count; ++i) {
        const Socket client = Open(address);
        ASSERT_EQ(connect(client.fd(), address.get(), address.size), -1);
        ASSERT_EQ(errno, ECONNREFUSED) << strerror(errno);
    }
}

std::vector<Socket> Attempt(const Place& place, unsigned count)
{
    const Address address(place);
    std::vector<Socket> clients;
    for (unsigned i = 0; i < count; ++i) {
        clients.push_back(Open(address, SOCK_STREAM | SOCK_NONBLOCK));
        const int status = connect(clients.back().fd(), address.get(), address.size);
        EXPECT_TRUE(status == 0 || errno == EINPROGRESS) << strerror(errno);
    }
    return clients;
}

void SendSegment(uint16_t port, uint8_t flags)
{
    const tcphdr segment = Segment(2000, port, flags);
    const Socket raw(socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_TCP));
    const int sum_at = offsetof(tcphdr, th_sum);  // the kernel fills it in
    EXPECT_EQ(setsockopt(raw.fd(), IPPROTO_IPV6, IPV6_CHECKSUM, &sum_at, sizeof sum_at), 0);
    const Address address(Local(6, 0));
    EXPECT_EQ(sendto(raw.fd(), &segment, sizeof segment, 0, address.get(), address.size),
              static_cast<ssize_t>(sizeof segment))
        << strerror(errno);
}

// Without a checksum: counted on the way in, and answered by nothing.
void Flood(uint16_t port, unsigned count)
{
    constexpr unsigned ports = 50000;
    static unsigned place = 0;
    const Address target(Local(4, 0));
    const Socket raw(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_TCP));
    for (unsigned i = 0; i < count; ++i, ++place) {
        if (i == 0 || place % ports == 0) {
            const Address source({"127.1.0." + std::to_string(1 + place / ports), 0});
            ASSERT_EQ(bind(raw.fd(), source.get(), source.size), 0) << strerror(errno);
        }
        const tcphdr opening = Segment(static_cast<uint16_t>(1024 + place % ports), port, TH_SYN);
        ASSERT_EQ(sendto(raw.fd(), &opening, sizeof opening, 0, target.get(), target.size),
                  static_cast<ssize_t>(sizeof opening))
            << strerror(errno);
    }
}

Datagrams Exchange(const Place& place, unsigned count, unsigned answers)
{
    const Address address(place);
    Datagrams ends = {Open(address, SOCK_DGRAM), Open(address, SOCK_DGRAM)};
    EXPECT_EQ(bind(ends.far.fd(), address.get(), address.size), 0) << strerror(errno);
    EXPECT_EQ(connect(ends.near.fd(), address.get(), address.size), 0) << strerror(errno);
    char data[100] = {};
    sockaddr_storage sender = {};
    socklen_t size = sizeof sender;
    auto* from = reinterpret_cast<sockaddr*>(&sender);
    for (unsigned i = 0; i < count; ++i) {
        EXPECT_EQ(send(ends.near.fd(), data, 10, 0), 10);
        EXPECT_EQ(recvfrom(ends.far.fd(), data, sizeof data, 0, from, &size), 10);
    }
    for (unsigned i = 0; i < answers; ++i) {
        EXPECT_EQ(sendto(ends.far.fd(), data, 100, 0, from, size), 100);
    }
    return ends;
}

}  // namespace traffic
