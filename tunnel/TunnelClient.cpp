#include "tunnel/TunnelClient.h"

#include <chrono>
#include <thread>

#include "log/Log.h"
#include "tunnel/TunnelConnection.h"

namespace nox::tunnel_client {

TunnelClient::TunnelClient(const TunnelConfig& tunnelConfig, const Delays& fixedDelays)
    : config(tunnelConfig), delays(fixedDelays) {}

void TunnelClient::Run() {
    ServeConnection();
    for (int connections = 1; connections < maxConnections; ++connections) {
        std::this_thread::sleep_for(delays.Seconds(config.tunnelReconnectSeconds));
        LogWrite("TunnelClient", 50, logError, "Tunnel reconnecting...");
        ServeConnection();
    }
    LogWrite("TunnelClient", 45, logError, "Too many reconnects, will restart discovery");
}

void TunnelClient::ServeConnection() {
    constexpr std::chrono::seconds glance{1};
    asio::io_context ioContext(1);  // one thread runs it; the resolver's own thread only posts to it
    TunnelConnection connection(ioContext, config, delays);
    connection.Connect();
    // The kernel may refuse to watch the descriptor by which the resolver's thread wakes this one, and asio
    // does not report that. Nothing else comes from another thread.
    while (connection.IsResolving()) ioContext.run_one_for(glance);
    ioContext.run();
}

}  // namespace nox::tunnel_client
