#pragma once

#include <array>
#include <cstdint>
#include <iosfwd>

#include "soak/storm/Opening.h"

namespace storm {

/// The sum over all openings.
class Ledger {
public:
    void Enter(const Opening& opening);
    void EnterTunnel(Break kind) { ++broken.at(static_cast<std::size_t>(kind)); }
    void Print(std::ostream& out) const;
    std::uint64_t Openings() const { return openings; }
    std::uint64_t Tunnels() const;

private:
    struct Row {
        std::uint64_t bytes = 0, openings = 0;
    };
    struct Side {
        std::uint64_t sent = 0, received = 0, wrong = 0, complete = 0;
        std::array<Row, reasons> missing;
    };
    static void Enter(Side& side, std::uint64_t sent, std::uint64_t received, std::uint64_t wrong,
                      Reason reason);
    static void Print(std::ostream& out, const char* name, const Side& side);

    Side down, up;
    std::array<std::uint64_t, endings> planned{};
    std::array<std::uint64_t, breaks> broken{};
    std::uint64_t openings = 0, oddIds = 0, replaced = 0;
};

/// Everything that is known of an opening, for whoever looks for the fault.
std::ostream& operator<<(std::ostream& out, const Opening& opening);

}  // namespace storm
