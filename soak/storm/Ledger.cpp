#include "soak/storm/Ledger.h"

#include <iomanip>
#include <numeric>
#include <ostream>

namespace storm {

namespace {

std::ostream& Line(std::ostream& out, std::uint64_t count) { return out << std::setw(16) << count << "  "; }

}  // namespace

void Ledger::Enter(const Opening& opening) {
    const Facts& facts = opening.facts;
    Enter(down, facts.sentDown, facts.receivedDown, facts.wrongDown, WhyMissingDown(facts));
    Enter(up, facts.sentUp, facts.receivedUp, facts.wrongUp, WhyMissingUp(facts));
    ++openings;
    ++planned.at(static_cast<std::size_t>(opening.plan.ending));
    oddIds += facts.isOddId ? 1U : 0U;
    replaced += facts.isReplaced ? 1U : 0U;
}

void Ledger::Enter(Side& side, std::uint64_t sent, std::uint64_t received, std::uint64_t wrong,
                   Reason reason) {
    side.sent += sent;
    side.received += received;
    side.wrong += wrong;
    if (received == sent) {
        ++side.complete;
        return;
    }
    Row& row = received < sent ? side.missing.at(static_cast<std::size_t>(reason)) : side.missing.back();
    row.bytes += received < sent ? sent - received : received - sent;
    ++row.openings;
}

std::uint64_t Ledger::Tunnels() const {
    return std::accumulate(broken.begin(), broken.end(), std::uint64_t{0});
}

void Ledger::Print(std::ostream& out) const {
    out << "tunnels\n";
    for (std::size_t i = 0; i < breaks; ++i) Line(out, broken.at(i)) << NameOf(static_cast<Break>(i)) << '\n';
    out << "sessions\n";
    for (std::size_t i = 0; i < endings; ++i)
        Line(out, planned.at(i)) << "to be " << NameOf(static_cast<Ending>(i)) << '\n';
    Line(out, replaced) << "of all these replaced by another of the same id\n";
    Line(out, oddIds) << "of all these with an id that has not 16 characters\n";
    Print(out, "bytes to the services", down);
    Print(out, "bytes to the server", up);
}

void Ledger::Print(std::ostream& out, const char* name, const Side& side) {
    out << name << '\n';
    Line(out, side.sent) << "sent\n";
    Line(out, side.received) << "received; of " << side.complete << " sessions all of them\n";
    for (std::size_t i = 0; i < reasons; ++i) {
        const Row& row = side.missing.at(i);
        if (row.bytes > 0 || static_cast<Reason>(i) == Reason::Unexplained)
            Line(out, row.bytes) << "of " << row.openings
                                 << " sessions missing: " << TextOf(static_cast<Reason>(i)) << '\n';
    }
    Line(out, side.wrong) << "received that were foreign, repeated or out of order\n";
}

std::ostream& operator<<(std::ostream& out, const Opening& opening) {
    const Facts& facts = opening.facts;
    out << "session key " << opening.key << ", id " << opening.id << ", to be " << NameOf(opening.plan.ending)
        << "; to the service " << facts.receivedDown << " of " << facts.sentDown << " sent of "
        << opening.plan.down << " planned, " << facts.wrongDown << " wrong, " << facts.dueDown
        << " due; to the server " << facts.receivedUp << " of " << facts.sentUp << " sent of "
        << opening.plan.up << " planned, " << facts.wrongUp << " wrong; waited " << facts.waited.count()
        << " ms";
    const std::pair<bool, const char*> words[] = {{opening.isAsked, "asked for"},
                                                  {opening.isConnected, "connected"},
                                                  {facts.isDisconnected, "disconnected"},
                                                  {facts.isOddId, "odd id"},
                                                  {facts.isRefused, "refused"},
                                                  {facts.isReplaced, "replaced"},
                                                  {facts.isEnded, "ended by the server"},
                                                  {facts.isCut, "tunnel broken"},
                                                  {facts.hasShutDown, "service half-closed"},
                                                  {facts.hasClosed, "service closed"},
                                                  {facts.hasReset, "service reset"}};
    for (const auto& [isSo, word] : words)
        if (isSo) out << ", " << word;
    return out;
}

}  // namespace storm
