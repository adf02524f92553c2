#include "tunnel/TunnelConnection.h"

#include <netinet/tcp.h>
#include <sys/socket.h>

#include "log/Log.h"

namespace nox::tunnel_client {

using asio::ip::tcp;

TunnelConnection::TunnelConnection(asio::io_context& io, const TunnelConfig& tunnelConfig,
                                   const Delays& fixedDelays)
    : ioContext(io), config(tunnelConfig), delays(fixedDelays) {}

void TunnelConnection::Connect() {
    LogWrite("TunnelClient", 98, logInfo, "Connecting to tunnel server %s:%d", config.serverHost.c_str(),
             config.serverPort);
    resolver.async_resolve(config.serverHost, std::to_string(config.serverPort),
                           tcp::resolver::address_configured, Handler(&TunnelConnection::OnResolved));
}

void TunnelConnection::OnResolved(std::error_code error, const tcp::resolver::results_type& endpoints) {
    state = State::Open;
    if (error) {
        LogWrite("TunnelClient", 104, logError, "Failed to resolve server: (%d) %s", error.value(),
                 error.message().c_str());
        return;
    }
    LogWrite("TunnelClient", 107, logVerbose, "Resolved server, connecting...");
    asio::async_connect(socket, endpoints, Handler(&TunnelConnection::OnConnected));
}

void TunnelConnection::OnConnected(std::error_code error, const tcp::endpoint&) {
    if (!error) socket.non_blocking(true, error);
    if (error) {
        LogWrite("TunnelClient", 112, logError, "Failed to connect: (%d) %s", error.value(),
                 error.message().c_str());
        return;
    }
    LogWrite("TunnelClient", 115, logVerbose, "Connected to server, sending verification message...");
    TuneSocket();
    writer.QueueMessage(TunnelMessage(controlFrame, "", BuildVerifyMessage(config)));
    verificationTimer.expires_after(delays.verificationLimit);
    verificationTimer.async_wait(Handler(&TunnelConnection::OnVerificationTimer));
    asio::post(ioContext, Handler(&TunnelConnection::ListenToTunnelServer));
}

// Without these options everything still works, so their failure is no error. A small frame must not wait for
// the acknowledgement of the one before. And on a slow uplink the kernel would take megabytes of an upload,
// which takes the line seconds to send, while every other session has to wait; so it gets little more than it
// can send.
void TunnelConnection::TuneSocket() {
    std::error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    setsockopt(socket.native_handle(), IPPROTO_TCP, TCP_NOTSENT_LOWAT, &maxUnsentBytes,
               sizeof maxUnsentBytes);
}

// Never cancelled: a connection lasts at least as long as this timer.
void TunnelConnection::OnVerificationTimer(std::error_code) {
    if (isVerified) return;
    LogWrite("TunnelClient", 122, logError, "Verification timeout");
    Stop();
}

// ---- Frames from the server

void TunnelConnection::ListenToTunnelServer() {
    if (state != State::Stopping) reader.ListenToTunnelServer();
}

// The frame whose reading was under way when the connection had to stop is still acted on, and no other.
bool TunnelConnection::HandleMessage(const FrameHeader& header, std::string_view payload) {
    // A session that this message ends or replaces must first get the data that arrived before the message.
    if (header.type != dataFrame) sessions.SendArrived();
    LogWrite("TunnelClient", 214, logVerbose, "Received message, type %d, length %d", header.type,
             static_cast<int>(payload.size()));
    switch (header.type) {
        case dataFrame:
            if (!payload.empty()) sessions.Deliver(header.SessionId(), payload);
            break;
        case heartbeatFrame:
        case unusedFrame: break;
        case controlFrame: HandleControlMessage(std::string(payload)); break;
        default: LogWrite("TunnelClient", 238, logError, "Unknown message type %d", header.type);
    }
    return state != State::Stopping;
}

// A message that cannot be read is dropped; the connection goes on. Only the JSON library's own errors count
// as that: those of a new session's port and address end the run.
void TunnelConnection::HandleControlMessage(const std::string& text) {
    try {
        const ServerMessage message(text);
        if (message.IsSigned() && Verify(message)) ActOn(message);
    } catch (const json::parsing_error& error) {
        LogWrite("TunnelClient", 337, logError, "Failed to parse server message: %s", error.what());
    } catch (const json::invalid_key& error) {
        LogWrite("TunnelClient", 341, logError, "Invalid JSON key: %s", error.what());
    }
}

bool TunnelConnection::Verify(const ServerMessage& message) {
    if (!message.IsGenuine(config.password)) {
        Stop();
        return false;
    }
    if (isVerified) return true;
    LogWrite("TunnelClient", 270, logInfo, "Message signature verified");
    isVerified = true;
    SendHeartbeat();
    return true;
}

void TunnelConnection::ActOn(const ServerMessage& message) {
    const std::string method = message.Method();
    if (method == "message") {
        message.LogText();
    } else if (method == "new_session") {
        if (const auto session = message.NewSession()) sessions.OpenSession(*session);
    } else if (method == "end_session") {
        if (const auto id = message.EndedSession()) sessions.EndSession(*id);
    } else if (method == "conflict") {
        // Only logged: the server decides which of the two connections has to go.
        LogWrite("TunnelClient", 332, logInfo,
                 "Device was already connected to server, disconnecting other client");
    }
}

// ---- Frames to the server

void TunnelConnection::OnFrameSent(TunnelMessage& frame) {
    if (frame.type == dataFrame) sessions.UploadFinished(frame);
}

void TunnelConnection::SendHeartbeat() {
    if (state == State::Stopping || !isVerified) {
        LogWrite("TunnelClient", 445, logInfo, "Stopping heartbeat messages");
        return;
    }
    LogWrite("TunnelClient", 448, logInfo, "Sending heartbeat");
    writer.QueueMessage(TunnelMessage(heartbeatFrame));
    heartbeatTimer.expires_after(delays.Seconds(config.tunnelHeartbeatSeconds));
    heartbeatTimer.async_wait(Handler(&TunnelConnection::OnHeartbeatTimer));
}

void TunnelConnection::OnHeartbeatTimer(std::error_code error) {
    if (!error) return SendHeartbeat();
    LogWrite("TunnelClient", 455, logError, "Heartbeat timer error: (%d) %s", error.value(),
             error.message().c_str());
    Stop();
}

// ---- The end

// Sending goes on until the socket closes, so that the ends of sessions still reach the server. The sessions
// leave the table by themselves.
void TunnelConnection::Stop() {
    if (state == State::Stopping) return;
    state = State::Stopping;
    closeTimer.expires_after(delays.tunnelClose);
    closeTimer.async_wait(Handler(&TunnelConnection::OnCloseDelayOver));
    sessions.StopAll();
}

// The read that was waiting now fails, which its log line shows, and so does a write.
void TunnelConnection::OnCloseDelayOver(std::error_code) {
    LogWrite("TunnelClient", 147, logDebug, "Closing tunnel server socket after timer delay");
    std::error_code ignored;  // nothing follows from a close that failed: the descriptor is gone either way
    socket.close(ignored);
}

}  // namespace nox::tunnel_client
