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

/// The record of one end of a session.
struct EndRecord {
    bool appeared = false;                 ///< it was connected
    std::uint64_t sent = 0, received = 0;  ///< sent: taken by the kernel
    std::uint64_t wrong = 0;               ///< received bytes that do not belong at their place
    /// It did this itself, before it saw the other side's end.
    bool shutDown = false, closed = false, reset = false;
    bool hasStalled = false;
    bool sawEnd = false;  ///< the other side's, orderly or not
    bool over = false;
    Clock::time_point lastSent, lastReceived, stalledUntil;
    Clock::time_point finishedAt;  ///< when it shut down, closed or reset
    Clock::time_point endedAt;     ///< when its socket was closed
};

/// One end of a session. Sends its stream, checks the other one, and misbehaves as planned.
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
    /// @param alreadyReceived how many bytes have been read from the socket (and checked) before
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
    Random pieces;  // draws their sizes; its own, so that the order of events does not change other draws
    bool stalling = false;
    std::array<char, 131072> outgoing;
    std::array<char, 65536> incoming;
};

}  // namespace soak
