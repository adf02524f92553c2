#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "soak/Account.h"

namespace soak {

/// Why bytes may be lost. Anything else is a fault.
enum class Reason {
    TunnelDied,
    TurnedAway,
    ClientReset,
    ClientDropped,
    ServiceRefused,
    ServiceGone,
    ServiceReset,
    WriteFailed,
    AfterTheEnd,
    Forgotten,
    StopDelay,
    Unexplained
};
constexpr std::size_t reasons = static_cast<std::size_t>(Reason::Unexplained) + 1;
const char* TextOf(Reason reason);

/// One part of the way of one direction: how many bytes were lost there, and why.
struct Loss {
    std::uint64_t bytes = 0;
    Reason reason = Reason::Unexplained;
};

/// The losses of a direction, in the order of the way. With them, bytes sent = bytes received + bytes lost.
std::vector<Loss> LossesToService(const Account& account);
std::vector<Loss> LossesToClient(const Account& account);

/// The agent's delay between the end of a session and the closing of its service's socket: its five seconds,
/// on a clock ten times as fast.
constexpr std::chrono::milliseconds stopDelay{500};
/// After a write within this time before its end, a service may have been cut off: the delay, and time for a
/// busy machine.
constexpr std::chrono::milliseconds stopWindow{750};
/// A service that reads and gets nothing for this long has got everything that the agent had for it. (With a
/// receive buffer smaller than a segment that would not hold, because TCP then sends by its probe timer.)
constexpr std::chrono::milliseconds patience{150};

/// Whether the service ended it in good order while nobody else did, and its client was there to get all of
/// it.
bool EndedCleanly(const Account& account);

/// The fault of a session; "" when each of its bytes has come, or is missing for a reason, and the agent kept
/// its delay.
std::string FaultIn(const Account& account);

}  // namespace soak
