#include "core/Cycle.h"

#include <exception>
#include <utility>

#include "log/Log.h"
#include "tunnel/TunnelClient.h"

namespace nox::tunnel_client {

namespace {

TunnelConfig Join(TunnelConfig configured, TunnelAccess access) {
    configured.serverHost = std::move(access.serverHost);
    configured.serverPort = access.serverPort;
    configured.deviceId = std::move(access.deviceId);
    configured.username = std::move(access.username);
    configured.password = std::move(access.password);
    return configured;
}

}  // namespace

void RunTurn(RegistrationClient& registration, const TunnelConfig& configured) {
    try {
        TunnelClient(Join(configured, registration.Register())).Run();
    } catch (const std::exception& failure) {
        LogWrite("client", 219, logError, "Tunnel client error: %s", failure.what());
    }
}

}  // namespace nox::tunnel_client
