#include "soak/Ledger.h"

#include <iomanip>
#include <ostream>

namespace soak {

namespace {

void Print(std::ostream& out, const char* name, const EndRecord& end, const EndPlan& plan) {
    out << "  " << name << ": sent " << end.sent << " of " << plan.bytesToSend << ", received "
        << end.received << ", wrong " << end.wrong << (end.appeared ? "" : ", never there")
        << (end.shutDown ? ", shut down" : "") << (end.closed ? ", closed" : "")
        << (end.reset ? ", reset" : "") << (end.sawEnd ? ", saw the end" : "")
        << (end.hasStalled ? ", stopped reading for a while" : "") << '\n';
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const Account& account) {
    out << "session " << account.number << " on route " << account.route << ", to be "
        << NameOf(account.plan.ending) << (account.struck ? ", hit by the death of its tunnel" : "")
        << (account.turnedAway ? ", turned away" : "") << '\n';
    Print(out, "client", account.client, account.plan.client);
    Print(out, "service", account.service, account.plan.service);
    const AgentWords& agent = account.agent;
    out << "  agent:" << (agent.endedByServer ? " ended by the server" : "")
        << (agent.serviceEnded ? " service ended" : "") << (agent.readFailed ? " read failed" : "")
        << (agent.writeFailed ? " write failed" : "") << (agent.forgotten ? " forgotten" : "") << '\n';
    if (account.server)
        out << "  server: " << account.server->toDevice << " to device, " << account.server->fromDevice
            << " from device, closed by " << account.server->closedBy << '\n';
    return out;
}

void Ledger::Enter(const Account& account) {
    Enter(toService, account.client, account.service, LossesToService(account));
    Enter(toClient, account.service, account.client, LossesToClient(account));
    ++planned.at(static_cast<std::size_t>(account.plan.ending));
    struck += account.struck ? 1U : 0U;
    clientStalls += account.client.hasStalled ? 1U : 0U;
    serviceStalls += account.service.hasStalled ? 1U : 0U;
    if (!EndedCleanly(account)) return;
    ++cleanEnds;
    completeCleanEnds += account.client.received == account.service.sent ? 1U : 0U;
}

void Ledger::Enter(Side& side, const EndRecord& from, const EndRecord& to, const std::vector<Loss>& losses) {
    side.sent += from.sent;
    side.received += to.received;
    side.wrong += to.wrong;
    for (const auto& loss : losses) {
        if (loss.bytes == 0) continue;
        Row& row = side.lost.at(static_cast<std::size_t>(loss.reason));
        row.bytes += loss.bytes;
        ++row.sessions;
    }
}

void Ledger::Print(std::ostream& out) const {
    out << "sessions\n";
    for (std::size_t i = 0; i < planned.size(); ++i)
        out << std::setw(16) << planned.at(i) << "  to be " << NameOf(static_cast<Ending>(i)) << '\n';
    out << std::setw(16) << struck << "  of all these hit by the death of their tunnel\n"
        << std::setw(16) << cleanEnds
        << "  ended cleanly by the service; its client got all of it before the end in " << completeCleanEnds
        << '\n';
    out << std::setw(16) << clientStalls << "  clients and " << serviceStalls
        << " services stopped reading for a while\n";
    Print(out, "bytes to the services", toService);
    Print(out, "bytes to the clients", toClient);
}

void Ledger::Print(std::ostream& out, const char* name, const Side& side) {
    const auto line = [&out](std::uint64_t bytes) -> std::ostream& {
        return out << std::setw(16) << bytes << "  ";
    };
    out << name << '\n';
    line(side.sent) << "sent\n";
    line(side.received) << "received\n";
    for (std::size_t i = 0; i < reasons; ++i) {
        const Row& row = side.lost.at(i);
        if (row.bytes > 0 || static_cast<Reason>(i) == Reason::Unexplained)
            line(row.bytes) << "of " << row.sessions
                            << " sessions dropped: " << TextOf(static_cast<Reason>(i)) << '\n';
    }
    line(side.wrong) << "received that were foreign, repeated or out of order\n";
}

}  // namespace soak
