#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "soak/storm/Facts.h"

namespace {

using namespace std::chrono_literals;
using storm::Facts;
using storm::Reason;

const storm::Clock::time_point start;

/// 1000 bytes each way, all of them arrived; nobody has ended it.
Facts Whole() {
    Facts facts;
    facts.sentDown = facts.receivedDown = facts.sentUp = facts.receivedUp = 1000;
    return facts;
}

/// Stopped by `stop`, after which the service had all the time that it could wish for.
Facts Stopped(void (Facts::*stop)(storm::Clock::time_point)) {
    Facts facts = Whole();
    (facts.*stop)(start);
    facts.waited = 2s;
    facts.endedAt = start + 3s;
    return facts;
}
Facts Ended() {
    Facts facts = Stopped(&Facts::Stop);
    facts.isEnded = true;
    return facts;
}
Facts Cut() { return Stopped(&Facts::Cut); }
Facts CutShort() { return Stopped(&Facts::CutShort); }
Facts HalfClosed() {
    Facts facts = Whole();
    facts.hasShutDown = facts.isDisconnected = true;
    return facts;
}
Facts Left() {
    Facts facts = HalfClosed();
    facts.hasShutDown = false;
    facts.hasClosed = true;
    return facts;
}

void LoseDown(Facts& facts) { facts.receivedDown -= 100; }
void LoseUp(Facts& facts) { facts.receivedUp -= 100; }
void LoseWhatCameLater(Facts& facts) { facts.sentDown += 100; }
constexpr auto nothingElse = [](Facts&) {};

struct Row {
    Reason reason;
    Facts (*facts)();
    void (*lose)(Facts&);
    void (*know)(Facts&) = nothingElse;
};

const Row rows[] = {
    {Reason::Unexplained, Whole, LoseDown},
    {Reason::Unexplained, Whole, LoseUp},
    {Reason::Unexplained, Ended, LoseDown},
    {Reason::Unexplained, Cut, LoseDown},
    {Reason::Unexplained, HalfClosed, LoseUp},
    {Reason::Unexplained, HalfClosed, LoseUp, [](Facts& facts) { facts.isEnded = facts.isReplaced = true; }},
    {Reason::Unexplained, Left, LoseUp, [](Facts& facts) { facts.sentDown = facts.receivedDown = 0; }},
    {Reason::EndedByServer, Ended, LoseWhatCameLater},
    {Reason::EndedByServer, Ended, LoseDown, [](Facts& facts) { facts.waited = 999ms; }},
    {Reason::EndedByServer, Ended, LoseDown, [](Facts& facts) { facts.endedAt = start + 999ms; }},
    {Reason::EndedByServer, Ended, LoseUp},
    {Reason::TunnelCut, Cut, LoseUp},
    {Reason::TunnelCut, CutShort, LoseDown},
    {Reason::Replaced, Whole, LoseDown, [](Facts& facts) { facts.isReplaced = true; }},
    {Reason::Replaced, Whole, LoseUp, [](Facts& facts) { facts.isReplaced = true; }},
    {Reason::ServiceEnded, HalfClosed, LoseDown},
    {Reason::ServiceLeft, Left, LoseDown},
    {Reason::ServiceLeft, Left, LoseUp},
    {Reason::ServiceReset, HalfClosed, LoseUp, [](Facts& facts) { facts.hasReset = true; }},
    {Reason::ServiceReset, Whole, LoseDown, [](Facts& facts) { facts.hasReset = true; }},
    {Reason::ServiceRefused, Whole, LoseDown, [](Facts& facts) { facts.isRefused = true; }},
    {Reason::OddId, HalfClosed, LoseUp, [](Facts& facts) { facts.isOddId = true, facts.receivedDown = 0; }},
};

TEST(FactsTest, TellWhyBytesAreMissingAndAreFaultyOnlyWithoutAReason) {
    for (const Row& row : rows) {
        SCOPED_TRACE(&row - rows);
        Facts facts = row.facts();
        row.know(facts);
        EXPECT_EQ(storm::FaultIn(facts), "") << "nothing is missing yet, or for a reason";
        row.lose(facts);
        const bool isDown = facts.receivedUp == facts.sentUp;
        EXPECT_EQ(isDown ? WhyMissingDown(facts) : WhyMissingUp(facts), row.reason);
        EXPECT_EQ(storm::FaultIn(facts).empty(), row.reason != Reason::Unexplained);
    }
}

TEST(FactsTest, AreFaultyWithForeignBytesOrMoreThanWereSentOrDataForAnOddId) {
    Facts facts[4] = {Whole(), Whole(), Whole(), Whole()};
    facts[0].wrongDown = 1;
    facts[1].wrongUp = 1;
    ++facts[2].receivedDown;
    facts[3].isOddId = true;
    for (const Facts& each : facts) EXPECT_NE(storm::FaultIn(each), "");
}

TEST(FactsTest, OweNothingThatWasSentRightBeforeASuddenEnd) {
    Facts facts = Whole();
    facts.Stop(start);
    facts.CutShort(start + 999ms);
    EXPECT_EQ(facts.dueDown, 0U);
    facts = Whole();
    facts.Stop(start);
    facts.CutShort(start + 1s);
    EXPECT_EQ(facts.dueDown, 1000U);
}

}  // namespace
