#pragma once

#include <array>
#include <cstdint>
#include <iosfwd>
#include <vector>

#include "soak/Account.h"

namespace soak {

/// Why bytes may be lost. Anything else is a fault.
enum class Reason {
    ServerDied,
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

/// How long after the last write the agent may still be about to close a stopped session's socket: its five
/// seconds, on a clock ten times as fast, and some for a busy machine.
constexpr std::chrono::milliseconds stopWindow{750};

/// Whether each of its bytes has come, or is missing for a reason.
bool Balances(const Account& account);
/// All that is known of it, for whoever looks for the fault.
std::ostream& operator<<(std::ostream& out, const Account& account);

/// The sum over all sessions.
class Ledger {
public:
    void Enter(const Account& account);
    void Print(std::ostream& out) const;
    bool Balances() const;  ///< nothing unexplained, nothing wrong

private:
    struct Row {
        std::uint64_t bytes = 0, sessions = 0;
    };
    struct Side {
        std::uint64_t sent = 0, received = 0, wrong = 0;
        std::array<Row, reasons> lost;
    };
    void Enter(Side& side, const EndRecord& from, const EndRecord& to, const std::vector<Loss>& losses);
    static void Print(std::ostream& out, const char* name, const Side& side);
    static bool Balances(const Side& side);

    Side toService, toClient;
    std::array<std::uint64_t, endings> planned{};
    std::uint64_t struck = 0, cleanEnds = 0, completeCleanEnds = 0;
};

/// Whether the service ended it in good order while nobody else did, and its client was there
/// to hear all of it.
bool EndedCleanly(const Account& account);

}  // namespace soak
