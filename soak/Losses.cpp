#include "soak/Losses.h"

#include <algorithm>
#include <array>

namespace soak {

const char* TextOf(Reason reason) {
    constexpr std::array<const char*, reasons> texts = {
        "the tunnel died, with its server or alone",
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

// When more bytes came out of a part of the way than went in, the part has made them up.
Loss Between(std::uint64_t in, std::uint64_t out, Reason reason) {
    return in >= out ? Loss{in - out, reason} : Loss{out - in, Reason::Unexplained};
}

Reason OnTheWayFromClient(const Account& account) {
    if (account.struck) return Reason::TunnelDied;
    if (account.turnedAway) return Reason::TurnedAway;
    if (account.client.reset) return Reason::ClientReset;
    if (!account.server) return Reason::Unexplained;
    if (account.server->closedBy == "device") return Reason::ServiceGone;
    return account.server->closedBy == "lab" ? Reason::ClientDropped : Reason::Unexplained;
}

bool ServiceEndedItself(const EndRecord& service) {
    return service.shutDown || service.closed || service.reset;
}

// A service that waited for bytes right before its end had been given everything, if the agent was running.
bool WasWaitingAtItsEnd(const Account& account) {
    const EndRecord& service = account.service;
    const auto begin = std::max({service.lastReceived, service.stalledUntil, account.agentPausedUntil});
    return service.endedAt - begin >= patience;
}

// A service that reads all the time has everything before the five seconds are over. Only one that stops
// reading may not, unless it went on early enough.
Reason OnTheWayToService(const Account& account) {
    if (account.struck) return Reason::TunnelDied;
    if (account.plan.ending == Ending::ServiceRefuses) return Reason::ServiceRefused;
    if (account.agent.forgotten) return Reason::Forgotten;
    if (ServiceEndedItself(account.service)) return Reason::ServiceGone;
    const bool mayBeLate = account.plan.service.Stalls() && !WasWaitingAtItsEnd(account);
    return account.agent.endedByServer && mayBeLate ? Reason::StopDelay : Reason::Unexplained;
}

// The agent must have read the bytes that were written well before it closed the socket, unless its tunnel
// was held up. A service with bytes left to send was writing when it was cut off, however late it noticed.
bool WroteUntilClosed(const Account& account) {
    const EndRecord& service = account.service;
    return account.tunnelWasHeld || service.sent < account.plan.service.bytesToSend ||
           service.endedAt - service.lastSent < stopWindow;
}

Reason OnTheWayFromService(const Account& account) {
    if (account.struck) return Reason::TunnelDied;
    if (account.agent.serviceEnded) return Reason::Unexplained;
    if (account.service.reset) return Reason::ServiceReset;
    if (account.agent.writeFailed || account.agent.readFailed) return Reason::WriteFailed;
    return account.agent.endedByServer && WroteUntilClosed(account) ? Reason::StopDelay : Reason::Unexplained;
}

// The read that is under way when a write fails is still relayed, but after the message that the session has
// ended.
bool CameAfterTheEnd(const Account& account) {
    return account.agent.writeFailed && account.server && account.server->closedBy == "device" &&
           account.server->fromDevice - account.client.received <= largestRead;
}

Reason OnTheWayToClient(const Account& account) {
    if (account.struck) return Reason::TunnelDied;
    if (account.client.reset) return Reason::ClientReset;
    if (CameAfterTheEnd(account)) return Reason::AfterTheEnd;
    return account.server && account.server->closedBy == "lab" ? Reason::ClientDropped : Reason::Unexplained;
}

}  // namespace

// A server that was killed had no time to report its figures.
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

namespace {

std::uint64_t Unexplained(const std::vector<Loss>& losses) {
    std::uint64_t bytes = 0;
    for (const Loss& loss : losses)
        if (loss.reason == Reason::Unexplained) bytes += loss.bytes;
    return bytes;
}

// The agent cannot know of the end before the client has ended, so this time is its delay or more.
std::chrono::milliseconds TimeFromClientToService(const Account& account) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(account.service.endedAt -
                                                                 account.client.finishedAt);
}

bool WasClosedEarly(const Account& account) {
    constexpr std::chrono::milliseconds rounding{20};
    const AgentWords& agent = account.agent;
    const bool isTimed = agent.endedByServer && !account.struck && account.server &&
                         account.server->closedBy == "client" && account.service.appeared &&
                         !ServiceEndedItself(account.service) && !agent.readFailed && !agent.writeFailed;
    return isTimed && TimeFromClientToService(account) < stopDelay - rounding;
}

}  // namespace

std::string FaultIn(const Account& account) {
    if (const auto bytes = Unexplained(LossesToService(account)))
        return std::to_string(bytes) + " bytes to its service are lost or made up, for no reason";
    if (const auto bytes = Unexplained(LossesToClient(account)))
        return std::to_string(bytes) + " bytes to its client are lost or made up, for no reason";
    if (const auto bytes = account.client.wrong + account.service.wrong)
        return std::to_string(bytes) + " bytes are foreign, repeated or out of order";
    if (EndedCleanly(account) && account.client.received != account.service.sent)
        return "its service ended in good order, but its client did not get everything";
    if (WasClosedEarly(account))
        return "the agent closed its service's socket " +
               std::to_string(TimeFromClientToService(account).count()) + " ms after its client's end; " +
               std::to_string(stopDelay.count()) + " ms is its delay";
    return "";
}

}  // namespace soak
