#pragma once

#include "registration/RegistrationClient.h"
#include "tunnel/Delays.h"
#include "tunnel/TunnelConfig.h"

namespace nox::tunnel_client {

/// One turn of the agent's endless cycle: registers, puts what registration yields into
/// `tunnel`, then builds a tunnel from it and runs it until it gives up. Nothing of the tunnel
/// is left afterwards. Failure of any of this (a std::exception) ends the turn with a log line
/// and no more; the pause between turns is the caller's.
/// @param tunnel its timers stay as configured from turn to turn
void RunTurn(RegistrationClient& registration, TunnelConfig& tunnel, const Delays& delays = {});

}  // namespace nox::tunnel_client
