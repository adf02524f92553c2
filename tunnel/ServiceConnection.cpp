#include "tunnel/ServiceConnection.h"

#include <algorithm>
#include <array>
#include <utility>

#include "log/Log.h"

namespace nox::tunnel_client {

using asio::ip::tcp;

ServiceConnection::ServiceConnection(SessionParams parameters, SessionOwner* sessionOwner,
                                     asio::io_context& io, const Delays& fixedDelays)
    : params(std::move(parameters)), owner(sessionOwner), delays(fixedDelays), ioContext(io) {}

void ServiceConnection::Connect() {
    const tcp::endpoint service(asio::ip::make_address(params.localHost),
                                static_cast<std::uint16_t>(params.localPort));
    std::error_code error;
    socket.open(service.protocol(), error);
    if (!error) socket.non_blocking(true, error);
    // The kernel would let it grow to megabytes, and a thousand busy sessions out of every cache. It has to be said
    // before the connect, see tcp(7). Without the option it still works.
    std::error_code ignored;
    socket.set_option(asio::socket_base::receive_buffer_size(maxKernelBytes), ignored);
    if (!error) return socket.async_connect(service, Weakly(&ServiceConnection::OnConnected));
    asio::post(ioContext, [report = Weakly(&ServiceConnection::OnConnected), error] { report(error); });
}

void ServiceConnection::OnConnected(std::error_code error) {
    connecting = false;
    if (error) {
        LogWrite("ServiceConnection", __LINE__, logError, "ServiceConnection::Connect: (%d) %s",
                 error.value(), error.message().c_str());
        owner->ServiceConnectionFailed(params.sessionId);
        return Stop();
    }
    // Small replies must not wait for an acknowledgement of the piece before. Without the
    // option it still works.
    std::error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    asio::post(ioContext, Weakly(&ServiceConnection::ListenToService));
}

void ServiceConnection::ListenToService() {
    if (failed) return;
    LogListening();
    hasMore ? OnReadable({}) : WaitForService();
}

void ServiceConnection::LogListening() const {
    LogWrite("ServiceConnection", __LINE__, logVerbose, "Session %s, listening to service",
             params.sessionId.c_str());
}

void ServiceConnection::WaitForService() {
    socket.async_wait(tcp::socket::wait_read, Weakly(&ServiceConnection::OnReadable));
}

void ServiceConnection::OnReadable(std::error_code error) {
    if (error) return OnReadError(error);
    if (stopFlag || owner->HasRoom(pendingUploads)) return ReadService();
    waitsForRoom = true;
    owner->WaitForRoom(weak_from_this());
}

void ServiceConnection::ReadInTurn() {
    if (std::exchange(waitsForRoom, false)) ReadService();
}

// A busy service is read several frames at a time, as if by one read after the other, and never past the pause. After a
// failed write it is one: the read that was under way.
void ServiceConnection::ReadService() {
    std::array<char, maxReads * maxReadBytes> buffer;  // NOLINT: what is not read is not looked at
    const auto reads =
        static_cast<std::size_t>(failed ? 1 : std::min(maxReads, pauseAbove + 1 - pendingUploads));
    std::error_code error;
    const std::size_t size = socket.read_some(asio::buffer(buffer, reads * maxReadBytes), error);
    hasMore = size == reads * maxReadBytes;
    if (error == asio::error::would_block) return WaitForService();
    if (error) return OnReadError(error);
    for (std::size_t begin = 0; begin < size; begin += maxReadBytes) {
        if (begin > 0) LogListening();
        Upload({&buffer[begin], std::min(maxReadBytes, size - begin)});
    }
    if (!listeningPaused) asio::post(ioContext, Weakly(&ServiceConnection::ListenToService));
}

void ServiceConnection::OnReadError(std::error_code error) {
    failed = true;
    if (stopFlag) {
        LogWrite("ServiceConnection", __LINE__, logVerbose, "ListenToService error with stopFlag, session %s",
                 params.sessionId.c_str());
        return;
    }
    // Debug level, unlike a failed write: this is also how every service ends that simply hangs up.
    LogWrite("ServiceConnection", __LINE__, logDebug,
             "ServiceConnection::ListenToService, session %s, (%d) %s", params.sessionId.c_str(),
             error.value(), error.message().c_str());
    owner->SendDisconnectSession(params.sessionId);
    Stop();
}

// Goes on after Stop too: what the service still says is relayed until the socket is closed.
void ServiceConnection::Upload(std::string_view bytes) {
    const char* id = params.sessionId.c_str();
    LogWrite("ServiceConnection", __LINE__, logVerbose, "Session %s, received %d bytes from service", id,
             static_cast<int>(bytes.size()));
    std::string payload = owner->SparePayload();
    owner->QueueMessage(TunnelMessage(dataFrame, params.sessionId, std::move(payload.assign(bytes))));
    LogWrite("ServiceConnection", __LINE__, logVerbose, "Session %s, pending uploads: %d", id,
             pendingUploads);
    ++pendingUploads;
    if (!listeningPaused && pendingUploads > pauseAbove) {
        LogWrite("ServiceConnection", __LINE__, logDebug, "Session %s, pausing listening to service", id);
        listeningPaused = true;
    }
}

void ServiceConnection::UploadFinished() {
    --pendingUploads;
    if (!listeningPaused || pendingUploads > resumeAt) return;
    listeningPaused = false;
    asio::post(ioContext, Weakly(&ServiceConnection::ListenToService));
}

void ServiceConnection::QueueData(std::string payload) {
    if (failed) return;
    serviceQueue.push_back(std::move(payload));
    if (serviceQueue.size() > 1) return;  // the write under way goes on with the queue
    LogWrite("ServiceConnection", __LINE__, logDebug, "Session %s, resume sending to service",
             params.sessionId.c_str());
    asio::post(ioContext, Weakly(&ServiceConnection::SendAsync));
}

void ServiceConnection::QueueData(std::string payload, PayloadPipe filled) {
    pipe = std::move(filled);
    QueueData(std::move(payload));
}

void ServiceConnection::SendAsync() {
    if (!failed) return WriteQueue();
    pipe = PayloadPipe();  // its descriptors may be wanted
}

// Writes on while the service takes it: were each followed by a read from the tunnel, a queue once long would stay so.
// Now and then the others get their turn.
void ServiceConnection::WriteQueue() {
    for (int writes = 0; writes < maxWrites; ++writes) {
        if (!WritePayload()) return;
        OnSent();
        if (failed || serviceQueue.empty()) return;
    }
    asio::post(ioContext, Weakly(&ServiceConnection::SendAsync));
}

// A payload once begun is written to its end, even if the service has ended its own half meanwhile. While the connect
// is still under way the write waits behind it, and fails with it. It must not be tried: a socket tells only once why
// its connect failed.
// @return whether all of it has been written; otherwise it goes on by itself, or the session ends.
bool ServiceConnection::WritePayload() {
    const std::string& payload = serviceQueue.front();
    std::error_code error;
    if (pipe.Size() > 0) {
        WriteFromPipe(error);
    } else if (!connecting) {
        sentBytes += socket.write_some(asio::buffer(payload) + sentBytes, error);
    }
    if (error && error != asio::error::would_block) {
        OnSendError(error);
        return false;
    }
    if (sentBytes == payload.size()) return true;
    socket.async_wait(tcp::socket::wait_write, Weakly(&ServiceConnection::OnWritable));
    return false;
}

// What the service does not take at once goes on from memory, and the pipe serves the next frame.
void ServiceConnection::WriteFromPipe(std::error_code& error) {
    sentBytes = pipe.WriteTo(socket.native_handle(), error);
    pipe.CopyTo(&serviceQueue.front()[sentBytes]);
    owner->PipeEmptied(std::move(pipe));
}

void ServiceConnection::OnWritable(std::error_code error) {
    if (error) return OnSendError(error);
    WriteQueue();
}

void ServiceConnection::OnSendError(std::error_code error) {
    failed = true;
    if (stopFlag) {
        LogWrite("ServiceConnection", __LINE__, logVerbose, "SendAsync error with stopFlag, session %s",
                 params.sessionId.c_str());
        return;
    }
    LogWrite("ServiceConnection", __LINE__, logError, "ServiceConnection::SendAsync, session %s: (%d) %s",
             params.sessionId.c_str(), error.value(), error.message().c_str());
    owner->SendDisconnectSession(params.sessionId);
    Stop();
}

void ServiceConnection::OnSent() {
    const char* id = params.sessionId.c_str();
    LogWrite("ServiceConnection", __LINE__, logVerbose, "Session %s, sent %d bytes to service", id,
             static_cast<int>(sentBytes));
    owner->PayloadWritten(std::move(serviceQueue.front()));
    serviceQueue.pop_front();
    sentBytes = 0;
    if (!serviceQueue.empty()) return;
    LogWrite("ServiceConnection", __LINE__, logDebug, "Session %s, nothing to send, pausing", id);
}

// The two delays let data in flight reach the service, and late reports still find the session in the table.
void ServiceConnection::Stop() {
    LogWrite("ServiceConnection", __LINE__, logVerbose, "ServiceConnection::Stop() called for session %s",
             params.sessionId.c_str());
    if (stopFlag) return;
    stopFlag = true;
    // Behind many others its turn might come after its socket has been closed.
    if (waitsForRoom) asio::post(ioContext, Weakly(&ServiceConnection::ReadInTurn));
    Wait(delays.sessionClose, &ServiceConnection::OnCloseDelayOver);
}

void ServiceConnection::Wait(std::chrono::milliseconds delay,
                             void (ServiceConnection::*then)(std::error_code)) {
    timer.expires_after(delay);
    timer.async_wait(Weakly(then));
}

void ServiceConnection::OnCloseDelayOver(std::error_code) {
    LogWrite("ServiceConnection", __LINE__, logDebug, "Closing session %s socket after timer delay",
             params.sessionId.c_str());
    CloseSocket();
    Wait(delays.sessionRemoval, &ServiceConnection::OnRemovalDelayOver);
}

void ServiceConnection::OnRemovalDelayOver(std::error_code) {
    LogWrite("ServiceConnection", __LINE__, logDebug, "Stopping session %s after timer delay",
             params.sessionId.c_str());
    owner->RemoveStoppedSession(params.sessionId);
}

void ServiceConnection::CloseSocket() {
    std::error_code ignored;  // nothing follows from a close that failed: the descriptor is gone either way
    socket.close(ignored);
}

}  // namespace nox::tunnel_client
