#pragma once

#include <asio.hpp>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>

#include "tunnel/Delays.h"
#include "tunnel/PayloadPipe.h"
#include "tunnel/SessionOwner.h"

namespace nox::tunnel_client {

struct SessionParams {
    std::string sessionId;
    std::string localHost;       ///< numeric IPv4 or IPv6 address
    std::int32_t localPort = 0;  ///< its low 16 bits are the TCP port
};

/// Bridges one tunnel session to one local TCP service.
///
///   Connect -> OnConnected -> ListenToService -> OnReadable (-> ReadInTurn) -> ReadService -> ListenToService ...
///                             (paused by too many uploads, see UploadFinished)
///              QueueData   -> SendAsync -> WriteQueue (WritePayload, OnSent, ...) <-> OnWritable
///   Stop -> OnCloseDelayOver -> OnRemovalDelayOver           (traffic goes on until the socket is closed)
///
/// Both directions run independently; one read and one write are under way at most. Made with make_shared.
/// Whoever lets go of it before the shutdown is over closes its socket at once, and what was still under way
/// does nothing. Everything runs on the thread of `io`.
class ServiceConnection : public std::enable_shared_from_this<ServiceConnection> {
public:
    static constexpr std::size_t maxReadBytes = 16384;  ///< of the service in one frame
    static constexpr int pauseAbove = 19;               ///< uploads not yet written to the tunnel

    /// @param sessionOwner, io not owned, outlive the connection
    ServiceConnection(SessionParams parameters, SessionOwner* sessionOwner, asio::io_context& io,
                      const Delays& fixedDelays = {});
    ServiceConnection(const ServiceConnection&) = delete;
    ServiceConnection& operator=(const ServiceConnection&) = delete;

    const std::string& SessionId() const { return params.sessionId; }

    /// Starts connecting to the service.
    /// @throws std::system_error when the host is not a numeric address: names are never looked up
    void Connect();

    /// Bytes for the service, written in the order of the calls. Not bounded: the tunnel has no way to slow
    /// the server down for one session. Dropped without a word once the connection has failed.
    void QueueData(std::string payload);

    /// The same for a payload that is in a pipe, while the connection CanWrite.
    /// @param payload as long as what the pipe holds, whatever it says
    void QueueData(std::string payload, PayloadPipe filled);

    /// Nothing is left to be written, and what comes could be.
    bool CanWrite() const { return !connecting && !failed && socket.is_open() && serviceQueue.empty(); }

    /// The read that it asked the owner for with WaitForRoom; nothing if that has been done meanwhile.
    void ReadInTurn();

    /// One data frame of this session has been written to the tunnel.
    void UploadFinished();

    /// Begins the delayed shutdown; calling it again only logs.
    void Stop();

private:
    static constexpr int maxReads = 8;             // in one call
    static constexpr int maxWrites = 16;           // of payloads, one after the other
    static constexpr int resumeAt = 14;            // the gap keeps reading from stuttering at the limit
    static constexpr int maxKernelBytes = 131072;  // of the service, not read yet

    // A handler that does nothing once the connection is gone.
    template <typename Method>
    auto Weakly(Method method) {
        return [weak = weak_from_this(), method](auto... results) {
            if (auto self = weak.lock()) (self.get()->*method)(results...);
        };
    }

    void OnConnected(std::error_code error);
    void ListenToService();
    void LogListening() const;
    void WaitForService();
    void OnReadable(std::error_code error);
    void ReadService();
    void OnReadError(std::error_code error);
    void Upload(std::string_view bytes);
    void SendAsync();
    void WriteQueue();
    bool WritePayload();
    void WriteFromPipe(std::error_code& error);
    void OnWritable(std::error_code error);
    void OnSendError(std::error_code error);
    void OnSent();
    void Wait(std::chrono::milliseconds delay, void (ServiceConnection::*then)(std::error_code));
    void OnCloseDelayOver(std::error_code);
    void OnRemovalDelayOver(std::error_code);
    void CloseSocket();

    SessionParams params;
    SessionOwner* owner;
    Delays delays;
    bool stopFlag = false;
    bool failed = false;     // a read or write failed: no further one is started. Independent of stopFlag.
    bool connecting = true;  // until the connect has been answered, well or badly
    asio::io_context& ioContext;
    asio::ip::tcp::socket socket{ioContext};
    asio::steady_timer timer{ioContext};   // the shutdown's
    std::deque<std::string> serviceQueue;  // the front is being written
    PayloadPipe pipe;                      // what it holds is the front's
    std::size_t sentBytes = 0;             // of the front
    bool hasMore = false;                  // the last read took all it could: no need to wait for the next
    bool waitsForRoom = false;             // in the tunnel's queue
    bool listeningPaused = false;
    int pendingUploads = 0;  // frames handed to the owner and not yet reported written
};

}  // namespace nox::tunnel_client
