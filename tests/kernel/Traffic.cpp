#include "Traffic.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace traffic {

namespace {

struct Address {
    sockaddr_storage storage = {};
    socklen_t size;

    Address(int family, uint16_t port)
    {
        if (family == 4) {
            auto* v4 = reinterpret_cast<sockaddr_in*>(&storage);
            *v4 = {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
            size = sizeof *v4;
        } else {
            auto* v6 = reinterpret_cast<sockaddr_in6*>(&storage);
            *v6 = {AF_INET6, htons(port), 0, IN6ADDR_LOOPBACK_INIT, 0};
            size = sizeof *v6;
        }
    }
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

Socket Open(int family, int flags)
{
    const int fd = socket(family == 4 ? AF_INET : AF_INET6, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
    EXPECT_GE(fd, 0) << strerror(errno);
    return Socket(fd);
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

Socket Listen(int family, uint16_t port, int backlog)
{
    Socket listener = Open(family, 0);
    const Address address(family, port);
    const int on = 1;
    setsockopt(listener.fd(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    EXPECT_EQ(bind(listener.fd(), address.get(), address.size), 0) << strerror(errno);
    EXPECT_EQ(listen(listener.fd(), backlog), 0) << strerror(errno);
    return listener;
}

Socket Attempt(int family, uint16_t port)
{
    Socket client = Open(family, SOCK_NONBLOCK);
    const Address address(family, port);
    const int status = connect(client.fd(), address.get(), address.size);
    EXPECT_TRUE(status == 0 || errno == EINPROGRESS) << strerror(errno);
    return client;
}

void Converse(const Socket& listener, int family, uint16_t port, unsigned count, Ending ending)
{
    const Address address(family, port);
    for (unsigned i = 0; i < count; ++i) {
        Socket client = Open(family, 0);
        ASSERT_EQ(connect(client.fd(), address.get(), address.size), 0) << strerror(errno);
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

void BeRefused(int family, uint16_t port, unsigned count)
{
    const Address address(family, port);
    for (unsigned i = 0; i < count; ++i) {
        const Socket client = Open(family, 0);
        ASSERT_EQ(connect(client.fd(), address.get(), address.size), -1);
        ASSERT_EQ(errno, ECONNREFUSED);
    }
}

std::vector<Socket> Attempts(int family, uint16_t port, unsigned count)
{
    std::vector<Socket> clients;
    for (unsigned i = 0; i < count; ++i) {
        clients.push_back(Attempt(family, port));
    }
    return clients;
}

}  // namespace traffic
