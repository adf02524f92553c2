#include "soak/storm/Facts.h"

namespace storm {

void Facts::Stop(Clock::time_point now) {
    if (stoppedAt != Clock::time_point::max()) return;
    stoppedAt = now;
    dueDown = sentDown;
}

void Facts::Cut(Clock::time_point now) {
    isCut = true;
    Stop(now);
}

void Facts::CutShort(Clock::time_point now) {
    Cut(now);
    if (now - stoppedAt < patience) dueDown = 0;
}

const char* TextOf(Reason reason) {
    constexpr std::array<const char*, reasons> texts = {
        "the session was ended by the server",
        "the session was replaced by one of the same id",
        "the tunnel was broken by the server",
        "the service's port refused the connection",
        "the service ended its half in order, and the session with it",
        "the service closed outright",
        "the service reset its connection",
        "the session's id had not 16 characters",
        "UNEXPLAINED"};
    return texts.at(static_cast<std::size_t>(reason));
}

namespace {

// Without a stop all bytes were due. After a stop only those that were sent before it were due, if there was
// time.
bool HadTimeForAll(const Facts& facts) {
    const bool wasOwed = facts.receivedDown < facts.dueDown;
    return wasOwed && facts.waited >= patience && facts.endedAt - facts.stoppedAt >= patience;
}

// Whether it ended in good order, with no bytes on their way to it: the kernel would have answered those with
// a reset.
bool EndedInOrder(const Facts& facts) {
    return !facts.hasReset && (facts.hasShutDown || (facts.hasClosed && facts.sentDown == 0));
}

}  // namespace

Reason WhyMissingDown(const Facts& facts) {
    if (facts.isOddId) return Reason::OddId;
    if (facts.isRefused) return Reason::ServiceRefused;
    if (facts.hasReset) return Reason::ServiceReset;
    if (facts.hasClosed) return Reason::ServiceLeft;
    if (facts.isReplaced) return Reason::Replaced;
    if (facts.hasShutDown)
        return Reason::ServiceEnded;  // there is no half-close: nothing is written any more
    if (HadTimeForAll(facts)) return Reason::Unexplained;
    if (facts.isEnded) return Reason::EndedByServer;
    return facts.isCut ? Reason::TunnelCut : Reason::Unexplained;
}

// The agent queues the bytes that it has read before it queues disconnect-session, and the tunnel keeps the
// order. So that message always comes after all bytes of a service that ended in good order.
Reason WhyMissingUp(const Facts& facts) {
    if (facts.isDisconnected && EndedInOrder(facts) && !facts.isOddId) return Reason::Unexplained;
    if (facts.isOddId) return Reason::OddId;
    if (facts.hasReset) return Reason::ServiceReset;
    if (facts.hasClosed) return Reason::ServiceLeft;
    if (facts.isReplaced) return Reason::Replaced;
    if (facts.isEnded) return Reason::EndedByServer;
    return facts.isCut ? Reason::TunnelCut : Reason::Unexplained;
}

std::string FaultIn(const Facts& facts) {
    if (facts.wrongDown + facts.wrongUp > 0) return "bytes that are foreign, repeated or out of order";
    if (facts.receivedDown > facts.sentDown) return "the service got more than there was in whole frames";
    if (facts.receivedUp > facts.sentUp) return "the server got more than the service had sent";
    if (facts.isOddId && facts.receivedDown > 0) return "data for an id that has not 16 characters";
    if (facts.receivedDown < facts.sentDown && WhyMissingDown(facts) == Reason::Unexplained)
        return "bytes to the service are missing without a reason";
    if (facts.receivedUp < facts.sentUp && WhyMissingUp(facts) == Reason::Unexplained)
        return "bytes to the server are missing without a reason";
    return "";
}

}  // namespace storm
