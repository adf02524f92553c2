#include "tunnel/SessionTable.h"

#include <utility>

#include "log/Log.h"
#include "tunnel/ControlMessages.h"

namespace nox::tunnel_client {

SessionTable::SessionTable(asio::io_context& io, const std::string& secret, FrameWriter& frameWriter,
                           const Delays& fixedDelays)
    : ioContext(io),
      password(secret),
      writer(frameWriter),
      delays(fixedDelays),
      memory(io),
      turns(io, frameWriter, fixedDelays.stall) {}

// "connected-session" is sent before the service has been tried; a service that refuses is reported
// afterwards. An id that is in use gets a new connection: the old one closes without a message.
void SessionTable::OpenSession(const SessionParams& params) {
    const std::string& id = params.sessionId;
    LogWrite("TunnelClient", 305, logDebug, "New session (%s) to port %d", id.c_str(), params.localPort);
    SessionOwner* const owner = this;
    const auto session = std::make_shared<ServiceConnection>(params, owner, ioContext, delays);
    sessions[id] = session;
    LogWrite("TunnelClient", 309, logVerbose, "Sending connected-session message for %s", id.c_str());
    QueueMessage(TunnelMessage(controlFrame, "", BuildConnectedSessionMessage(password, id)));
    session->Connect();
    // A frame can still arrive after StopAll: without this, the run would last until the service hangs up.
    if (isStopping) session->Stop();
}

void SessionTable::EndSession(const std::string& sessionId) {
    const auto session = sessions.find(sessionId);
    if (session == sessions.end()) {
        LogWrite("TunnelClient", 328, logDebug, "Session %s not found", sessionId.c_str());
        return;
    }
    LogWrite("TunnelClient", 323, logDebug, "Session %s ended", sessionId.c_str());
    session->second->Stop();
}

void SessionTable::StopAll() {
    isStopping = true;
    for (const auto& [id, session] : sessions) session->Stop();
}

// All 16 characters count: an id that the server did not give 16 characters has no data here.
void SessionTable::Deliver(std::string_view sessionId, std::string_view payload) {
    const auto session = sessions.find(sessionId);
    if (session == sessions.end()) {
        LogWrite("TunnelClient", 224, logError, "Received data for unknown session %s",
                 std::string(sessionId).c_str());
        return;
    }
    session->second->QueueData(payload);
    reached.push_back(session->second);
}

void SessionTable::SendArrived() {
    for (const auto& entry : reached)
        if (const auto session = entry.lock()) session->SendArrived();
    reached.clear();
}

// By the id on the wire, whichever session has it now: a session with another length of id is never told, and
// pauses for good after its first frames.
void SessionTable::UploadFinished(TunnelMessage& frame) {
    const auto session = sessions.find(frame.SessionId());
    if (session != sessions.end()) {
        session->second->UploadFinished();
    } else {
        LogWrite("TunnelClient", 424, logDebug, "In SendAsync, session %s not found",
                 std::string(frame.SessionId()).c_str());
    }
    memory.Release(std::move(frame.data));
}

void SessionTable::QueueMessage(TunnelMessage message) { writer.QueueMessage(std::move(message)); }

void SessionTable::ServiceConnectionFailed(const std::string& sessionId) {
    LogWrite("TunnelClient", 348, logVerbose, "Service connection failed: %s", sessionId.c_str());
    SendDisconnectSession(sessionId);
}

void SessionTable::SendDisconnectSession(const std::string& sessionId) {
    LogWrite("TunnelClient", 354, logVerbose, "Sending disconnect-session message for %s", sessionId.c_str());
    QueueMessage(TunnelMessage(controlFrame, "", BuildDisconnectSessionMessage(password, sessionId)));
}

void SessionTable::RemoveStoppedSession(const std::string& sessionId) {
    const auto session = sessions.find(sessionId);
    if (session == sessions.end()) {
        LogWrite("TunnelClient", 366, logError, "Stopped session %s not found", sessionId.c_str());
        return;
    }
    LogWrite("TunnelClient", 362, logDebug, "Removing stopped session %s", sessionId.c_str());
    sessions.erase(session);
    if (sessions.empty()) memory.Trim();
}

}  // namespace nox::tunnel_client
