#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <string>

namespace storm {

using Clock = std::chrono::steady_clock;

/// The record of both ends of one opening. "Down" is from the server to the service, "up" the other way.
/// An opening is one new_session message: an id that is used twice has two.
struct Facts {
    std::uint64_t sentDown = 0;  ///< in frames of which the kernel has every byte
    std::uint64_t sentUp = 0;    ///< taken by the kernel
    std::uint64_t receivedDown = 0, receivedUp = 0;
    std::uint64_t wrongDown = 0, wrongUp = 0;  ///< received bytes that do not belong at their place

    bool isOddId = false;     ///< not 16 characters: such a session has no data down, and stops up for good
    bool isRefused = false;   ///< nobody listens at the service's port
    bool isReplaced = false;  ///< its id was opened again
    bool isEnded = false;     ///< end_session was sent
    bool isCut = false;       ///< the tunnel was broken by the server
    bool isDisconnected = false;  ///< disconnect-session has come

    /// The service did this itself, before it saw the agent's end.
    bool hasShutDown = false, hasClosed = false, hasReset = false;

    /// The first event after which the agent keeps the service's socket for the delay of a stop only; bytes
    /// sent down before it are due.
    Clock::time_point stoppedAt = Clock::time_point::max();
    std::uint64_t dueDown = 0;
    /// How long the service had waited for bytes when it saw the agent's end.
    std::chrono::milliseconds waited{0};
    Clock::time_point endedAt;  ///< when the service saw the agent's end

    /// Only the first call counts.
    void Stop(Clock::time_point now);
    /// The tunnel goes, but not before the agent has read all of it.
    void Cut(Clock::time_point now);
    /// It goes at once, and with it the bytes that the agent had not read yet.
    void CutShort(Clock::time_point now);
};

/// Why bytes may be missing. Anything else is a fault.
enum class Reason {
    EndedByServer,
    Replaced,
    TunnelCut,
    ServiceRefused,
    ServiceEnded,
    ServiceLeft,
    ServiceReset,
    OddId,
    Unexplained
};
constexpr std::size_t reasons = static_cast<std::size_t>(Reason::Unexplained) + 1;
const char* TextOf(Reason reason);

/// Why bytes that were sent have not come. Call it only when some have not.
Reason WhyMissingDown(const Facts& facts);
Reason WhyMissingUp(const Facts& facts);

/// The fault in the account of an opening that is over; "" when it balances.
std::string FaultIn(const Facts& facts);

/// When a service has waited for this long, and for this long after the stop, all bytes have had time to
/// come, because they need a few milliseconds. Only runs with longer delays can check that.
constexpr std::chrono::milliseconds patience{1000};

}  // namespace storm
