#pragma once

#include <asio.hpp>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "core/Configuration.h"
#include "json/json.h"
#include "tunnel/Delays.h"
#include "tunnel/FrameBatch.h"
#include "tunnel/PayloadPipe.h"
#include "tunnel/ServiceConnection.h"
#include "tunnel/SessionOwner.h"
#include "tunnel/SparePayloads.h"
#include "tunnel/TunnelMessage.h"
#include "tunnel/WaitingSessions.h"

namespace nox::tunnel_client {

/// The agent's end of the tunnel: one connection to the tunnel server at a time, and the sessions it carries.
///
///   Run -> Connect -> OnResolved -> OnConnected -> ListenToTunnelServer -> OnHeader -> ReadPayload -> OnPayload
///              |                                          ^---------------- HandleMessage <---------------'
///              |      (FillPipe: the way of a large payload whose service can take it, instead of ReadPayload)
///              |-- QueueMessage -> SendAsync -> OnSent <-> WaitForSocket      (frames leave in order)
///              |-- SendHeartbeat <-> OnHeartbeatTimer         (once a good signature has arrived)
///              '-- Stop -> OnCloseDelayOver                   (then nothing is left to do, and Run goes on)
///
/// All of it, and every session, runs on the thread that calls Run: there are no locks. Nothing is written inside
/// the call that queues it: that is posted to the event loop.
class TunnelClient : private SessionOwner {
public:
    /// Opens nothing.
    explicit TunnelClient(const TunnelConfig& tunnelConfig, const Delays& fixedDelays = {});
    TunnelClient(const TunnelClient&) = delete;
    TunnelClient& operator=(const TunnelClient&) = delete;

    /// Serves three connections, one after the other, and returns when the last has ended. The count is
    /// never reset: a connection that served for days counts like one that was refused, so registration is
    /// renewed now and then.
    /// @throws whatever a handler throws: std::invalid_argument or std::out_of_range for a "localPort" that is
    ///         no number, std::system_error for a "localHost" that is no numeric address
    void Run();

private:
    static constexpr int maxConnections = 3;
    static constexpr std::chrono::seconds glance{1};
    static constexpr int maxUnsentBytes = 16384;  // one frame; see docs/performance.md

    // What became of one call that sends.
    struct Sent {
        std::error_code error;
        std::size_t size = 0;
        bool all = false;  // the socket took what it was offered
    };

    // A handler that calls `method` with the operation's results; `this` is safe, the loop dies with it.
    template <typename Method>
    auto Handler(Method method) {
        return [this, method](auto&&... results) { (this->*method)(results...); };
    }

    // The connection
    void Connect();
    void OnResolved(std::error_code error, const asio::ip::tcp::resolver::results_type& endpoints);
    void OnConnected(std::error_code error, const asio::ip::tcp::endpoint&);
    void TuneSocket();
    void OnVerificationTimer(std::error_code);
    void Stop();
    void OnCloseDelayOver(std::error_code);

    // Receiving
    void ListenToTunnelServer();
    void OnHeader(std::error_code error, std::size_t);
    bool SuitsPipe() const;
    void FillPipe(std::error_code error, std::size_t);
    void ReadPayload();
    void ReadRest(std::size_t size, std::error_code error);
    void OnPayload(std::error_code error, std::size_t size);
    void HandleMessage();
    void HandleData();
    void HandleControlMessage();
    void ActOn(const json::jobject& message);
    bool Verify(const json::jobject& message);
    void HandleServerText(const json::jobject& message);
    void HandleNewSession(const json::jobject& message);
    void HandleEndSession(const json::jobject& message);

    // Sessions
    void OpenSession(const std::string& sessionId, const std::string& host, std::int32_t port);
    void EndSession(const std::string& sessionId);
    void ServiceConnectionFailed(const std::string& sessionId) override;
    void SendDisconnectSession(const std::string& sessionId) override;
    void RemoveStoppedSession(const std::string& sessionId) override;
    bool HasRoom(int ownFrames) const override;
    void WaitForRoom(std::weak_ptr<ServiceConnection> session) override;
    std::string SparePayload() override;
    void PayloadWritten(std::string payload) override;
    void PipeEmptied(PayloadPipe emptied) override;

    // Sending
    std::string BuildVerifyMessage() const;
    std::string BuildConnectedSessionMessage(const std::string& sessionId) const;
    std::string BuildDisconnectSessionMessage(const std::string& sessionId) const;
    std::string BuildSessionMessage(const char* method, const std::string& sessionId) const;
    void QueueMessage(TunnelMessage message) override;
    void SendAsync();
    void BeginFrame();
    Sent SendBatch();
    void OnSent(Sent sent);
    void WaitForSocket();
    void OnSendError(std::error_code error);
    void FinishFrames(std::size_t size);
    void FinishFrame();
    void ReportUpload(const TunnelMessage& outgoing);
    void SendHeartbeat();
    void OnHeartbeatTimer(std::error_code error);

    std::chrono::milliseconds Seconds(std::int32_t count) const;

    TunnelConfig config;
    Delays delays;
    bool shutdown = false;   // ends Run and the heartbeats; nothing in the agent sets it yet
    bool stopping = false;   // Stop has run for this connection
    bool resolving = false;  // the resolver has not answered yet
    bool verified = false;   // a good signature has arrived on this connection; independent of stopping
    asio::io_context ioContext{1};  // one thread runs it (the resolver's own thread only posts to it)
    asio::ip::tcp::resolver resolver{ioContext};
    asio::steady_timer verificationTimer{ioContext};
    asio::steady_timer heartbeatTimer{ioContext};
    asio::steady_timer closeTimer{ioContext};
    std::map<std::string, std::shared_ptr<ServiceConnection>, std::less<>> sessions;
    WaitingSessions waitingSessions{ioContext, delays.stall};
    asio::ip::tcp::socket socket{ioContext};
    HeaderBytes headerBuffer{};
    TunnelMessage incoming{dataFrame};                   // the frame being received
    PayloadPipe pipe;                                    // the incoming payload's, if it is not in `incoming`
    SparePayloads spareDownloads{16};                    // 2 MiB of the largest
    SparePayloads spareUploads{32};                      // 512 KiB
    std::pmr::unsynchronized_pool_resource queueBlocks;  // a long queue's blocks serve again
    SendQueue sendQueue{&queueBlocks};                   // the front is being written and stays until it is
    std::size_t sentBytes = 0;                           // of the front, header included
};

}  // namespace nox::tunnel_client
