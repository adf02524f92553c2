#pragma once

#include <cstdint>
#include <string>

namespace nox::tunnel_client {

/// Settings of the tunnel. Timers come from the configuration, everything else from each registration.
struct TunnelConfig {
    std::string username;
    std::string password;  ///< also the secret that signs control messages
    std::string serverHost;
    std::int32_t serverPort = 0;
    std::string deviceId;
    std::int32_t tunnelReconnectSeconds = 0;  ///< pause between two connections of one run
    std::int32_t tunnelHeartbeatSeconds = 0;
};

}  // namespace nox::tunnel_client
