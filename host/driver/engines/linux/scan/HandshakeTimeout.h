// How long a TCP handshake can stay unfinished.
#pragma once

#include <cstdint>

namespace vxi {

// Seconds until the kernel gives up a handshake whose last packet is retransmitted `retries` times.
std::uint32_t HandshakeTimeoutS(unsigned retries);

// The same with this network namespace's setting for the packet that is retransmitted: inbound, the
// SYN-ACK of the port's owner; outbound (VXI_SCAN_OUTBOUND), the opener's SYN.
std::uint32_t ConfiguredHandshakeTimeoutS(std::uint32_t direction);

}  // namespace vxi
