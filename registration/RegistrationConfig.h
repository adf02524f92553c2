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

/// Settings of the registration; LoadConfiguration reads them once at the start.
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

}  // namespace nox::tunnel_client
