#pragma once

#include <asio.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "tunnel/Delays.h"
#include "tunnel/PayloadQueue.h"
#include "tunnel/ReadTurns.h"
#include "tunnel/SessionOwner.h"
#include "tunnel/UploadWindow.h"

namespace nox::tunnel_client {

struct SessionParams {
    std::string sessionId;
    std::string localHost;       ///< numeric IPv4 or IPv6 address
    std::int32_t localPort = 0;  ///< its low 16 bits are the TCP port
};

/// Bridges one tunnel session to one local TCP service.
///
///   Connect   -> OnConnected -> ListenToService -> OnReadable (-> ReadInTurn) -> ReadService -> ...
///                               (pauses at too many uploads until UploadFinished)
///   QueueData -> SendArrived -> SendAsync <-> OnWritable
///   Stop      -> OnCloseDelayOver -> OnRemovalDelayOver      (traffic goes on until the socket is closed)
///
/// Both directions run independently; one read and one write are under way at most. Made with make_shared.
/// Whoever lets go of it before the shutdown is over closes its socket at once, and operations that were
/// under way do nothing. Everything runs on the thread of `io`.
class ServiceConnection : public ReadTurns::Reader, public std::enable_shared_from_this<ServiceConnection> {
public:
    static constexpr std::size_t maxReadBytes = 16384;  ///< from the service, in one frame

    /// @param sessionOwner, io not owned, outlive the connection
    ServiceConnection(SessionParams parameters, SessionOwner* sessionOwner, asio::io_context& io,
                      const Delays& fixedDelays = {});
    ServiceConnection(const ServiceConnection&) = delete;
    ServiceConnection& operator=(const ServiceConnection&) = delete;
    ~ServiceConnection() override { owner->Turns().Leave(*this); }

    const std::string& SessionId() const { return params.sessionId; }

    /// Starts connecting to the service.
    /// @throws std::system_error when the host is not a numeric address: names are never looked up
    void Connect();

    /// Bytes for the service, written in the order of the calls. Not bounded: the tunnel has no way to slow
    /// the server down for one session. Dropped without a log line once the connection has failed.
    /// @param payload not empty, not copied: stays valid until SendArrived
    void QueueData(std::string_view payload);
    /// Writes the queued payloads, and copies the bytes that the service does not take at once.
    void SendArrived();

    /// The turn to read that it asked for.
    void ReadInTurn(int frames) override;

    /// One data frame of this session has been written to the tunnel.
    void UploadFinished();

    /// Begins the delayed shutdown; calling it again only logs.
    void Stop();

private:
    static constexpr int maxReads = 8;             // frames in one call
    static constexpr int maxKernelBytes = 131072;  // from the service, not read yet

    // Of the socket. A refused connect is Answered, too: the first read or write fails then.
    enum class State { Connecting, Answered, Failed };

    // A handler that does nothing once the connection is gone.
    template <typename Method>
    auto Weakly(Method method) {
        return [weak = weak_from_this(), method](auto... results) {
            if (auto self = weak.lock()) (self.get()->*method)(results...);
        };
    }

    const char* Id() const { return params.sessionId.c_str(); }
    void OnConnected(std::error_code error);

    void ListenToService();
    void LogListening() const;
    void WaitForService();
    void OnReadable(std::error_code error);
    bool HasArrived() const;
    void ReadService(int frames);
    int Upload(std::string_view bytes);
    void UploadFrame(std::string_view bytes);
    void OnReadError(std::error_code error);

    void SendAsync();
    void WriteQueue();
    void WaitForRoom();
    void OnWritable(std::error_code error);
    void OnSendError(std::error_code error);

    void ReadWhatHasArrived();
    void Wait(std::chrono::milliseconds delay, void (ServiceConnection::*then)(std::error_code));
    void OnCloseDelayOver(std::error_code);
    void OnRemovalDelayOver(std::error_code);

    SessionParams params;
    SessionOwner* owner;
    Delays delays;
    asio::io_context& ioContext;
    asio::ip::tcp::socket socket{ioContext};
    asio::steady_timer timer{ioContext};  // of the shutdown

    State state = State::Connecting;  // Failed: no further read or write is started
    bool stopFlag = false;            // Stop has been called; independent of the state
    bool waitsForTurn = false;        // instead of for the service
    bool hasMore = false;             // the last read took all that it was allowed: there is probably more
    UploadWindow uploads;
    PayloadQueue queue;
};

}  // namespace nox::tunnel_client
