#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "soak/Endpoint.h"
#include "soak/Plan.h"

namespace soak {

/// The facts that the agent's log tells about a session.
struct AgentWords {
    bool endedByServer = false;  ///< "end_session" has come: five seconds until its socket closes
    bool serviceEnded = false;   ///< the service's end was read, and so was everything before it
    bool readFailed = false;     ///< a reset
    bool writeFailed = false;    ///< the service took no more, and is not read any more either
    bool forgotten = false;      ///< data came after the session had left the table
};

/// The figures that the server reports when a session ends. Bytes count as they enter or leave its tunnel.
struct ServerWords {
    std::uint64_t toDevice = 0, fromDevice = 0;
    std::string closedBy;  ///< "client", "device" or "lab"
};

/// Everything known about one session.
struct Account {
    std::uint64_t number = 0;
    std::size_t route = 0;
    Plan plan;
    EndRecord client, service;
    bool turnedAway = false;  ///< by a server whose device was not connected
    bool struck = false;      ///< the tunnel died while it lived, with its server or alone
    /// The last time before the service's end that the agent was found not to run, as on a busy machine.
    Clock::time_point agentPausedUntil;
    bool tunnelWasHeld = false;  ///< a client had stopped reading shortly before the service's end
    std::optional<ServerWords> server;
    AgentWords agent;
};

}  // namespace soak
