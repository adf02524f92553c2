#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>

#include "soak/Ledger.h"

namespace {

using namespace std::chrono_literals;
using soak::Account;
using soak::Ending;
using soak::Reason;

/// 1000 bytes each way, all of them arrived; the service has closed.
Account Whole() {
    Account account;
    account.service.shutDown = true;
    account.client.sent = account.service.received = account.service.sent = account.client.received = 1000;
    account.server = soak::ServerWords{1000, 1000, "device"};
    account.agent.serviceEnded = true;
    return account;
}

/// The same, but the service has left outright.
Account Left() {
    Account account = Whole();
    account.service.shutDown = account.agent.serviceEnded = false;
    account.service.closed = true;
    return account;
}

/// The same, ended by the client.
Account EndedByClient() {
    Account account = Whole();
    account.plan.service.bytesToSend = 1000;
    account.service.shutDown = false;
    account.server->closedBy = "client";
    account.agent = {};
    account.agent.endedByServer = true;
    account.service.endedAt = account.service.lastSent + 5s;
    return account;
}

using Change = void (*)(Account&);
void LoseToService(Account& account) { account.service.received -= 100; }
void LoseFromService(Account& account) { account.server->fromDevice = account.client.received -= 100; }
void LoseToClient(Account& account) { account.client.received -= 100; }
void LoseFromClient(Account& account) { account.server->toDevice = account.service.received -= 100; }
void MakeUpForService(Account& account) { account.service.received += 100; }
void MakeUpForClient(Account& account) { account.client.received += 100; }
void LoseOneRead(Account& account) { account.service.sent = account.server->fromDevice = 1000 + 16384; }
void LoseMoreThanARead(Account& account) { account.service.sent = account.server->fromDevice = 1001 + 16384; }
void ServerDies(Account& account) { account.struck = true; }
void ServerIsKilled(Account& account) { account.struck = true, account.server.reset(); }
void WriteFails(Account& account) { account.agent.writeFailed = true; }

/// How an account loses or gains bytes, what else is known of it, and what that makes of them.
struct Row {
    Reason reason;
    Account (*account)();
    Change lose, know = [](Account&) {};
};

const Row rows[] = {
    {Reason::Unexplained, EndedByClient, LoseFromClient},
    {Reason::Unexplained, EndedByClient, LoseToService},
    {Reason::Unexplained, EndedByClient, LoseToService, [](Account& a) { a.server.reset(); }},
    {Reason::Unexplained, EndedByClient, LoseFromService},  // written long before the stop
    {Reason::Unexplained, Whole, LoseFromService},
    {Reason::Unexplained, Whole, LoseFromService, WriteFails},
    {Reason::Unexplained, Whole, LoseToClient},
    {Reason::Unexplained, Whole, MakeUpForService},
    {Reason::Unexplained, Whole, MakeUpForService, ServerDies},
    {Reason::Unexplained, Whole, MakeUpForClient},
    {Reason::Unexplained, Left, LoseMoreThanARead, WriteFails},
    {Reason::ServerDied, EndedByClient, LoseToService, ServerIsKilled},
    {Reason::ServerDied, Left, LoseFromService, ServerDies},
    {Reason::TurnedAway, EndedByClient, LoseFromClient, [](Account& a) { a.turnedAway = true; }},
    {Reason::ClientReset, EndedByClient, LoseToClient, [](Account& a) { a.client.reset = true; }},
    {Reason::ClientDropped, EndedByClient, LoseToClient, [](Account& a) { a.server->closedBy = "lab"; }},
    {Reason::ServiceRefused, Whole, LoseToService,
     [](Account& a) { a.plan.ending = Ending::ServiceRefuses; }},
    {Reason::ServiceGone, Whole, LoseFromClient},
    {Reason::ServiceGone, Whole, LoseToService},
    {Reason::Forgotten, Whole, LoseToService, [](Account& a) { a.agent.forgotten = true; }},
    {Reason::ServiceReset, Left, LoseFromService, [](Account& a) { a.service.reset = true; }},
    {Reason::WriteFailed, Left, LoseFromService, WriteFails},
    {Reason::AfterTheEnd, Left, LoseOneRead, WriteFails},
    {Reason::StopDelay, EndedByClient, LoseToService, [](Account& a) { a.plan.service.stall = 1s; }},
    {Reason::StopDelay, EndedByClient, LoseFromService, [](Account& a) { a.service.lastSent += 4990ms; }},
    {Reason::StopDelay, EndedByClient, LoseFromService,
     [](Account& a) { a.plan.service.bytesToSend = 5000; }},
    {Reason::StopDelay, EndedByClient, LoseFromService, [](Account& a) { a.tunnelWasHeld = true; }},
};

std::uint64_t Gap(const soak::EndRecord& from, const soak::EndRecord& to) {
    return std::max(from.sent, to.received) - std::min(from.sent, to.received);
}

TEST(LedgerTest, TellsWhyBytesAreMissingAndBalancesOnlyWithAReason) {
    for (const Row& row : rows) {
        Account account = row.account();
        row.lose(account);
        row.know(account);
        SCOPED_TRACE(testing::PrintToString(account));
        auto losses = soak::LossesToService(account), back = soak::LossesToClient(account);
        losses.insert(losses.end(), back.begin(), back.end());
        std::uint64_t bytes = 0;
        for (const auto& loss : losses) {
            bytes += loss.bytes;
            EXPECT_TRUE(loss.bytes == 0 || loss.reason == row.reason) << soak::TextOf(loss.reason);
        }
        EXPECT_EQ(bytes, Gap(account.client, account.service) + Gap(account.service, account.client));
        soak::Ledger ledger;
        ledger.Enter(account);
        EXPECT_EQ(Balances(account), row.reason != Reason::Unexplained);
        EXPECT_EQ(ledger.Balances(), Balances(account));
    }
}

TEST(LedgerTest, AddsUp) {
    soak::Ledger ledger;
    ledger.Enter(Whole());
    Account lost = Whole();
    LoseToService(lost);
    ledger.Enter(lost);
    std::ostringstream text;
    ledger.Print(text);
    EXPECT_THAT(text.str(), testing::HasSubstr(
                                "bytes to the services\n            2000  sent\n            1900  received\n"
                                "             100  of 1 sessions dropped: the service had ended"));
}

TEST(LedgerTest, DoesNotBalanceWithAForeignByteOrAnIncompleteCleanEnd) {
    soak::Ledger foreign, incomplete;
    Account account = Whole();
    account.client.wrong = 1;
    foreign.Enter(account);
    EXPECT_FALSE(foreign.Balances() || Balances(account));
    account = Left();
    account.service.shutDown = true;
    LoseFromService(account);
    WriteFails(account);
    EXPECT_TRUE(Balances(account)) << "there is a reason, but the service ended in good order";
    incomplete.Enter(account);
    EXPECT_FALSE(incomplete.Balances());
}

}  // namespace
