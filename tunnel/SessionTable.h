#pragma once

#include <asio.hpp>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tunnel/Delays.h"
#include "tunnel/FrameWriter.h"
#include "tunnel/PayloadMemory.h"
#include "tunnel/ReadTurns.h"
#include "tunnel/ServiceConnection.h"
#include "tunnel/SessionOwner.h"

namespace nox::tunnel_client {

/// The sessions of one tunnel connection, by id: opens and ends them, hands them the data that the server
/// sends, and queues their frames for the server. Everything runs on the thread of `io`.
class SessionTable : SessionOwner {
public:
    /// @param secret, frameWriter, fixedDelays not owned, outlive the table
    SessionTable(asio::io_context& io, const std::string& secret, FrameWriter& frameWriter,
                 const Delays& fixedDelays);

    /// @param session its host is a numeric address
    /// @throws std::system_error when it is not; the session is in the table then
    void OpenSession(const SessionParams& session);
    void EndSession(const std::string& sessionId);
    /// Stops all sessions, in the order of their ids, and later those that are still opened. They leave the
    /// table by themselves.
    void StopAll();

    /// A data frame from the server. @param payload not empty, not copied: stays valid until SendArrived
    void Deliver(std::string_view sessionId, std::string_view payload);
    /// Writes the payloads that were delivered since the last call to their services, or copies them.
    void SendArrived();
    /// A data frame to the server has been written. Moves its payload out.
    void UploadFinished(TunnelMessage& frame);
    /// No frame waits for the server any more.
    void OnQueueEmpty() { turns.GiveTurns(); }

private:
    void QueueMessage(TunnelMessage message) override;
    void ServiceConnectionFailed(const std::string& sessionId) override;
    void SendDisconnectSession(const std::string& sessionId) override;
    void RemoveStoppedSession(const std::string& sessionId) override;
    ReadTurns& Turns() override { return turns; }
    PayloadMemory& Memory() override { return memory; }

    asio::io_context& ioContext;
    const std::string& password;
    FrameWriter& writer;
    const Delays& delays;
    PayloadMemory memory;
    ReadTurns turns;
    bool isStopping = false;
    std::map<std::string, std::shared_ptr<ServiceConnection>, std::less<>> sessions;
    std::vector<std::weak_ptr<ServiceConnection>> reached;  // given data in this batch
};

}  // namespace nox::tunnel_client
