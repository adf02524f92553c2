#pragma once

#include <asio.hpp>
#include <chrono>
#include <deque>
#include <memory>

#include "tunnel/ServiceConnection.h"

namespace nox::tunnel_client {

/// Sessions whose services have something to say while frames of others wait for the server already. They read in turn,
/// each when the queue is empty: until then it is better kept by the services than in a queue that grows with every
/// session, out of the processor's cache and ahead of what others say later. Only when the tunnel takes nothing do they
/// read all the same, each up to its own limit.
///
/// Runs on the event loop's thread and must live as long as the loop.
class WaitingSessions {
public:
    /// @param stall when the tunnel has taken nothing for so long, or for twice as long, nobody waits any more
    WaitingSessions(asio::io_context& io, std::chrono::milliseconds stall) : timer(io), stallLimit(stall) {}

    /// Its ReadInTurn will be called once, unless it is gone by then.
    void Add(std::weak_ptr<ServiceConnection> session);
    /// The one that has waited longest reads. @return false when none is waiting
    bool LetOneRead();
    /// The tunnel has taken some bytes.
    void TunnelMoves();
    bool IsEmpty() const { return sessions.empty(); }
    /// The tunnel has taken nothing for so long that there is no use in waiting.
    bool IsStalled() const { return stalled; }

private:
    void Watch();
    void OnTimer();

    std::deque<std::weak_ptr<ServiceConnection>> sessions;
    asio::steady_timer timer;
    std::chrono::milliseconds stallLimit;
    bool watching = false;  // the timer runs
    bool moving = false;    // the tunnel has taken something since the timer was started
    bool stalled = false;
};

}  // namespace nox::tunnel_client
