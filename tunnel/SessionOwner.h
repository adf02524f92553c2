#pragma once

#include <memory>
#include <string>

#include "tunnel/PayloadPipe.h"
#include "tunnel/TunnelMessage.h"

namespace nox::tunnel_client {

class ServiceConnection;

/// What a ServiceConnection tells the one who owns it; the tunnel client in the agent. All calls come from
/// the event loop's thread. A session id passed here belongs to the connection that calls.
class SessionOwner {
public:
    virtual ~SessionOwner() = default;
    /// Bytes read from the local service, as a data frame for the server.
    virtual void QueueMessage(TunnelMessage message) = 0;
    /// A session of which so many frames wait for the server may read its service at once: no other's wait,
    /// or nothing moves anyway.
    virtual bool HasRoom(int ownFrames) const = 0;
    /// Calls the session's ReadInTurn later, once: when its turn comes, or nothing moves anyway.
    virtual void WaitForRoom(std::weak_ptr<ServiceConnection> session) = 0;
    /// Memory for a payload that QueueMessage is to be given: an earlier one's, whatever it holds, or an empty string.
    virtual std::string SparePayload() = 0;
    /// A payload has been written to the service; its memory may serve another.
    virtual void PayloadWritten(std::string payload) = 0;
    /// The pipe that brought a payload is empty and may serve another.
    virtual void PipeEmptied(PayloadPipe pipe) = 0;
    /// The connection to the local service could not be made.
    virtual void ServiceConnectionFailed(const std::string& sessionId) = 0;
    /// An established connection failed while reading or writing.
    virtual void SendDisconnectSession(const std::string& sessionId) = 0;
    /// The delayed shutdown is over; the owner may let go.
    virtual void RemoveStoppedSession(const std::string& sessionId) = 0;
};

}  // namespace nox::tunnel_client
