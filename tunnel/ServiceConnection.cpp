#include "tunnel/ServiceConnection.h"

#include <algorithm>
#include <array>
#include <utility>

#include "log/Log.h"

namespace nox::tunnel_client {

using asio::ip::tcp;

ServiceConnection::ServiceConnection(SessionParams parameters, SessionOwner* sessionOwner,
                                     asio::io_context& io, const Delays& fixedDelays)
    : params(std::move(parameters)),
      owner(sessionOwner),
      delays(fixedDelays),
      ioContext(io),
      queue(sessionOwner->Memory()) {}

void ServiceConnection::Connect() {
    const tcp::endpoint service(asio::ip::make_address(params.localHost),
                                static_cast<std::uint16_t>(params.localPort));
    std::error_code error;
    socket.open(service.protocol(), error);
    if (!error) socket.non_blocking(true, error);
    // Otherwise the kernel lets it grow to megabytes, and a thousand busy sessions do not fit any cache. It
    // has to be set before the connect, see tcp(7). Without the option everything still works.
    std::error_code ignored;
    socket.set_option(asio::socket_base::receive_buffer_size(maxKernelBytes), ignored);
    if (!error) return socket.async_connect(service, Weakly(&ServiceConnection::OnConnected));
    asio::post(ioContext, [report = Weakly(&ServiceConnection::OnConnected), error] { report(error); });
}

void ServiceConnection::OnConnected(std::error_code error) {
    state = State::Answered;
    if (error) {
        LogWrite("ServiceConnection", __LINE__, logError, "ServiceConnection::Connect: (%d) %s",
                 error.value(), error.message().c_str());
        owner->ServiceConnectionFailed(params.sessionId);
        return Stop();
    }
    // Small replies must not wait for an acknowledgement of the piece before. Without the option everything
    // still works.
    std::error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    asio::post(ioContext, Weakly(&ServiceConnection::ListenToService));
}

// ---- From the service to the tunnel

void ServiceConnection::ListenToService() {
    if (state == State::Failed) return;
    LogListening();
    WaitForService();
}

void ServiceConnection::LogListening() const {
    LogWrite("ServiceConnection", __LINE__, logVerbose, "Session %s, listening to service", Id());
}

void ServiceConnection::WaitForService() {
    if (hasMore) return OnReadable({});
    socket.async_wait(tcp::socket::wait_read, Weakly(&ServiceConnection::OnReadable));
}

// The end of the service does not wait for a turn: when nothing is left to read, it is read at once.
void ServiceConnection::OnReadable(std::error_code error) {
    if (error) return OnReadError(error);
    const int frames = owner->Turns().MayRead(*this, uploads.Pending());
    if (frames > 0 || !HasArrived()) return ReadService(std::max(frames, 1));
    waitsForTurn = true;
    owner->Turns().Wait(*this);
}

bool ServiceConnection::HasArrived() const {
    std::error_code ignored;
    return socket.available(ignored) > 0;
}

void ServiceConnection::ReadInTurn(int frames) {
    if (std::exchange(waitsForTurn, false)) ReadService(frames);
}

// A busy service is read several frames at a time, as if by one read after the other, and never past the
// pause. After a failed write it is one frame: the read that was under way.
void ServiceConnection::ReadService(int frames) {
    std::array<char, maxReads * maxReadBytes> buffer;  // NOLINT: only bytes that have been read are used
    int left = state == State::Failed ? 1 : std::min(frames, uploads.Room());
    for (;; LogListening()) {
        const std::size_t wanted = maxReadBytes * static_cast<std::size_t>(std::min(left, maxReads));
        std::error_code error;
        const std::size_t size = socket.read_some(asio::buffer(buffer, wanted), error);
        hasMore = size == wanted;
        if (error == asio::error::would_block) return WaitForService();
        if (error) return OnReadError(error);
        left -= Upload({buffer.data(), size});
        if (!hasMore || left == 0) break;
    }
    if (!uploads.IsPaused()) asio::post(ioContext, Weakly(&ServiceConnection::ListenToService));
}

// @return the number of frames
int ServiceConnection::Upload(std::string_view bytes) {
    int frames = 1;
    for (; bytes.size() > maxReadBytes; ++frames) {
        UploadFrame(bytes.substr(0, maxReadBytes));
        bytes.remove_prefix(maxReadBytes);
        LogListening();
    }
    UploadFrame(bytes);
    return frames;
}

// Goes on after Stop too: bytes of the service are relayed until its socket is closed.
void ServiceConnection::UploadFrame(std::string_view bytes) {
    LogWrite("ServiceConnection", __LINE__, logVerbose, "Session %s, received %d bytes from service", Id(),
             static_cast<int>(bytes.size()));
    owner->QueueMessage(TunnelMessage(dataFrame, params.sessionId, owner->Memory().Copy(bytes)));
    LogWrite("ServiceConnection", __LINE__, logVerbose, "Session %s, pending uploads: %d", Id(),
             uploads.Pending());
    if (uploads.OnQueued())
        LogWrite("ServiceConnection", __LINE__, logDebug, "Session %s, pausing listening to service", Id());
}

// The line belongs right behind that of the frame; the next one may be finished in the same call.
void ServiceConnection::UploadFinished() {
    if (!uploads.OnWritten() || state == State::Failed) return;
    LogListening();
    asio::post(ioContext, Weakly(&ServiceConnection::WaitForService));
}

void ServiceConnection::OnReadError(std::error_code error) {
    state = State::Failed;
    if (stopFlag) {
        LogWrite("ServiceConnection", __LINE__, logVerbose, "ListenToService error with stopFlag, session %s",
                 Id());
        return;
    }
    // Debug level, unlike a failed write: this is also how every service ends that simply hangs up.
    LogWrite("ServiceConnection", __LINE__, logDebug,
             "ServiceConnection::ListenToService, session %s, (%d) %s", Id(), error.value(),
             error.message().c_str());
    owner->SendDisconnectSession(params.sessionId);
    Stop();
}

// ---- From the tunnel to the service

void ServiceConnection::QueueData(std::string_view payload) {
    if (state == State::Failed) return;
    if (queue.IsEmpty())
        LogWrite("ServiceConnection", __LINE__, logDebug, "Session %s, resume sending to service", Id());
    queue.Append(payload);
}

// While payloads are kept a write is under way, and goes on with these.
void ServiceConnection::SendArrived() {
    if (!queue.IsEmpty() && !queue.HasKept()) WriteQueue();
    queue.KeepArrived();
}

void ServiceConnection::SendAsync() {
    if (state != State::Failed) WriteQueue();
}

// A payload once begun is written to its end, even if the service has ended its own half meanwhile; no other
// is.
void ServiceConnection::WriteQueue() {
    // While the connect is under way the write waits behind it. It must not be tried: a socket reports only
    // once why its connect failed.
    if (state == State::Connecting) return WaitForRoom();
    const PayloadQueue::Pieces pieces = queue.Next(state == State::Failed ? 1 : SIZE_MAX);
    std::error_code error;
    const std::size_t size = socket.write_some(pieces, error);
    if (error && error != asio::error::would_block) return OnSendError(error);
    queue.Remove(size, [this](std::size_t payload) {
        LogWrite("ServiceConnection", __LINE__, logVerbose, "Session %s, sent %d bytes to service", Id(),
                 static_cast<int>(payload));
    });
    if (size < asio::buffer_size(pieces)) return WaitForRoom();
    if (!queue.IsEmpty()) return asio::post(ioContext, Weakly(&ServiceConnection::SendAsync));
    LogWrite("ServiceConnection", __LINE__, logDebug, "Session %s, nothing to send, pausing", Id());
}

void ServiceConnection::WaitForRoom() {
    socket.async_wait(tcp::socket::wait_write, Weakly(&ServiceConnection::OnWritable));
}

void ServiceConnection::OnWritable(std::error_code error) {
    if (error) return OnSendError(error);
    WriteQueue();
}

void ServiceConnection::OnSendError(std::error_code error) {
    state = State::Failed;
    if (stopFlag) {
        LogWrite("ServiceConnection", __LINE__, logVerbose, "SendAsync error with stopFlag, session %s",
                 Id());
        return;
    }
    LogWrite("ServiceConnection", __LINE__, logError, "ServiceConnection::SendAsync, session %s: (%d) %s",
             Id(), error.value(), error.message().c_str());
    owner->SendDisconnectSession(params.sessionId);
    Stop();
}

// ---- The end

// The two delays let data in flight reach the service, and late reports still find the session in the table.
void ServiceConnection::Stop() {
    LogWrite("ServiceConnection", __LINE__, logVerbose, "ServiceConnection::Stop() called for session %s",
             Id());
    if (stopFlag) return;
    stopFlag = true;
    if (waitsForTurn) asio::post(ioContext, Weakly(&ServiceConnection::ReadWhatHasArrived));
    Wait(delays.sessionClose, &ServiceConnection::OnCloseDelayOver);
}

// Once, because behind many others its turn might come after its socket has been closed. From then on it
// takes its turns as before: it must not keep the others waiting with a service that goes on sending.
void ServiceConnection::ReadWhatHasArrived() {
    owner->Turns().Leave(*this);
    ReadInTurn(ReadTurns::allFrames);
}

void ServiceConnection::Wait(std::chrono::milliseconds delay,
                             void (ServiceConnection::*then)(std::error_code)) {
    timer.expires_after(delay);
    timer.async_wait(Weakly(then));
}

// The read and the write that are under way fail now; so does the read that waits for its turn.
void ServiceConnection::OnCloseDelayOver(std::error_code) {
    LogWrite("ServiceConnection", __LINE__, logDebug, "Closing session %s socket after timer delay", Id());
    std::error_code ignored;  // nothing follows from a close that failed: the descriptor is gone either way
    socket.close(ignored);
    ReadWhatHasArrived();
    Wait(delays.sessionRemoval, &ServiceConnection::OnRemovalDelayOver);
}

void ServiceConnection::OnRemovalDelayOver(std::error_code) {
    LogWrite("ServiceConnection", __LINE__, logDebug, "Stopping session %s after timer delay", Id());
    owner->RemoveStoppedSession(params.sessionId);
}

}  // namespace nox::tunnel_client
