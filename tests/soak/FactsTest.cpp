#include <gtest/gtest.h>

#include "soak/storm/Facts.h"

namespace {

using namespace std::chrono_literals;
using storm::Facts;

const storm::Clock::time_point start;

/// 1000 bytes each way, all of them arrived.
Facts Whole() {
    Facts facts;
    facts.sentDown = facts.receivedDown = facts.sentUp = facts.receivedUp = 1000;
    return facts;
}

/// The server ended it, and the service had more than enough time.
void End(Facts& facts) {
    facts.Stop(start);
    facts.isEnded = true;
    facts.waited = 2s;
    facts.endedAt = start + 3s;
}
void ShutDown(Facts& facts) { facts.hasShutDown = facts.isDisconnected = true; }

/// Bytes are missing in one direction; what else is known, and whether that is a reason. A reason that the
/// storm does not accept shows in every run, but one that it accepts wrongly shows only here.
struct Row {
    bool isFault, isDown;
    void (*know)(Facts&);
};

const Row rows[] = {
    {true, true, [](Facts&) {}},
    {true, false, [](Facts&) {}},
    {true, true, End},
    {true, true, [](Facts& f) { f.Cut(start), f.waited = 2s, f.endedAt = start + 3s; }},
    {true, false, [](Facts& f) { ShutDown(f), f.isEnded = f.isReplaced = true; }},
    {true, false, [](Facts& f) { f.hasClosed = f.isDisconnected = true, f.sentDown = f.receivedDown = 0; }},
    {false, true, [](Facts& f) { End(f), f.waited = 999ms; }},
    {false, true, [](Facts& f) { End(f), f.endedAt = start + 999ms; }},
    {false, false, End},
    {false, true, ShutDown},
};

TEST(FactsTest, AreFaultyWhenBytesAreMissingWithoutAReason) {
    for (const Row& row : rows) {
        Facts facts = Whole();
        row.know(facts);
        EXPECT_EQ(storm::FaultIn(facts), "") << &row - rows;
        (row.isDown ? facts.receivedDown : facts.receivedUp) -= 100;
        EXPECT_EQ(storm::FaultIn(facts) != "", row.isFault) << &row - rows;
    }
}

TEST(FactsTest, AreFaultyWithForeignBytesOrMoreThanWereSentOrDataForAnOddId) {
    for (std::uint64_t Facts::*counter : {&Facts::wrongDown, &Facts::wrongUp, &Facts::receivedDown}) {
        Facts facts = Whole();
        ++(facts.*counter);
        EXPECT_NE(storm::FaultIn(facts), "");
    }
    Facts odd = Whole();
    odd.isOddId = true;
    EXPECT_NE(storm::FaultIn(odd), "");
}

TEST(FactsTest, OweOnlyWhatWasSentBeforeTheStopAndWellBeforeASuddenEnd) {
    for (const auto& [due, cut] : {std::pair(0U, 999ms), std::pair(1000U, 1000ms)}) {
        Facts facts = Whole();
        End(facts);
        facts.sentDown += 100;
        EXPECT_EQ(storm::FaultIn(facts), "");
        facts.CutShort(start + cut);
        EXPECT_EQ(facts.dueDown, due);
    }
}

}  // namespace
