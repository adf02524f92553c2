#include "soak/Ledger.h"

#include <algorithm>
#include <iomanip>
#include <ostream>

namespace soak {

const char* TextOf(Reason reason) {
    constexpr std::array<const char*, reasons> texts = {
        "the server died, and the connection with it",
        "turned away by the server: no device was connected",
        "the client reset its connection",
        "the client took nothing for too long: the server dropped it",
        "the service's port refused the connection",
        "the service had ended the session already",
        "the service reset its connection",
        "writing to the service failed, so it was not read any more",
        "writing to the service failed, and one last read came after the session's end",
        "the session's id was not known any more",
        "the agent closed the service's socket five seconds after a stop",
        "UNEXPLAINED"};
    return texts.at(static_cast<std::size_t>(reason));
}

namespace {

constexpr std::uint64_t largestRead = 16384;  // of the agent's, from a service

// A part of the way from which more came out than went in has made bytes up.
Loss Between(std::uint64_t in, std::uint64_t out, Reason reason) {
    return in >= out ? Loss{in - out, reason} : Loss{out - in, Reason::Unexplained};
}

Reason OnTheWayFromClient(const Account& account) {
    if (account.struck) return Reason::ServerDied;
    if (account.turnedAway) return Reason::TurnedAway;
    if (account.client.reset) return Reason::ClientReset;
    if (!account.server) return Reason::Unexplained;
    if (account.server->closedBy == "device") return Reason::ServiceGone;
    return account.server->closedBy == "lab" ? Reason::ClientDropped : Reason::Unexplained;
}

bool ServiceEndedItself(const EndRecord& service) {
    return service.shutDown || service.closed || service.reset;
}

// A service that reads what it can has everything before the five seconds are over; only one
// that stops may not.
Reason OnTheWayToService(const Account& account) {
    if (account.struck) return Reason::ServerDied;
    if (account.plan.ending == Ending::ServiceRefuses) return Reason::ServiceRefused;
    if (account.agent.forgotten) return Reason::Forgotten;
    if (ServiceEndedItself(account.service)) return Reason::ServiceGone;
    return account.agent.endedByServer && account.plan.service.Stalls() ? Reason::StopDelay
                                                                        : Reason::Unexplained;
}

// What was written well before the agent closed the socket must have been read, unless it could not get rid of
// it. A service with more to say was writing when it was cut off, however late it noticed.
bool WroteUntilClosed(const Account& account) {
    const EndRecord& service = account.service;
    return account.tunnelWasHeld || service.sent < account.plan.service.bytesToSend ||
           service.endedAt - service.lastSent < stopWindow;
}

Reason OnTheWayFromService(const Account& account) {
    if (account.struck) return Reason::ServerDied;
    if (account.agent.serviceEnded) return Reason::Unexplained;
    if (account.service.reset) return Reason::ServiceReset;
    if (account.agent.writeFailed || account.agent.readFailed) return Reason::WriteFailed;
    return account.agent.endedByServer && WroteUntilClosed(account) ? Reason::StopDelay : Reason::Unexplained;
}

// The one read that is under way when a write fails is still relayed, but behind the word that the session has ended.
bool CameAfterTheEnd(const Account& account) {
    return account.agent.writeFailed && account.server && account.server->closedBy == "device" &&
           account.server->fromDevice - account.client.received <= largestRead;
}

Reason OnTheWayToClient(const Account& account) {
    if (account.struck) return Reason::ServerDied;
    if (account.client.reset) return Reason::ClientReset;
    if (CameAfterTheEnd(account)) return Reason::AfterTheEnd;
    return account.server && account.server->closedBy == "lab" ? Reason::ClientDropped : Reason::Unexplained;
}

}  // namespace

// A server that was killed had no time to say what passed it.
std::vector<Loss> LossesToService(const Account& account) {
    const auto sent = account.client.sent, received = account.service.received;
    if (!account.server) return {Between(sent, received, OnTheWayFromClient(account))};
    return {Between(sent, account.server->toDevice, OnTheWayFromClient(account)),
            Between(account.server->toDevice, received, OnTheWayToService(account))};
}

std::vector<Loss> LossesToClient(const Account& account) {
    const auto sent = account.service.sent, received = account.client.received;
    if (!account.server) return {Between(sent, received, OnTheWayToClient(account))};
    return {Between(sent, account.server->fromDevice, OnTheWayFromService(account)),
            Between(account.server->fromDevice, received, OnTheWayToClient(account))};
}

bool EndedCleanly(const Account& account) {
    return account.service.shutDown && !account.struck && !account.client.reset && account.server &&
           account.server->closedBy == "device";
}

bool Balances(const Account& account) {
    const auto isExplained = [](const Loss& loss) {
        return loss.bytes == 0 || loss.reason != Reason::Unexplained;
    };
    const auto toService = LossesToService(account), toClient = LossesToClient(account);
    return std::all_of(toService.begin(), toService.end(), isExplained) &&
           std::all_of(toClient.begin(), toClient.end(), isExplained) &&
           account.client.wrong + account.service.wrong == 0;
}

namespace {

void Print(std::ostream& out, const char* name, const EndRecord& end, const EndPlan& plan) {
    out << "  " << name << ": sent " << end.sent << " of " << plan.bytesToSend << ", received "
        << end.received << ", wrong " << end.wrong << (end.appeared ? "" : ", never there")
        << (end.shutDown ? ", shut down" : "") << (end.closed ? ", closed" : "")
        << (end.reset ? ", reset" : "") << (end.sawEnd ? ", saw the end" : "")
        << (plan.Stalls() ? ", stalled" : "") << '\n';
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const Account& account) {
    out << "session " << account.number << " on route " << account.route << ", to be "
        << NameOf(account.plan.ending) << (account.struck ? ", hit by a dying server" : "")
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

bool Ledger::Balances(const Side& side) {
    std::uint64_t lost = 0;
    for (const Row& row : side.lost) lost += row.bytes;
    return side.lost.back().bytes == 0 && side.wrong == 0 && side.sent == side.received + lost;
}

bool Ledger::Balances() const {
    return Balances(toService) && Balances(toClient) && cleanEnds == completeCleanEnds;
}

void Ledger::Print(std::ostream& out) const {
    out << "sessions\n";
    for (std::size_t i = 0; i < planned.size(); ++i)
        out << std::setw(16) << planned.at(i) << "  to be " << NameOf(static_cast<Ending>(i)) << '\n';
    out << std::setw(16) << struck << "  of all these hit by a dying server\n"
        << std::setw(16) << cleanEnds
        << "  ended cleanly by the service; its client got all of it before the end in " << completeCleanEnds
        << '\n';
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
