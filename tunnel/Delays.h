#pragma once

#include <chrono>
#include <cstdint>

namespace nox::tunnel_client {

/// The tunnel's fixed delays. The defaults are the agent's own; tests pass milliseconds.
struct Delays {
    /// From the connect to the first good signature.
    std::chrono::milliseconds verificationLimit = std::chrono::seconds(15);
    /// From the stop of a connection to the closing of its socket.
    std::chrono::milliseconds tunnelClose = std::chrono::seconds(5);
    /// From the stop of a session to the closing of its socket.
    std::chrono::milliseconds sessionClose = std::chrono::seconds(5);
    /// From there to its leaving the session table.
    std::chrono::milliseconds sessionRemoval = std::chrono::seconds(5);
    /// When not a byte has left the device for this long, services are read ahead.
    std::chrono::milliseconds stall = std::chrono::milliseconds(250);
    /// The length of a configured second.
    std::chrono::milliseconds second = std::chrono::seconds(1);

    /// The configured number is taken without its sign: -1 is 4294967295 seconds, as it has always been.
    std::chrono::milliseconds Seconds(std::int32_t count) const {
        return static_cast<std::uint32_t>(count) * second;
    }
};

}  // namespace nox::tunnel_client
