#pragma once

#include <array>
#include <asio.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include "soak/KeyedStream.h"
#include "soak/Plan.h"

namespace soak {

using Clock = std::chrono::steady_clock;

/// What one end of a session has seen and done.
struct EndRecord {
    bool appeared = false;                 ///< it was connected
    std::uint64_t sent = 0, received = 0;  ///< sent: taken by the kernel
    std::uint64_t wrong = 0;               ///< of those received, not what belongs at their place
    bool shutDown = false, closed = false,
         reset = false;   ///< what it did itself before it saw the other's end
    bool sawEnd = false;  ///< the other side's, orderly or not
    bool over = false;
    Clock::time_point lastSent, endedAt;
};

/// One end of a session: sends its stream, checks the other one, and misbehaves as planned.
///
///   Start -> Send <-> OnSent (<-> OnPaused) ... then shuts down, closes, or stays
///            Receive <-> OnReceived (<-> OnStallOver) until the other side's end, then it closes
///            resetAfter -> OnResetTime
///
/// All on the event loop's one thread.
class Endpoint : public std::enable_shared_from_this<Endpoint> {
public:
    Endpoint(asio::ip::tcp::socket connected, const EndPlan& endPlan, const KeyedStream& outgoing,
             const KeyedStream& incoming, EndRecord& endRecord, std::function<void()> overHandler);
    /// @param alreadyReceived how many bytes somebody has read (and checked) from the socket before
    void Start(std::uint64_t alreadyReceived = 0);
    bool IsStalling() const { return stalling; }

private:
    void Send();
    void OnSent(std::error_code error, std::size_t size);
    void OnPaused(std::error_code error);
    void OnAllSent();
    void Receive();
    void OnReceived(std::error_code error, std::size_t size);
    void OnStallOver(std::error_code error);
    void OnResetTime(std::error_code error);
    void Close();

    asio::ip::tcp::socket socket;
    asio::steady_timer pauseTimer, stallTimer, resetTimer;
    EndPlan plan;
    KeyedStream out, in;
    EndRecord& record;
    std::function<void()> onOver;
    Random pieces;  // their sizes; of its own, so that the order of events does not change anybody else's
    bool stalling = false;
    std::array<char, 131072> outgoing;
    std::array<char, 65536> incoming;
};

}  // namespace soak
