#pragma once

#include <array>
#include <cstdint>
#include <iosfwd>

#include "soak/Losses.h"

namespace soak {

/// The sum over all sessions.
class Ledger {
public:
    void Enter(const Account& account);
    void Print(std::ostream& out) const;
    std::uint64_t ClientStalls() const { return clientStalls; }

private:
    struct Row {
        std::uint64_t bytes = 0, sessions = 0;
    };
    struct Side {
        std::uint64_t sent = 0, received = 0, wrong = 0;
        std::array<Row, reasons> lost;
    };
    static void Enter(Side& side, const EndRecord& from, const EndRecord& to,
                      const std::vector<Loss>& losses);
    static void Print(std::ostream& out, const char* name, const Side& side);

    Side toService, toClient;
    std::array<std::uint64_t, endings> planned{};
    std::uint64_t struck = 0, clientStalls = 0, serviceStalls = 0, cleanEnds = 0, completeCleanEnds = 0;
};

/// Everything that is known of a session, for whoever looks for the fault.
std::ostream& operator<<(std::ostream& out, const Account& account);

}  // namespace soak
