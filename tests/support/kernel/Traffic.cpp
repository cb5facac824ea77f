// Known numbers of TCP connections and of datagrams.
#include "support/kernel/Traffic.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <cstring>

namespace traffic {

namespace {

void Check(bool done)
{
    EXPECT_TRUE(done) << strerror(errno);
}

Socket Own(int descriptor)
{
    Check(descriptor >= 0);
    return {new int(descriptor), [](const int* owned) {
                close(*owned);
                delete owned;
            }};
}

Socket Open(const Place& place, int type, int protocol = 0)
{
    return Own(socket(place.ss_family, type | SOCK_CLOEXEC, protocol));
}

void Pass(const Socket& from, const Socket& to, int how = 0)
{
    char byte = 'x';
    Check(send(*from, &byte, 1, MSG_NOSIGNAL) == 1 && recv(*to, &byte, 1, how) == 1);
}

}  // namespace

Place::Place(const std::string& host, std::uint16_t port) : sockaddr_storage{}
{
    auto& v4 = reinterpret_cast<sockaddr_in&>(*this);
    auto& v6 = reinterpret_cast<sockaddr_in6&>(*this);
    const bool is_v4 = inet_pton(AF_INET, host.c_str(), &v4.sin_addr) == 1;
    Check(is_v4 || inet_pton(AF_INET6, host.c_str(), &v6.sin6_addr) == 1);
    ss_family = is_v4 ? AF_INET : AF_INET6;
    (is_v4 ? v4.sin_port : v6.sin6_port) = htons(port);
}

Socket Listen(const Place& place, int backlog)
{
    const int on = 1;
    Socket listener = Open(place, SOCK_STREAM);
    Check(setsockopt(*listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0);
    Check(bind(*listener, place, sizeof place) == 0 && listen(*listener, backlog) == 0);
    return listener;
}

Socket Accept(const Socket& listener)
{
    return Own(accept4(*listener, nullptr, nullptr, SOCK_CLOEXEC));
}

std::vector<Socket> Connect(const Place& place, unsigned count, int error)
{
    std::vector<Socket> clients(count);
    for (Socket& client : clients) {
        client = Open(place, SOCK_STREAM | (error == EINPROGRESS ? SOCK_NONBLOCK : 0));
        const int status = connect(*client, place, sizeof place);
        EXPECT_EQ(status == 0 ? 0 : errno, error);
    }
    return clients;
}

void Converse(const Socket& listener, const Place& place, unsigned count, bool reset)
{
    for (unsigned i = 0; i < count; ++i) {
        auto client = Connect(place);
        const Socket server = Accept(listener);
        Pass(client[0], server);
        Pass(server, client[0], reset ? MSG_PEEK : 0);  // what was not read makes it a reset
        client.clear();
    }
}

void SendSegments(std::uint8_t flags, unsigned count)
{
    static std::uint32_t source = 0x7f010000;  // 127.1.0.0
    const Place to = Local(4, 0);
    const Socket raw = Open(to, SOCK_RAW, IPPROTO_TCP);
    tcphdr segment = {};
    segment.th_dport = htons(kPort);
    segment.th_off = sizeof segment / 4;
    segment.th_flags = flags;
    for (unsigned i = 0; i < count; ++i) {
        const sockaddr_in from = {AF_INET, 0, {htonl(++source)}, {}};
        Check(bind(*raw, reinterpret_cast<const sockaddr*>(&from), sizeof from) == 0);
        Check(sendto(*raw, &segment, sizeof segment, 0, to, sizeof to) == sizeof segment);
    }
}

std::vector<Socket> Exchange(const Place& place, unsigned count, unsigned answers)
{
    Place from = place;
    socklen_t size = sizeof from;
    const Socket far = Open(place, SOCK_DGRAM);
    const Socket near = Open(place, SOCK_DGRAM);
    Check(bind(*far, place, size) == 0 && connect(*near, place, size) == 0);
    char data[100] = {};
    for (unsigned i = 0; i < count; ++i) {
        Check(send(*near, data, 10, 0) == 10);
        Check(recvfrom(*far, data, sizeof data, 0, from, &size) == 10);
    }
    for (unsigned i = 0; i < answers; ++i) {
        Check(sendto(*far, data, 100, 0, from, size) == 100);
    }
    return {far, near};
}

}  // namespace traffic
