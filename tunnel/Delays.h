#pragma once

#include <chrono>

namespace nox::tunnel_client {

/// The tunnel's fixed delays. The defaults are what the agent runs with; tests pass milliseconds.
struct Delays {
    std::chrono::milliseconds verificationLimit =
        std::chrono::seconds(15);                                     ///< connect to first good signature
    std::chrono::milliseconds tunnelClose = std::chrono::seconds(5);  ///< stop to closing the tunnel's socket
    std::chrono::milliseconds sessionClose = std::chrono::seconds(5);  ///< stop to closing a session's socket
    std::chrono::milliseconds sessionRemoval =
        std::chrono::seconds(5);  ///< closed to leaving the session table
    std::chrono::milliseconds stall =
        std::chrono::seconds(1);  ///< without a byte leaving: then services are read ahead
    std::chrono::milliseconds second = std::chrono::seconds(1);  ///< how long a configured second lasts
};

}  // namespace nox::tunnel_client
