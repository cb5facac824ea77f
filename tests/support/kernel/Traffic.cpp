#include "support/kernel/Traffic.h"

#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
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
    sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage); }
};

Socket Own(int fd)
{
    EXPECT_GE(fd, 0) << strerror(errno);
    return {new int(fd), [](const int* owned) {
                close(*owned);
                delete owned;
            }};
}

Socket Open(const Address& address, int type = SOCK_STREAM, int protocol = 0)
{
    return Own(socket(address.storage.ss_family, type | SOCK_CLOEXEC, protocol));
}

template <typename Value>
void Set(const Socket& socket, int level, int option, Value value)
{
    EXPECT_EQ(setsockopt(*socket, level, option, &value, sizeof value), 0) << strerror(errno);
}

void Bind(const Socket& socket, Address address)
{
    ASSERT_EQ(bind(*socket, address.get(), address.size), 0) << strerror(errno);
}

void Pass(const Socket& from, const Socket& to)
{
    char byte = 'x';
    EXPECT_EQ(send(*from, &byte, 1, MSG_NOSIGNAL), 1) << strerror(errno);
    EXPECT_EQ(recv(*to, &byte, 1, 0), 1) << strerror(errno);
}

}  // namespace

Socket Listen(const Place& place, int backlog)
{
    const Address address(place);
    const Socket listener = Open(address);
    Set(listener, SOL_SOCKET, SO_REUSEADDR, 1);
    Set(listener, SOL_SOCKET, SO_RCVTIMEO, timeval{10, 0});
    Bind(listener, address);
    EXPECT_EQ(listen(*listener, backlog), 0) << strerror(errno);
    return listener;
}

Socket Accept(const Socket& listener)
{
    return Own(accept4(*listener, nullptr, nullptr, SOCK_CLOEXEC));
}

Socket Connect(const Place& place)
{
    Address address(place);
    const Socket client = Open(address);
    EXPECT_EQ(connect(*client, address.get(), address.size), 0) << strerror(errno);
    return client;
}

void Converse(const Socket& listener, const Place& place, unsigned count, bool reset)
{
    for (unsigned i = 0; i < count; ++i) {
        Socket client = Connect(place);
        const Socket server = Accept(listener);
        Pass(client, server);
        Pass(server, client);
        if (reset) {
            Set(client, SOL_SOCKET, SO_LINGER, linger{1, 0});
        }
        client.reset();
    }
}

void BeRefused(const Place& place, unsigned count)
{
    Address address(place);
    for (unsigned i = 0; i < count; ++i) {
        ASSERT_EQ(connect(*Open(address), address.get(), address.size), -1);
        ASSERT_EQ(errno, ECONNREFUSED) << strerror(errno);
    }
}

std::vector<Socket> Attempt(const Place& place, unsigned count)
{
    Address address(place);
    std::vector<Socket> clients(count);
    for (Socket& client : clients) {
        client = Open(address, SOCK_STREAM | SOCK_NONBLOCK);
        const int status = connect(*client, address.get(), address.size);
        EXPECT_TRUE(status == 0 || errno == EINPROGRESS) << strerror(errno);
    }
    return clients;
}

void SendSegments(std::uint8_t flags, unsigned count)
{
    constexpr unsigned kPorts = 50000;
    static unsigned place = 0;
    Address to(Local(4, 0));
    const Socket raw = Open(to, SOCK_RAW, IPPROTO_TCP);
    tcphdr segment = {};
    segment.th_dport = htons(kPort);
    segment.th_off = sizeof segment / 4;
    segment.th_flags = flags;
    for (unsigned i = 0; i < count; ++i, ++place) {
        if (i == 0 || place % kPorts == 0) {
            Bind(raw, Address({"127.1.0." + std::to_string(1 + place / kPorts), 0}));
        }
        segment.th_sport = htons(static_cast<std::uint16_t>(1024 + place % kPorts));
        ASSERT_EQ(sendto(*raw, &segment, sizeof segment, 0, to.get(), to.size), 20);
    }
}

std::vector<Socket> Exchange(const Place& place, unsigned count, unsigned answers)
{
    Address address(place);
    const Socket far = Open(address, SOCK_DGRAM);
    const Socket near = Open(address, SOCK_DGRAM);
    Bind(far, address);
    EXPECT_EQ(connect(*near, address.get(), address.size), 0) << strerror(errno);
    char data[100] = {};
    for (unsigned i = 0; i < count; ++i) {
        EXPECT_EQ(send(*near, data, 10, 0), 10);
        EXPECT_EQ(recvfrom(*far, data, sizeof data, 0, address.get(), &address.size), 10);
    }
    for (unsigned i = 0; i < answers; ++i) {
        EXPECT_EQ(sendto(*far, data, 100, 0, address.get(), address.size), 100);
    }
    return {far, near};
}

}  // namespace traffic
