#pragma once

#include <asio.hpp>
#include <string>
#include <string_view>

#include "tunnel/ControlMessages.h"
#include "tunnel/Delays.h"
#include "tunnel/FrameReader.h"
#include "tunnel/FrameWriter.h"
#include "tunnel/SessionTable.h"
#include "tunnel/TunnelConfig.h"

namespace nox::tunnel_client {

/// One connection to the tunnel server, from the resolving of its name to its delayed close.
///
///   Connect -> OnResolved -> OnConnected -> ListenToTunnelServer, HandleMessage ...     (until Stop)
///                               |-- OnVerificationTimer                (after 15 seconds, verified or not)
///                               |-- SendHeartbeat <-> OnHeartbeatTimer (once a good signature has arrived)
///                               '-- Stop -> OnCloseDelayOver
///
/// It is over when the event loop runs out of work: its reads have failed, its timers have expired, and its
/// sessions have left. Everything runs on the loop's thread; the loop must not run any more once this object
/// is gone.
class TunnelConnection : FrameReader::Owner, FrameWriter::Owner {
public:
    /// @param io, tunnelConfig, fixedDelays not owned, outlive the connection
    TunnelConnection(asio::io_context& io, const TunnelConfig& tunnelConfig, const Delays& fixedDelays);

    void Connect();
    /// Until the resolver has answered.
    bool IsResolving() const { return state == State::Resolving; }

private:
    static constexpr int maxUnsentBytes = 16384;  // one frame; docs/performance.md has the figures

    enum class State { Resolving, Open, Stopping };

    // A handler that calls `method` with the operation's results.
    template <typename Method>
    auto Handler(Method method) {
        return [this, method](auto&&... results) { (this->*method)(results...); };
    }

    void OnResolved(std::error_code error, const asio::ip::tcp::resolver::results_type& endpoints);
    void OnConnected(std::error_code error, const asio::ip::tcp::endpoint&);
    void TuneSocket();
    void OnVerificationTimer(std::error_code);

    void ListenToTunnelServer();
    bool HandleMessage(const FrameHeader& header, std::string_view payload) override;
    void OnBatchOver() override { sessions.SendArrived(); }
    void HandleControlMessage(const std::string& text);
    bool Verify(const ServerMessage& message);
    void ActOn(const ServerMessage& message);

    void OnFrameSent(TunnelMessage& frame) override;
    void OnQueueEmpty() override { sessions.OnQueueEmpty(); }
    void SendHeartbeat();
    void OnHeartbeatTimer(std::error_code error);

    void Stop() override;
    void OnCloseDelayOver(std::error_code);

    asio::io_context& ioContext;
    const TunnelConfig& config;
    const Delays& delays;
    State state = State::Resolving;
    bool isVerified = false;  // a good signature has arrived; that can be while stopping, too
    asio::ip::tcp::resolver resolver{ioContext};
    asio::steady_timer verificationTimer{ioContext}, heartbeatTimer{ioContext}, closeTimer{ioContext};
    asio::ip::tcp::socket socket{ioContext};
    FrameWriter writer{ioContext, socket, *this};
    SessionTable sessions{ioContext, config.password, writer, delays};
    FrameReader reader{ioContext, socket, *this};
};

}  // namespace nox::tunnel_client
