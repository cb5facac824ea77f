// Cost of scan monitoring to the traffic of the monitored port: processor time of connections and
// of 1-byte round trips over loopback, with and without counting. Prints one JSON object.
//
// One thread does both ends, on one processor, so that the process's own time is all of it. The
// measured connections, in a network namespace with counting and one without, take turns in each
// round, so that a busy moment of the machine affects all of them. A ratio is the median of the
// rounds' ratios.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <string>
#include <vector>

#include "vxi/engine.h"

namespace {

constexpr std::uint16_t kMonitoredPort = 8443;
constexpr std::uint16_t kOtherPort = 8444;
constexpr int kRounds = 151;
constexpr int kRoundTrips = 600;
constexpr int kConnections = 60;

// Reports that nothing can be measured, which is not an error.
[[noreturn]] void Fail(const char* what)
{
    std::printf("{\"problem\": \"%s: %s\"}\n", what, std::strerror(errno));
    std::exit(0);
}

void Require(bool done, const char* what)
{
    if (!done) Fail(what);
}

struct Address {
    sockaddr_storage storage{};
    socklen_t size = 0;

    Address(int family, std::uint16_t port)
    {
        auto& v4 = reinterpret_cast<sockaddr_in&>(storage);
        auto& v6 = reinterpret_cast<sockaddr_in6&>(storage);
        storage.ss_family = static_cast<sa_family_t>(family);
        v4.sin_port = htons(port);  // at the same offset in both
        if (family == AF_INET)
            v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        else
            v6.sin6_addr = in6addr_loopback;
        size = family == AF_INET ? sizeof v4 : sizeof v6;
    }
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

int Socket(int family)
{
    const int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    Require(fd >= 0, "socket");
    return fd;
}

void SendByte(int from, int to)
{
    char byte = 'x';
    Require(send(from, &byte, 1, MSG_NOSIGNAL) == 1 && recv(to, &byte, 1, 0) == 1,
            "sending 1 byte");
}

using Times = std::vector<double>;

// A listener and one connection to it, in a network namespace.
class LoopbackPair {
public:
    LoopbackPair(int network, int family, std::uint16_t port)
        : m_network(network), m_address(family, port)
    {
        Enter();
        m_listener = Socket(family);
        Require(bind(m_listener, m_address.get(), m_address.size) == 0, "bind");
        Require(listen(m_listener, 16) == 0, "listen");
        m_client = Connect();
        m_server = Accept();
    }

    void MeasureRound()
    {
        Enter();
        round_trips.push_back(ProcessorNs(kRoundTrips, [&] {
            SendByte(m_client, m_server);
            SendByte(m_server, m_client);
        }));
        connections.push_back(ProcessorNs(kConnections, [&] { OpenAndClose(); }));
    }

    Times round_trips;
    Times connections;

private:
    // Returns the processor time per call.
    template <typename Work>
    static double ProcessorNs(int times, Work work)
    {
        timespec before, after;
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &before);
        for (int i = 0; i < times; ++i) work();
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &after);
        return (1e9 * static_cast<double>(after.tv_sec - before.tv_sec) +
                static_cast<double>(after.tv_nsec - before.tv_nsec)) /
               times;
    }

    void Enter() const { Require(setns(m_network, CLONE_NEWNET) == 0, "setns"); }

    int Connect() const
    {
        const int fd = Socket(m_address.storage.ss_family);
        Require(connect(fd, m_address.get(), m_address.size) == 0, "connect");
        return fd;
    }

    int Accept() const
    {
        const int fd = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        Require(fd >= 0, "accept");
        return fd;
    }

    void OpenAndClose() const
    {
        const int client = Connect();
        const int server = Accept();
        close(client);
        char byte;
        Require(recv(server, &byte, 1, 0) == 0, "closing a connection");
        close(server);
    }

    int m_network;
    Address m_address;
    int m_listener;
    int m_client;
    int m_server;
};

// Makes a network namespace, enters it and returns its descriptor.
int EnterNewNetwork()
{
    Require(unshare(CLONE_NEWNET) == 0, "network namespace");
    Require(std::system("ip link set lo up") == 0, "ip link set lo up");
    const int network = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    Require(network >= 0, "network namespace");
    return network;
}

void StartCounting()
{
    static scan_monitor_config config{};
    config.version = 1;
    config.inbound[kMonitoredPort / 32] = UINT32_C(1) << (kMonitoredPort % 32);
    vxi_engine_select("linux");
    vxi_handle_ops_s* handle = vxi_open();
    if (!handle || vxi_set_scan_monitoring(handle, &config) != 0) {
        char text[200] = "";
        vxi_get_error(handle, text, sizeof text);
        std::printf("{\"problem\": \"%s\"}\n", text);
        std::exit(0);
    }
    vxi_close(handle);
}

void StayOnOneProcessor()
{
    cpu_set_t all, one;
    CPU_ZERO(&one);
    if (sched_getaffinity(0, sizeof all, &all) != 0) return;
    for (int i = CPU_SETSIZE - 1; i >= 0 && CPU_COUNT(&one) == 0; --i)
        if (CPU_ISSET(i, &all)) CPU_SET(i, &one);
    sched_setaffinity(0, sizeof one, &one);
}

double Median(Times values)
{
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

Times Ratios(const Times& with, const Times& without)
{
    Times ratios;
    std::transform(with.begin(), with.end(), without.begin(), std::back_inserter(ratios),
                   [](double one, double other) { return one / other; });
    return ratios;
}

void Print(const char* name, const Times& with, const Times& without, const char* separator)
{
    std::printf("\"%s\": {\"with\": %.0f, \"without\": %.0f, \"ratio\": %.4f}%s", name,
                Median(with), Median(without), Median(Ratios(with, without)), separator);
}

struct Pair {
    const char* name;
    int family;
    std::uint16_t port;
};

constexpr Pair kPairs[] = {
    {"v4", AF_INET, kMonitoredPort},
    {"v6", AF_INET6, kMonitoredPort},
    {"other", AF_INET, kOtherPort},
};

}  // namespace

int main()
{
    StayOnOneProcessor();
    const int bare = EnterNewNetwork();
    const int counted = EnterNewNetwork();
    StartCounting();
    std::vector<LoopbackPair> with, without;
    for (const Pair& pair : kPairs) {
        with.emplace_back(counted, pair.family, pair.port);
        without.emplace_back(bare, pair.family, pair.port);
    }
    for (int round = 0; round < kRounds; ++round)
        for (std::size_t i = 0; i < with.size(); ++i) {
            (round % 2 ? with : without)[i].MeasureRound();
            (round % 2 ? without : with)[i].MeasureRound();
        }
    std::printf("{");
    for (std::size_t i = 0; i < with.size(); ++i) {
        const std::string name = kPairs[i].name;
        Print((name + "_round_trip").c_str(), with[i].round_trips, without[i].round_trips, ", ");
        Print((name + "_connection").c_str(), with[i].connections, without[i].connections,
              i + 1 == with.size() ? "}\n" : ", ");
    }
    return 0;
}
