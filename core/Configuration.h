#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace nox::tunnel_client {

/// One local service that the device offers through the tunnel.
struct Route {
    std::string serviceName;
    std::int32_t remotePort = 0;  ///< TCP port of the service on the device
};

/// What registration needs to know; filled once at start by LoadConfiguration.
struct RegistrationConfig {
    std::string ssoHost;  ///< numeric address; the SSO service is always on the loopback interface
    std::int32_t ssoPort = 0;
    std::int32_t registrationReconnectSeconds = 0;  ///< pause between two cycles
    std::string dvrUsername;
    std::string dvrPassword;
    std::string deviceType;
    std::string deviceName;
    std::string macAddress;
    std::string deviceId;  ///< empty: the SSO service's certificate id is used instead
    std::vector<Route> routes;
};

/// What the tunnel needs to know. Timers come from the configuration, everything else from each registration.
struct TunnelConfig {
    std::string username;
    std::string password;  ///< also the secret that signs control messages
    std::string serverHost;
    std::int32_t serverPort = 0;
    std::string deviceId;
    std::int32_t tunnelReconnectSeconds = 0;  ///< pause between two connections of one run
    std::int32_t tunnelHeartbeatSeconds = 0;
};

/// Where and how much to log.
struct LogConfig {
    std::string path;        ///< base path of the log file; empty: standard output
    std::int32_t level = 0;  ///< 0 (off) to 5 (verbose), see log/Log.h
};

}  // namespace nox::tunnel_client
