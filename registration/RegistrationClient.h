#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "json/json.h"
#include "registration/CurlConnection.h"
#include "registration/RegistrationConfig.h"

namespace nox::tunnel_client {

/// The result of a registration: where the tunnel server is, and how the device logs in there.
struct TunnelAccess {
    std::string serverHost;
    std::int32_t serverPort = 0;
    std::string deviceId;  ///< the configured one; when that is empty, the SSO service's certificate id
    std::string username;
    std::string password;
};

/// Registers the device and its routes with the cloud, and returns how to reach the tunnel server.
///
///   once:       discovery data from the SSO service -> certificate id from it, unless a device id is known
///   each time:  token from the SSO service -> RemoveDevice -> AddDevice -> AddRoute for each route
///
/// Discovery is repeated until it has succeeded once; its results are kept and never refreshed.
///
/// A process has one instance, used by one thread; every call blocks.
class RegistrationClient {
public:
    explicit RegistrationClient(const RegistrationConfig& configuration);

    /// Makes one registration. Nothing is tried twice: the caller calls again after a pause.
    /// @throws std::runtime_error "Discovery failed" or "Registration failed"; the reason is in the log
    TunnelAccess Register();

private:
    void SetMacAddress(const std::string& mac);

    void DiscoverOnce();
    void Discover();
    void ReadDiscoveryData(const json::jobject& data);
    std::string FindDeviceId() const;

    TunnelAccess RegisterDevice();
    void RemoveDevice(const std::string& token);
    void ParseApiVersion(const std::string& body);
    TunnelAccess AddDevice(const std::string& token);
    TunnelAccess ReadAddDeviceReply(const json::jobject& reply) const;
    std::pair<std::string, std::string> TunnelCredentials(const json::jobject& data) const;
    void AddRoutes(const std::string& token);
    void AddRoute(const std::string& token, const Route& route);
    void CheckResponse(const HttpResponse& response);

    json::jobject ClientObject() const;
    void AddCredentials(json::jobject& object) const;
    void AddCredentialsAndMetadata(json::jobject& client) const;
    json::jobject RouteObject(const Route& route) const;

    /// The API's version when its reply names none.
    static constexpr std::int32_t oldestVersion = 0x010000;

    const RegistrationConfig config;
    std::string normalizedMac;  // lower-case hexadecimal digits only
    std::string avlId;          // the last eight digits; empty when there are fewer
    bool discovered = false;
    std::string apiEndpoint;  // base URL of the registration API
    std::string deviceId;
    std::string tenantId;
    std::string clientMode;
    CurlConnection curl;
    std::int32_t ssoResetCountdown = 0;       // refusals left before the SSO service is reset
    std::int32_t apiVersion = oldestVersion;  // one byte for each part, see PackVersion
};

}  // namespace nox::tunnel_client
