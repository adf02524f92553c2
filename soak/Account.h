#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "soak/Endpoint.h"
#include "soak/Plan.h"

namespace soak {

/// What the agent's log says about a session.
struct AgentWords {
    bool endedByServer = false;  ///< "end_session" has come: five seconds until its socket closes
    bool serviceEnded = false;   ///< the service's end was read: everything before it has been read, too
    bool readFailed = false;     ///< a reset
    bool writeFailed = false;    ///< the service took no more, and is not read any more either
    bool forgotten = false;      ///< data came after the session had left the table
};

/// What the server says when a session ends. Bytes count as they pass its door to the device.
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
    bool turnedAway = false;     ///< by a server whose device was not connected
    bool struck = false;         ///< the server died while it lived
    bool tunnelWasHeld = false;  ///< somebody's client had stopped reading shortly before the service's end
    std::optional<ServerWords> server;
    AgentWords agent;
};

}  // namespace soak
