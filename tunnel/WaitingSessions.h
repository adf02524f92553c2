#pragma once

#include <asio.hpp>
#include <chrono>
#include <deque>
#include <memory>

#include "tunnel/ServiceConnection.h"

namespace nox::tunnel_client {

/// Sessions whose services have something to say while enough frames wait for the server already. They read in turn, as
/// frames leave: until then it is better kept by the services than in a queue that grows with every session, out of
/// the processor's cache and ahead of what others say later. When nothing leaves they read all the same, as far as the
/// limit of each lets it: the server may count on that.
///
/// Runs on the event loop's thread.
class WaitingSessions {
public:
    /// @param stall when nothing has left for so long, or for twice as long, nothing is waited for any more
    WaitingSessions(asio::io_context& io, std::chrono::milliseconds stall) : timer(io), stallLimit(stall) {}

    /// Its ReadService will be called once, unless it is gone by then.
    void Add(std::weak_ptr<ServiceConnection> session);
    /// The one that has waited longest reads. @return false when none is waiting
    bool LetOneRead();
    /// Nothing has left for so long that there is no use in waiting.
    bool Stalled() const { return stalled; }
    void FrameLeft();
    /// Forgets them all: a new connection begins.
    void Clear();

private:
    void Watch();
    void OnTimer();

    std::deque<std::weak_ptr<ServiceConnection>> sessions;
    asio::steady_timer timer;
    std::chrono::milliseconds stallLimit;
    bool watching = false;  // the timer runs
    bool moving = false;    // a frame has left since it was set
    bool stalled = false;
};

}  // namespace nox::tunnel_client
