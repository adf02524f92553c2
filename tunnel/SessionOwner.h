#pragma once

#include <string>

#include "tunnel/PayloadMemory.h"
#include "tunnel/ReadTurns.h"
#include "tunnel/TunnelMessage.h"

namespace nox::tunnel_client {

/// The tunnel, as the ServiceConnections of its sessions use it. All calls come from the event loop's
/// thread. A session id passed here is that of the connection that calls.
class SessionOwner {
public:
    virtual ~SessionOwner() = default;
    /// Bytes read from the local service, as a data frame for the server. The payload is a copy made by
    /// Memory.
    virtual void QueueMessage(TunnelMessage message) = 0;
    /// The connection to the local service could not be made.
    virtual void ServiceConnectionFailed(const std::string& sessionId) = 0;
    /// An established connection failed while reading or writing.
    virtual void SendDisconnectSession(const std::string& sessionId) = 0;
    /// The delayed shutdown is over; the owner may let go.
    virtual void RemoveStoppedSession(const std::string& sessionId) = 0;

    /// The turns and the memory that all sessions of the tunnel share; they outlive the sessions.
    virtual ReadTurns& Turns() = 0;
    virtual PayloadMemory& Memory() = 0;
};

}  // namespace nox::tunnel_client
