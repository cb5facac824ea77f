// Delivers messages to the handler that the host installed.
#include "api/HostMessages.h"

#include <atomic>

#include "api/BoundedText.h"
#include "vxi/engine.h"

namespace vxi {

namespace {

std::atomic<vxi_message_handler> message_handler{nullptr};

}  // namespace

void ReportToHost(const std::string& message)
{
    const vxi_message_handler handler = message_handler;
    if (handler) {
        char text[512];
        BoundedText(text).Escaped(message);
        handler(text);
    }
}

std::string UncountedMessage(unsigned int port, std::uint64_t count, const std::string& cause)
{
    return "port " + std::to_string(port) + ": " + std::to_string(count) +
           " new connections are not counted: " + cause;
}

}  // namespace vxi

void vxi_set_message_handler(vxi_message_handler handler)
{
    vxi::message_handler = handler;
}
