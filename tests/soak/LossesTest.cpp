#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "soak/Ledger.h"

namespace {

using namespace std::chrono_literals;
using soak::Account;

const soak::Clock::time_point start{1h};

/// 1000 bytes each way, all of them arrived; the service has shut down.
Account Whole() {
    Account account;
    account.service.shutDown = account.service.appeared = account.agent.serviceEnded = true;
    account.client.sent = account.service.received = account.service.sent = account.client.received = 1000;
    account.plan.service.bytesToSend = 1000;
    account.server = soak::ServerWords{1000, 1000, "device"};
    return account;
}
/// The same, but the service has closed and could not be written to.
Account Left() {
    Account account = Whole();
    account.service.shutDown = account.agent.serviceEnded = false;
    account.service.closed = account.agent.writeFailed = true;
    return account;
}
/// The same, ended by the client; the agent has kept its delay, and the service was quiet all the time.
Account Ended() {
    Account account = Whole();
    account.service.shutDown = account.agent.serviceEnded = false;
    account.agent.endedByServer = true;
    account.server->closedBy = "client";
    account.client.finishedAt = start;
    account.service.endedAt = start + 500ms;
    account.service.lastSent = start - 300ms;
    account.service.stalledUntil = start + 350ms;
    return account;
}

void ToService(Account& account) { account.service.received -= 100; }
void FromService(Account& account) { account.server->fromDevice = account.client.received -= 100; }
void ToClient(Account& account) { account.client.received -= 100; }
void FromClient(Account& account) { account.server->toDevice = account.service.received -= 100; }
void Stall(Account& account) { account.plan.service.stall = 1s; }

/// How an account loses bytes, what else is known of it, and whether that is no reason. A reason that the
/// soak does not accept shows in every run, but one that it accepts wrongly shows only here.
struct Row {
    bool isFault;
    Account (*account)();
    void (*lose)(Account&);
    void (*know)(Account&) = [](Account&) {};
};

const Row rows[] = {
    {true, Ended, FromClient},
    {true, Ended, ToService},
    {true, Ended, ToService, [](Account& a) { Stall(a), a.service.stalledUntil -= 1ms; }},
    {true, Ended, FromService},
    {true, Whole, FromService},
    {true, Whole, ToClient},
    {true, Whole, [](Account& a) { a.service.received += 100; }, [](Account& a) { a.struck = true; }},
    {true, Left, [](Account& a) { a.service.sent = a.server->fromDevice = 1001 + 16384; }},
    {false, Left, [](Account& a) { a.service.sent = a.server->fromDevice = 1000 + 16384; }},
    {false, Ended, ToService, [](Account& a) { a.struck = true, a.server.reset(); }},
    {false, Whole, ToService},
    {false, Ended, ToService, [](Account& a) { Stall(a), a.service.stalledUntil += 1ms; }},
    {false, Ended, ToService, [](Account& a) { Stall(a), a.service.lastReceived = start + 351ms; }},
    {false, Ended, ToService, [](Account& a) { Stall(a), a.agentPausedUntil = start + 351ms; }},
    {false, Ended, FromService, [](Account& a) { a.service.lastSent += 60ms; }},
};

TEST(LossesTest, AreAFaultWithoutAReason) {
    for (const Row& row : rows) {
        Account account = row.account();
        row.know(account);
        row.lose(account);
        SCOPED_TRACE(testing::PrintToString(account));
        EXPECT_EQ(FaultIn(account) != "", row.isFault);
    }
}

TEST(LossesTest, AreNotTheOnlyFaults) {
    Account foreign = Whole(), incomplete = Left(), early = Ended();
    foreign.client.wrong = 1;
    FromService(incomplete);
    incomplete.service.shutDown = true;
    early.client.finishedAt += 20ms;
    for (const Account& whole : {Whole(), Left(), early}) EXPECT_EQ(FaultIn(whole), "");
    early.client.finishedAt += 1ms;
    EXPECT_THAT(FaultIn(foreign), testing::HasSubstr("1 bytes are foreign"));
    EXPECT_THAT(FaultIn(incomplete), testing::HasSubstr("did not get everything"));
    EXPECT_THAT(FaultIn(early), testing::HasSubstr("socket 479 ms after"));
}

}  // namespace
