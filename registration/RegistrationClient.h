#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "json/json.h"
#include "registration/CurlConnection.h"
#include "registration/RegistrationConfig.h"

namespace nox::tunnel_client {

/// Registers the device and its routes with the cloud, and so learns where the tunnel server
/// is and what to say to it.
///
///   once:       discovery data from the SSO service -> certificate id from it, unless a device id is configured
///   each time:  token from the SSO service -> RemoveDevice -> AddDevice -> AddRoute for each route
///
/// Discovery is repeated until it succeeds once in the process's life; what it found is never refreshed.
///
/// One per process, used by one thread; every call blocks.
class RegistrationClient {
public:
    explicit RegistrationClient(const RegistrationConfig& configuration);

    /// One registration. Nothing is tried twice: calling again, after a pause, is the caller's.
    /// @throws std::runtime_error "Discovery failed" or "Registration failed"; why is in the log
    void Register();

    // Where the tunnel is, as of the last Register() that returned.
    std::string GetTunnelServerHost() const { return tunnelServerHost; }
    std::int32_t GetTunnelServerPort() const { return tunnelServerPort; }
    std::string GetDeviceId() const { return deviceId; }  ///< the configured one, or else the certificate id
    std::string GetTunnelUsername() const { return tunnelUsername; }
    std::string GetTunnelPassword() const { return tunnelPassword; }

private:
    void SetMacAddress(const std::string& mac);

    void DiscoverOnce();
    void Discover();
    void ReadDiscoveryData(const json::jobject& data);
    std::string FindDeviceId() const;

    void RegisterDevice();
    void RemoveDevice(const std::string& token);
    void ParseApiVersion(const std::string& body);
    void AddDevice(const std::string& token);
    void ReadAddDeviceReply(const json::jobject& reply);
    std::pair<std::string, std::string> TunnelCredentials(const json::jobject& data) const;
    void AddRoutes(const std::string& token);
    void AddRoute(const std::string& token, const Route& route);
    void CheckResponse(const HttpResponse& response);

    json::jobject ClientObject() const;
    void AddCredentials(json::jobject& object) const;
    void AddCredentialsAndMetadata(json::jobject& client) const;
    json::jobject RouteObject(const Route& route) const;

    /// The API's version when it does not tell.
    static constexpr std::int32_t oldestVersion = 0x010000;

    const RegistrationConfig config;
    std::string normalizedMac;  // lower-case hexadecimal digits only
    std::string avlId;          // the last eight of them, or empty
    bool discovered = false;
    std::string apiEndpoint;  // base URL of the registration API
    std::string tunnelServerHost;
    std::int32_t tunnelServerPort = 0;
    std::string deviceId;
    std::string tenantId;
    std::string clientMode;
    CurlConnection curl;
    std::int32_t ssoResetCountdown = 0;       // refusals left before the SSO service is reset
    std::int32_t apiVersion = oldestVersion;  // a byte for each part, see ParseApiVersion
    std::string tunnelUsername;
    std::string tunnelPassword;
};

}  // namespace nox::tunnel_client
