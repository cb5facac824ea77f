// How long a TCP handshake can stay unfinished.
#pragma once

#include <cstdint>

namespace vxi {

// Seconds until a handshake is given up whose last packet is sent `retries` times again.
std::uint32_t HandshakeTimeoutS(unsigned retries);

// The same with this network namespace's settings. It depends on who repeats: inbound the owner of
// the port its SYN-ACK, outbound (VXI_SCAN_OUTBOUND) the opener its SYN.
std::uint32_t ConfiguredHandshakeTimeoutS(std::uint32_t direction);

}  // namespace vxi
