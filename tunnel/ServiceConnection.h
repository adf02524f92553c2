#pragma once

#include <array>
#include <asio.hpp>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include "tunnel/Delays.h"
#include "tunnel/SessionOwner.h"

namespace nox::tunnel_client {

struct SessionParams {
    std::string sessionId;
    std::string localHost;       ///< numeric IPv4 or IPv6 address
    std::int32_t localPort = 0;  ///< its low 16 bits are the TCP port
};

/// Bridges one tunnel session to one local TCP service.
///
///   Connect -> OnConnected -> ListenToService <-> OnRead     (paused by too many uploads, see UploadFinished)
///              QueueData   -> SendAsync       <-> OnSent
///   Stop -> OnCloseDelayOver -> OnRemovalDelayOver           (traffic goes on until the socket is closed)
///
/// Both directions run independently; one read and one write are under way at most. Made with make_shared.
/// Whoever lets go of it before the shutdown is over closes its socket at once, and what was still under way
/// does nothing. Everything runs on the thread of `io`.
class ServiceConnection : public std::enable_shared_from_this<ServiceConnection> {
public:
    /// @param sessionOwner not owned, outlives the connection
    ServiceConnection(SessionParams parameters, SessionOwner* sessionOwner, asio::io_context& io,
                      const Delays& fixedDelays = {});
    ~ServiceConnection();
    ServiceConnection(const ServiceConnection&) = delete;
    ServiceConnection& operator=(const ServiceConnection&) = delete;

    const std::string& SessionId() const { return params.sessionId; }

    /// Starts connecting to the service.
    /// @throws std::system_error when the host is not a numeric address: names are never looked up
    void Connect();

    /// Bytes for the service, written in the order of the calls. Not bounded: the tunnel has no way to slow
    /// the server down for one session. Dropped without a word once the connection has failed.
    void QueueData(std::string payload);

    /// One data frame of this session has been written to the tunnel.
    void UploadFinished();

    /// Begins the delayed shutdown; calling it again only logs.
    void Stop();

private:
    static constexpr std::size_t maxReadBytes = 16384;
    static constexpr int pauseAbove = 19;  // uploads not yet written to the tunnel
    static constexpr int resumeAt = 14;    // the gap keeps reading from stuttering at the limit

    // What asio's operations point into. Handlers share it: an operation may outlive the connection, and one
    // that has written half a payload by then still goes through its socket once more, to find it closed.
    struct Link {
        explicit Link(asio::io_context& io) : socket(io) {}
        asio::ip::tcp::socket socket;
        std::string current;                        // the payload being written
        std::array<char, maxReadBytes> readBuffer;  // not initialised: until it is used it costs no memory
    };

    // A handler that does nothing once the connection is gone.
    template <typename Method>
    auto Weakly(Method method) {
        return [weak = weak_from_this(), kept = link, method](auto... results) {
            if (auto self = weak.lock()) (self.get()->*method)(results...);
        };
    }

    void OnConnected(std::error_code error);
    void ListenToService();
    void OnRead(std::error_code error, std::size_t size);
    void Upload(std::size_t size);
    void SendAsync();
    void OnSent(std::error_code error, std::size_t size);
    void Wait(std::chrono::milliseconds delay, void (ServiceConnection::*then)(std::error_code));
    void OnCloseDelayOver(std::error_code);
    void OnRemovalDelayOver(std::error_code);
    void CloseSocket();

    SessionParams params;
    SessionOwner* owner;
    Delays delays;
    bool stopFlag = false;
    bool failed = false;  // a read or write failed: no further one is started. Independent of stopFlag.
    std::shared_ptr<Link> link;
    asio::steady_timer timer;  // the shutdown's
    std::deque<std::string>
        serviceQueue;  // the front is being written; its bytes have moved to link->current
    bool listeningPaused = false;
    int pendingUploads = 0;  // frames handed to the owner and not yet reported written
};

}  // namespace nox::tunnel_client
