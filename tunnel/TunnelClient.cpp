#include "tunnel/TunnelClient.h"

#include <malloc.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <array>
#include <thread>
#include <utility>

#include "log/Log.h"
#include "tunnel/MessageSigning.h"
#include "tunnel/WholeFrame.h"

namespace nox::tunnel_client {

using asio::ip::tcp;

TunnelClient::TunnelClient(const TunnelConfig& tunnelConfig, const Delays& fixedDelays)
    : config(tunnelConfig), delays(fixedDelays) {}

void TunnelClient::Run() {
    for (int attempts = 1; !shutdown; ++attempts) {
        Connect();
        // The kernel may refuse to watch the descriptor by which the resolver's thread wakes this one, and
        // asio does not say so. Nothing else comes from another thread.
        while (resolving) ioContext.run_one_for(glance);
        ioContext.run();
        if (attempts == maxConnections) {
            LogWrite("TunnelClient", 45, logError, "Too many reconnects, will restart discovery");
            return;
        }
        ioContext.restart();
        std::this_thread::sleep_for(Seconds(config.tunnelReconnectSeconds));
        LogWrite("TunnelClient", 50, logError, "Tunnel reconnecting...");
    }
}

// Configured seconds are widened without their sign: -1 is 4294967295 seconds, as it has always been.
std::chrono::milliseconds TunnelClient::Seconds(std::int32_t count) const {
    return static_cast<std::uint32_t>(count) * delays.second;
}

// ---- The connection

void TunnelClient::Connect() {
    verified = false;
    stopping = false;
    resolving = true;
    sendQueue.clear();
    sentBytes = 0;
    sessions.clear();
    LogWrite("TunnelClient", 98, logInfo, "Connecting to tunnel server %s:%d", config.serverHost.c_str(),
             config.serverPort);
    resolver.async_resolve(config.serverHost, std::to_string(config.serverPort),
                           tcp::resolver::address_configured, Handler(&TunnelClient::OnResolved));
}

void TunnelClient::OnResolved(std::error_code error, const tcp::resolver::results_type& endpoints) {
    resolving = false;
    if (error) {
        LogWrite("TunnelClient", 104, logError, "Failed to resolve server: (%d) %s", error.value(),
                 error.message().c_str());
        return;
    }
    LogWrite("TunnelClient", 107, logVerbose, "Resolved server, connecting...");
    asio::async_connect(socket, endpoints, Handler(&TunnelClient::OnConnected));
}

void TunnelClient::OnConnected(std::error_code error, const tcp::endpoint&) {
    if (!error) socket.non_blocking(true, error);
    if (error) {
        LogWrite("TunnelClient", 112, logError, "Failed to connect: (%d) %s", error.value(),
                 error.message().c_str());
        return;
    }
    LogWrite("TunnelClient", 115, logVerbose, "Connected to server, sending verification message...");
    TuneSocket();
    QueueMessage(TunnelMessage(controlFrame, "", BuildVerifyMessage()));
    verificationTimer.expires_after(delays.verificationLimit);
    verificationTimer.async_wait(Handler(&TunnelClient::OnVerificationTimer));
    asio::post(ioContext, Handler(&TunnelClient::ListenToTunnelServer));
}

// Without these options everything still works, so their failure is no error. A small frame must not wait for the
// acknowledgement of the one before. And on a slow uplink the kernel would take megabytes of an upload, seconds ahead
// of the line, for every other session to queue behind; so it gets little more than it can send.
void TunnelClient::TuneSocket() {
    std::error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    setsockopt(socket.native_handle(), IPPROTO_TCP, TCP_NOTSENT_LOWAT, &maxUnsentBytes,
               sizeof maxUnsentBytes);
}

// Never cancelled: a connection lasts at least as long as this timer.
void TunnelClient::OnVerificationTimer(std::error_code) {
    if (verified) return;
    LogWrite("TunnelClient", 122, logError, "Verification timeout");
    Stop();
}

// Sending goes on until the socket closes, so that the ends of sessions still reach the server. The sessions
// leave the table by themselves.
void TunnelClient::Stop() {
    if (stopping) return;
    stopping = true;
    closeTimer.expires_after(delays.tunnelClose);
    closeTimer.async_wait(Handler(&TunnelClient::OnCloseDelayOver));
    for (const auto& [id, session] : sessions) session->Stop();
}

// The read that was waiting now fails and says so in the log, as does a write.
void TunnelClient::OnCloseDelayOver(std::error_code) {
    LogWrite("TunnelClient", 147, logDebug, "Closing tunnel server socket after timer delay");
    std::error_code ignored;  // nothing follows from a close that failed: the descriptor is gone either way
    socket.close(ignored);
}

// ---- Receiving

void TunnelClient::ListenToTunnelServer() {
    if (stopping) return;
    LogWrite("TunnelClient", 162, logVerbose, "Listening to tunnel server");
    asio::async_read(socket, asio::buffer(headerBuffer), Handler(&TunnelClient::OnHeader));
}

void TunnelClient::OnHeader(std::error_code error, std::size_t) {
    if (error) {
        LogWrite("TunnelClient", 168, logError, "ListenToTunnelServer - read header: (%d) %s", error.value(),
                 error.message().c_str());
        return Stop();
    }
    const FrameHeader header = DecodeHeader(headerBuffer);
    LogWrite("TunnelClient", 175, logVerbose, "Header, type %d, len %d", header.type,
             static_cast<int>(header.length));
    if (header.length > maxPayloadBytes) {
        LogWrite("TunnelClient", 178, logError, "Tunnel message size too large: %d",
                 static_cast<int>(header.length));
        return Stop();
    }
    incoming.type = header.type;
    incoming.session = header.session;
    if (incoming.data.capacity() < header.length) incoming.data = spareDownloads.Take();
    incoming.data.resize(header.length);
    SuitsPipe() ? FillPipe({}, 0) : ReadPayload();
}

// Large, and for a service that has taken all that came before. Else it would be copied in the end, and later.
bool TunnelClient::SuitsPipe() const {
    if (incoming.type != dataFrame || incoming.data.size() < PayloadPipe::minBytes) return false;
    const auto session = sessions.find(incoming.SessionId());
    return session != sessions.end() && session->second->CanWrite();
}

// Until it holds the whole payload. If it takes nothing, nothing has come yet or it is full, for it counts packets more
// than bytes: then the rest is read. It waits with a look at the next byte and not for the descriptor, so that of a
// reset it is the reading side that learns the reason, as it does in any other wait.
void TunnelClient::FillPipe(std::error_code error, std::size_t) {
    const std::size_t before = pipe.Size();
    if (!error) pipe.TakeFrom(socket.native_handle(), incoming.data.size() - before, error);
    const std::size_t size = pipe.Size();
    if (size == incoming.data.size()) return OnPayload({}, size);
    if (size > before) {
        return socket.async_receive(asio::buffer(headerBuffer, 1), tcp::socket::message_peek,
                                    Handler(&TunnelClient::FillPipe));
    }
    pipe.CopyTo(incoming.data.data());
    ReadRest(size, error);
}

void TunnelClient::ReadPayload() {
    std::error_code error;
    const std::size_t size = socket.read_some(asio::buffer(incoming.data), error);
    ReadRest(size, error);
}

// Most often there is none.
void TunnelClient::ReadRest(std::size_t size, std::error_code error) {
    if (error && error != asio::error::would_block) return OnPayload(error, size);
    if (size == incoming.data.size()) return OnPayload({}, size);
    asio::async_read(
        socket, asio::buffer(incoming.data) + size, WholeFrame,
        [this, size](std::error_code result, std::size_t rest) { OnPayload(result, size + rest); });
}

void TunnelClient::OnPayload(std::error_code error, std::size_t size) {
    if (error) {
        LogWrite("TunnelClient", 193, logError, "ListenToTunnelServer - read data: (%d) %s", error.value(),
                 error.message().c_str());
        return Stop();
    }
    if (size != incoming.data.size()) {
        LogWrite("TunnelClient", 198, logError, "ListenToTunnelServer - read data: expected %d, got %d",
                 static_cast<int>(incoming.data.size()), static_cast<int>(size));
        return Stop();
    }
    HandleMessage();
}

void TunnelClient::HandleMessage() {
    LogWrite("TunnelClient", 214, logVerbose, "Received message, type %d, length %d", incoming.type,
             static_cast<int>(incoming.data.size()));
    switch (incoming.type) {
        case dataFrame: HandleData(); break;
        case heartbeatFrame:
        case unusedFrame: break;
        case controlFrame: HandleControlMessage(); break;
        default: LogWrite("TunnelClient", 238, logError, "Unknown message type %d", incoming.type);
    }
    ListenToTunnelServer();
}

// All 16 characters count: an id that the server did not give 16 characters has no data here.
void TunnelClient::HandleData() {
    if (incoming.data.empty()) return;
    const auto session = sessions.find(incoming.SessionId());
    if (pipe.Size() > 0 && session != sessions.end() && session->second->CanWrite())
        return session->second->QueueData(std::move(incoming.data), std::move(pipe));
    pipe.CopyTo(incoming.data.data());  // the session failed or ended while the payload came
    if (session != sessions.end()) return session->second->QueueData(std::move(incoming.data));
    LogWrite("TunnelClient", 224, logError, "Received data for unknown session %s",
             std::string(incoming.SessionId()).c_str());
}

// A message that cannot be read costs the server that message, not the connection. Only the JSON library's
// own complaints count as that: what the numbers and addresses of a new session throw ends the run.
void TunnelClient::HandleControlMessage() {
    try {
        ActOn(json::jobject::parse(incoming.data));
    } catch (const json::parsing_error& error) {
        LogWrite("TunnelClient", 337, logError, "Failed to parse server message: %s", error.what());
    } catch (const json::invalid_key& error) {
        LogWrite("TunnelClient", 341, logError, "Invalid JSON key: %s", error.what());
    }
}

void TunnelClient::ActOn(const json::jobject& message) {
    if (!message.has_key("method") || !message["method"].is_string()) {
        LogWrite("TunnelClient", 251, logError, "Missing method in server message");
        return;
    }
    if (!Verify(message)) return;
    if (!verified) {
        LogWrite("TunnelClient", 270, logInfo, "Message signature verified");
        verified = true;
        SendHeartbeat();
    }
    const std::string method = message["method"].as_string();
    if (method == "message") {
        HandleServerText(message);
    } else if (method == "new_session") {
        HandleNewSession(message);
    } else if (method == "end_session") {
        HandleEndSession(message);
    } else if (method == "conflict") {
        // Only said: which of the two connections has to go is the server's business.
        LogWrite("TunnelClient", 332, logInfo,
                 "Device was already connected to server, disconnecting other client");
    }
}

bool TunnelClient::Verify(const json::jobject& message) {
    if (!message.has_key("sign") || !message["sign"].is_string()) {
        LogWrite("TunnelClient", 266, logError, "Missing sign: in server message");
        return false;
    }
    const std::string received = message["sign"].as_string();
    const std::string expected = ComputeSign(config.password, message);
    if (received == expected) return true;
    LogWrite("TunnelClient", 259, logDebug, "Message signature mismatch: %s, %s", received.c_str(),
             expected.c_str());
    LogWrite("TunnelClient", 260, logError, "Failed to verify server message");
    Stop();
    return false;
}

void TunnelClient::HandleServerText(const json::jobject& message) {
    if (!message.has_key("message")) {
        LogWrite("TunnelClient", 279, logWarning, "Missing \"message\" field");
    } else if (message["message"].is_string()) {
        LogWrite("TunnelClient", 283, logInfo, "Tunnel server message: %s",
                 message["message"].as_string().c_str());
    }
}

void TunnelClient::HandleNewSession(const json::jobject& message) {
    const bool complete = message.has_key("session") && message.has_key("localPort") &&
                          message["session"].is_string() &&
                          (message["localPort"].is_number() || message["localPort"].is_string());
    if (!complete) {
        LogWrite("TunnelClient", 289, logError, "Incomplete new_session request: %s", incoming.data.c_str());
        return;
    }
    const std::int32_t port = std::stoi(message["localPort"].as_string());
    const bool namesHost = message.has_key("localHost") && message["localHost"].is_string();
    // Names are not looked up, so no session can be opened to the default: a server has to name the address
    // in numbers, and one that does not ends the run. Kept on purpose; do not put an address in its place.
    const std::string host = namesHost ? message["localHost"].as_string() : "localhost";
    OpenSession(message["session"].as_string(), host, port);
}

void TunnelClient::HandleEndSession(const json::jobject& message) {
    if (message.has_key("session") && message["session"].is_string()) {
        return EndSession(message["session"].as_string());
    }
    LogWrite("TunnelClient", 318, logError, "Incomplete end_session request: %s", incoming.data.c_str());
}

// ---- Sessions

// The server hears "connected-session" before the service was tried; a service that refuses is reported
// afterwards. An id that is in use gets a new connection: the old one closes without a word.
void TunnelClient::OpenSession(const std::string& sessionId, const std::string& host, std::int32_t port) {
    LogWrite("TunnelClient", 305, logDebug, "New session (%s) to port %d", sessionId.c_str(), port);
    SessionOwner* const owner = this;
    const auto session =
        std::make_shared<ServiceConnection>(SessionParams{sessionId, host, port}, owner, ioContext, delays);
    sessions[sessionId] = session;
    LogWrite("TunnelClient", 309, logVerbose, "Sending connected-session message for %s", sessionId.c_str());
    QueueMessage(TunnelMessage(controlFrame, "", BuildConnectedSessionMessage(sessionId)));
    session->Connect();
    // A frame that was on its way when Stop went through the table: without this, the run would last until
    // the service hangs up.
    if (stopping) session->Stop();
}

void TunnelClient::EndSession(const std::string& sessionId) {
    const auto session = sessions.find(sessionId);
    if (session == sessions.end()) {
        LogWrite("TunnelClient", 328, logDebug, "Session %s not found", sessionId.c_str());
        return;
    }
    LogWrite("TunnelClient", 323, logDebug, "Session %s ended", sessionId.c_str());
    session->second->Stop();
}

void TunnelClient::ServiceConnectionFailed(const std::string& sessionId) {
    LogWrite("TunnelClient", 348, logVerbose, "Service connection failed: %s", sessionId.c_str());
    SendDisconnectSession(sessionId);
}

void TunnelClient::SendDisconnectSession(const std::string& sessionId) {
    LogWrite("TunnelClient", 354, logVerbose, "Sending disconnect-session message for %s", sessionId.c_str());
    QueueMessage(TunnelMessage(controlFrame, "", BuildDisconnectSessionMessage(sessionId)));
}

void TunnelClient::RemoveStoppedSession(const std::string& sessionId) {
    const auto session = sessions.find(sessionId);
    if (session == sessions.end()) {
        LogWrite("TunnelClient", 366, logError, "Stopped session %s not found", sessionId.c_str());
        return;
    }
    LogWrite("TunnelClient", 362, logDebug, "Removing stopped session %s", sessionId.c_str());
    sessions.erase(session);
    // What is kept for the next session goes with the last, the pipe's descriptors too unless a payload is still coming
    // in through it. A service slower than its client can have made us hold megabytes; the allocator would keep them.
    if (!sessions.empty()) return;
    if (pipe.Size() == 0) pipe = PayloadPipe();
    spareDownloads.Clear();
    spareUploads.Clear();
    malloc_trim(0);
}

bool TunnelClient::HasRoom(int ownFrames) const {
    if (waitingSessions.IsStalled()) return true;
    return waitingSessions.IsEmpty() && sendQueue.size() <= static_cast<std::size_t>(ownFrames);
}

void TunnelClient::WaitForRoom(std::weak_ptr<ServiceConnection> session) {
    waitingSessions.Add(std::move(session));
}

void TunnelClient::PayloadWritten(std::string payload) { spareDownloads.Keep(std::move(payload)); }

void TunnelClient::PipeEmptied(PayloadPipe emptied) {
    if (pipe.Size() == 0) pipe = std::move(emptied);
}

std::string TunnelClient::SparePayload() { return spareUploads.Take(); }

// ---- Sending

std::string TunnelClient::BuildVerifyMessage() const {
    json::jobject message;
    message["method"] = "verify";
    message["username"] = config.username;
    message["message"] = "";
    message["deviceId"] = config.deviceId;
    message["version"] = "1.0";
    SignMessage(config.password, message);
    return message.as_string();
}

std::string TunnelClient::BuildConnectedSessionMessage(const std::string& sessionId) const {
    return BuildSessionMessage("connected-session", sessionId);
}

std::string TunnelClient::BuildDisconnectSessionMessage(const std::string& sessionId) const {
    return BuildSessionMessage("disconnect-session", sessionId);
}

std::string TunnelClient::BuildSessionMessage(const char* method, const std::string& sessionId) const {
    json::jobject message;
    message["method"] = method;
    message["session"] = sessionId;
    SignMessage(config.password, message);
    return message.as_string();
}

// Whatever state the connection is in: until its socket closes, what is queued is written.
void TunnelClient::QueueMessage(TunnelMessage message) {
    sendQueue.push_back(std::move(message));
    if (sendQueue.size() == 1) asio::post(ioContext, Handler(&TunnelClient::SendAsync));
}

void TunnelClient::SendAsync() {
    BeginFrame();
    asio::post(ioContext, [this, sent = SendBatch()] { OnSent(sent); });
}

void TunnelClient::BeginFrame() {
    const TunnelMessage& outgoing = sendQueue.front();
    LogWrite("TunnelClient", 392, logVerbose, "Inside SendAsync, type %d, length %d", outgoing.type,
             static_cast<int>(outgoing.data.size()));
}

TunnelClient::Sent TunnelClient::SendBatch() {
    const FrameBatch batch(sendQueue, sentBytes);
    Sent sent;
    sent.size = socket.send(batch.Pieces(), 0, sent.error);
    sent.all = sent.size == batch.Size();
    if (sent.error == asio::error::would_block) sent.error.clear();
    return sent;
}

// Sends on for as long as the socket takes it, and only then lets the queue fill again.
void TunnelClient::OnSent(Sent sent) {
    for (;; sent = SendBatch()) {
        if (sent.error) return OnSendError(sent.error);
        FinishFrames(sent.size);
        if (!sent.all || sendQueue.empty()) break;
    }
    if (!sent.all) WaitForSocket();
    while (sendQueue.empty() && waitingSessions.LetOneRead()) continue;
}

void TunnelClient::WaitForSocket() {
    socket.async_wait(tcp::socket::wait_write, [this](std::error_code error) {
        if (error) return OnSendError(error);
        OnSent(SendBatch());
    });
}

// The front stays, and with it the queue stands still until the next connection empties it.
void TunnelClient::OnSendError(std::error_code error) {
    LogWrite("TunnelClient", 411, logError, "TunnelClient::SendAsync: (%d) %s", error.value(),
             error.message().c_str());
    Stop();
}

void TunnelClient::FinishFrames(std::size_t size) {
    if (size > 0) waitingSessions.TunnelMoves();
    sentBytes += size;
    while (!sendQueue.empty() && sentBytes >= FrameBytes(sendQueue.front())) {
        sentBytes -= FrameBytes(sendQueue.front());
        FinishFrame();
    }
}

void TunnelClient::FinishFrame() {
    TunnelMessage& outgoing = sendQueue.front();
    LogWrite("TunnelClient", 415, logVerbose, "Finished upload, length %d",
             static_cast<int>(FrameBytes(outgoing)));
    if (outgoing.type == dataFrame) {
        ReportUpload(outgoing);
        spareUploads.Keep(std::move(outgoing.data));
    }
    sendQueue.pop_front();
    if (!sendQueue.empty()) return BeginFrame();
    LogWrite("TunnelClient", 436, logVerbose, "skipping SendAsync, sendQueue is empty");
}

// By the id on the wire, whoever holds it now: a session with another length of id is never
// told, and pauses for good.
void TunnelClient::ReportUpload(const TunnelMessage& outgoing) {
    const auto session = sessions.find(outgoing.SessionId());
    if (session != sessions.end()) return session->second->UploadFinished();
    LogWrite("TunnelClient", 424, logDebug, "In SendAsync, session %s not found",
             std::string(outgoing.SessionId()).c_str());
}

void TunnelClient::SendHeartbeat() {
    if (shutdown || stopping || !verified) {
        LogWrite("TunnelClient", 445, logInfo, "Stopping heartbeat messages");
        return;
    }
    LogWrite("TunnelClient", 448, logInfo, "Sending heartbeat");
    QueueMessage(TunnelMessage(heartbeatFrame));
    heartbeatTimer.expires_after(Seconds(config.tunnelHeartbeatSeconds));
    heartbeatTimer.async_wait(Handler(&TunnelClient::OnHeartbeatTimer));
}

void TunnelClient::OnHeartbeatTimer(std::error_code error) {
    if (!error) return SendHeartbeat();
    LogWrite("TunnelClient", 455, logError, "Heartbeat timer error: (%d) %s", error.value(),
             error.message().c_str());
    Stop();
}

}  // namespace nox::tunnel_client
