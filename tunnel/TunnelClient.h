#pragma once

#include "tunnel/Delays.h"
#include "tunnel/TunnelConfig.h"

namespace nox::tunnel_client {

/// The agent's end of the tunnel: three connections to one tunnel server, one after the other.
class TunnelClient {
public:
    /// Opens nothing.
    explicit TunnelClient(const TunnelConfig& tunnelConfig, const Delays& fixedDelays = {});

    /// Serves three connections and returns when the last has ended. The count is never reset: a connection
    /// that served for days counts like one that was refused, so registration is renewed now and then.
    /// @throws everything that a handler throws: std::invalid_argument or std::out_of_range for a "localPort"
    ///         that is no number, std::system_error for a "localHost" that is no numeric address
    void Run();

private:
    static constexpr int maxConnections = 3;

    void ServeConnection();

    TunnelConfig config;
    Delays delays;
};

}  // namespace nox::tunnel_client
