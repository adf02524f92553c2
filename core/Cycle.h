#pragma once

#include "registration/RegistrationClient.h"
#include "tunnel/TunnelConfig.h"

namespace nox::tunnel_client {

/// One turn of the agent's endless cycle: registers, then builds a tunnel from the result and runs it until
/// it gives up. Nothing of the tunnel is left afterwards. A std::exception from any of this ends the turn
/// with one log line; the caller makes the pause between turns.
/// @param configured the tunnel's record as LoadConfiguration returns it; its timers are used
void RunTurn(RegistrationClient& registration, const TunnelConfig& configured);

}  // namespace nox::tunnel_client
