#include "tunnel/ServiceConnection.h"

#include <utility>

#include "log/Log.h"
#include "tunnel/WholeFrame.h"

namespace nox::tunnel_client {

using asio::ip::tcp;

ServiceConnection::ServiceConnection(SessionParams parameters, SessionOwner* sessionOwner,
                                     asio::io_context& io, const Delays& fixedDelays)
    : params(std::move(parameters)),
      owner(sessionOwner),
      delays(fixedDelays),
      link(std::make_shared<Link>(io)),
      timer(io) {}

// The link may live on in an operation that is being cancelled; the service must see the end now.
ServiceConnection::~ServiceConnection() { CloseSocket(); }

void ServiceConnection::Connect() {
    const tcp::endpoint service(asio::ip::make_address(params.localHost),
                                static_cast<std::uint16_t>(params.localPort));
    link->socket.async_connect(service, Weakly(&ServiceConnection::OnConnected));
}

void ServiceConnection::OnConnected(std::error_code error) {
    if (error) {
        LogWrite("ServiceConnection", __LINE__, logError, "ServiceConnection::Connect: (%d) %s",
                 error.value(), error.message().c_str());
        owner->ServiceConnectionFailed(params.sessionId);
        return Stop();
    }
    // Small replies must not wait for an acknowledgement of the piece before. Without the
    // option it still works.
    std::error_code ignored;
    link->socket.set_option(tcp::no_delay(true), ignored);
    asio::post(link->socket.get_executor(), Weakly(&ServiceConnection::ListenToService));
}

void ServiceConnection::ListenToService() {
    if (failed) return;
    LogWrite("ServiceConnection", __LINE__, logVerbose, "Session %s, listening to service",
             params.sessionId.c_str());
    link->socket.async_read_some(asio::buffer(link->readBuffer), Weakly(&ServiceConnection::OnRead));
}

void ServiceConnection::OnRead(std::error_code error, std::size_t size) {
    if (!error) return Upload(size);
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
void ServiceConnection::Upload(std::size_t size) {
    const char* id = params.sessionId.c_str();
    LogWrite("ServiceConnection", __LINE__, logVerbose, "Session %s, received %d bytes from service", id,
             static_cast<int>(size));
    owner->QueueMessage(
        TunnelMessage(dataFrame, params.sessionId, std::string(link->readBuffer.data(), size)));
    LogWrite("ServiceConnection", __LINE__, logVerbose, "Session %s, pending uploads: %d", id,
             pendingUploads);
    ++pendingUploads;
    if (!listeningPaused && pendingUploads > pauseAbove) {
        LogWrite("ServiceConnection", __LINE__, logDebug, "Session %s, pausing listening to service", id);
        listeningPaused = true;
    }
    if (!listeningPaused)
        asio::post(link->socket.get_executor(), Weakly(&ServiceConnection::ListenToService));
}

void ServiceConnection::UploadFinished() {
    --pendingUploads;
    if (!listeningPaused || pendingUploads > resumeAt) return;
    listeningPaused = false;
    asio::post(link->socket.get_executor(), Weakly(&ServiceConnection::ListenToService));
}

void ServiceConnection::QueueData(std::string payload) {
    if (failed) return;
    serviceQueue.push_back(std::move(payload));
    if (serviceQueue.size() > 1) return;  // the write under way goes on with the queue
    LogWrite("ServiceConnection", __LINE__, logDebug, "Session %s, resume sending to service",
             params.sessionId.c_str());
    asio::post(link->socket.get_executor(), Weakly(&ServiceConnection::SendAsync));
}

// While the connect is still under way the write waits behind it, and fails with it.
void ServiceConnection::SendAsync() {
    if (failed) return;
    link->current = std::move(serviceQueue.front());
    asio::async_write(link->socket, asio::buffer(link->current), WholeFrame,
                      Weakly(&ServiceConnection::OnSent));
}

void ServiceConnection::OnSent(std::error_code error, std::size_t size) {
    const char* id = params.sessionId.c_str();
    if (error) {
        failed = true;
        if (stopFlag) {
            LogWrite("ServiceConnection", __LINE__, logVerbose, "SendAsync error with stopFlag, session %s",
                     id);
            return;
        }
        LogWrite("ServiceConnection", __LINE__, logError, "ServiceConnection::SendAsync, session %s: (%d) %s",
                 id, error.value(), error.message().c_str());
        owner->SendDisconnectSession(params.sessionId);
        return Stop();
    }
    LogWrite("ServiceConnection", __LINE__, logVerbose, "Session %s, sent %d bytes to service", id,
             static_cast<int>(size));
    serviceQueue.pop_front();
    if (serviceQueue.empty()) {
        LogWrite("ServiceConnection", __LINE__, logDebug, "Session %s, nothing to send, pausing", id);
    } else {
        asio::post(link->socket.get_executor(), Weakly(&ServiceConnection::SendAsync));
    }
}

// The two delays let data in flight reach the service, and late reports still find the session in the table.
void ServiceConnection::Stop() {
    LogWrite("ServiceConnection", __LINE__, logVerbose, "ServiceConnection::Stop() called for session %s",
             params.sessionId.c_str());
    if (stopFlag) return;
    stopFlag = true;
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
    link->socket.close(ignored);
}

}  // namespace nox::tunnel_client
