#include "core/Cycle.h"

#include <exception>

#include "log/Log.h"
#include "tunnel/TunnelClient.h"

namespace nox::tunnel_client {

namespace {

void RegisterAndRun(RegistrationClient& registration, TunnelConfig& tunnel, const Delays& delays) {
    registration.Register();
    tunnel.serverHost = registration.GetTunnelServerHost();
    tunnel.serverPort = registration.GetTunnelServerPort();
    tunnel.deviceId = registration.GetDeviceId();
    tunnel.username = registration.GetTunnelUsername();
    tunnel.password = registration.GetTunnelPassword();
    TunnelClient(tunnel, delays).Run();
}

}  // namespace

void RunTurn(RegistrationClient& registration, TunnelConfig& tunnel, const Delays& delays) {
    try {
        RegisterAndRun(registration, tunnel, delays);
    } catch (const std::exception& failure) {
        LogWrite("client", 219, logError, "Tunnel client error: %s", failure.what());
    }
}

}  // namespace nox::tunnel_client
