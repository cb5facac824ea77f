// TCP's retransmission of SYN and SYN-ACK (tcp_syn_retries, tcp_synack_retries in tcp(7)).
#include "engines/linux/scan/HandshakeTimeout.h"

#include <algorithm>

#include "engines/linux/proc/Sysctl.h"

namespace vxi {

namespace {

// What the kernel allows for both settings (net/ipv4/sysctl_net_ipv4.c).
constexpr unsigned kRetriesMax = 127;

unsigned Retries(const char* setting, unsigned standard)
{
    const auto retries = ReadSysctl(setting);
    return retries && *retries >= 0 ? static_cast<unsigned>(*retries) : standard;
}

}  // namespace

std::uint32_t HandshakeTimeoutS(unsigned retries)
{
    constexpr std::uint32_t kLongestWaitS = 120;  // TCP_RTO_MAX in include/net/tcp.h
    constexpr std::uint32_t kMarginS = 3;
    std::uint32_t sum_s = 0;
    for (unsigned i = 0; i <= std::min(retries, kRetriesMax); ++i) {
        sum_s += i < 7 ? 1U << i : kLongestWaitS;
    }
    return sum_s + kMarginS;
}

std::uint32_t ConfiguredHandshakeTimeoutS(std::uint32_t direction)
{
    return HandshakeTimeoutS(direction == VXI_SCAN_INBOUND
                                 ? Retries("net.ipv4.tcp_synack_retries", 5)
                                 : Retries("net.ipv4.tcp_syn_retries", 6));
}

}  // namespace vxi
