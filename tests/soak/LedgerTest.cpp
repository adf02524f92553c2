#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>

#include "bench/soak/Ledger.h"

namespace {

using namespace std::chrono_literals;
using soak::Account;
using soak::Ending;
using soak::Reason;
using testing::HasSubstr;

/// 1000 bytes each way, all of them arrived; the service has closed.
Account Whole() {
    Account account;
    account.service.appeared = account.service.shutDown = true;
    account.client.sent = account.service.received = account.service.sent = account.client.received = 1000;
    account.server = soak::ServerWords{1000, 1000, "device"};
    account.agent.serviceEnded = true;
    return account;
}

/// The same, ended by the client.
Account EndedByClient() {
    Account account = Whole();
    account.plan.ending = Ending::ClientCloses;
    account.plan.service.bytesToSend = 1000;
    account.client.shutDown = true;
    account.service.shutDown = false;
    account.server->closedBy = "client";
    account.agent = {};
    account.agent.endedByServer = true;
    account.service.endedAt = account.service.lastSent + 5s;
    return account;
}

struct Case {
    const char* name;
    Account account;
    std::function<void(Account&)> change;
    Reason reason;  // of 100 bytes to the service, or to the client, or of both
};
class TellsWhy : public testing::TestWithParam<Case> {};
TEST_P(TellsWhy, BytesAreMissing) {
    Account account = GetParam().account;
    GetParam().change(account);
    auto losses = soak::LossesToService(account), back = soak::LossesToClient(account);
    losses.insert(losses.end(), back.begin(), back.end());
    std::uint64_t bytes = 0;
    for (const auto& loss : losses) {
        if (loss.bytes == 0) continue;
        bytes += loss.bytes;
        EXPECT_EQ(soak::TextOf(loss.reason), std::string(soak::TextOf(GetParam().reason)));
    }
    EXPECT_EQ(bytes, 100U);
    EXPECT_EQ(Balances(account), GetParam().reason != Reason::Unexplained);
}

void LoseToService(Account& account) { account.service.received -= 100; }
void LoseFromService(Account& account) { account.server->fromDevice = account.client.received -= 100; }
void LoseToClient(Account& account) { account.client.received -= 100; }
void LoseFromClient(Account& account) { account.server->toDevice = account.service.received -= 100; }

// A change that loses bytes, and what is known besides.
template <typename Lose, typename Know>
auto And(Lose lose, Know know) {
    return [=](Account& account) {
        lose(account);
        know(account);
    };
}

INSTANTIATE_TEST_SUITE_P(
    WithoutReason, TellsWhy,
    testing::Values(Case{"BeforeTheServer", EndedByClient(), LoseFromClient, Reason::Unexplained},
                    Case{"BeforeTheService", EndedByClient(), LoseToService, Reason::Unexplained},
                    Case{"BeforeTheServicesCleanEnd", Whole(), LoseFromService, Reason::Unexplained},
                    Case{"CleanEndDespiteAFailedWrite", Whole(),
                         And(LoseFromService, [](Account& a) { a.agent.writeFailed = true; }),
                         Reason::Unexplained},
                    Case{"WrittenLongBeforeTheStop", EndedByClient(), LoseFromService, Reason::Unexplained},
                    Case{"AfterTheServer", Whole(), LoseToClient, Reason::Unexplained},
                    Case{"MadeUpForTheService", Whole(), [](Account& a) { a.service.received += 100; },
                         Reason::Unexplained},
                    Case{"MadeUpForTheClient", Whole(), [](Account& a) { a.client.received += 100; },
                         Reason::Unexplained},
                    Case{"MadeUpByTheAgentThoughTheServerDied", Whole(),
                         [](Account& a) {
                             a.struck = true;
                             a.service.received += 100;
                         },
                         Reason::Unexplained},
                    Case{"NeverReportedByTheServer", EndedByClient(),
                         And(LoseToService, [](Account& a) { a.server.reset(); }), Reason::Unexplained}),
    [](const auto& row) { return std::string(row.param.name); });

INSTANTIATE_TEST_SUITE_P(
    WithReason, TellsWhy,
    testing::Values(
        Case{"ServerKilled", EndedByClient(),
             And(LoseToService, [](Account& a) { a.struck = true, a.server.reset(); }), Reason::ServerDied},
        Case{"ServerStopped", Whole(), And(LoseFromService, [](Account& a) { a.struck = true; }),
             Reason::ServerDied},
        Case{"TurnedAway",
             {},
             [](Account& a) {
                 a.client.sent = 100;
                 a.turnedAway = true;
             },
             Reason::TurnedAway},
        Case{"ClientReset", EndedByClient(), And(LoseToClient, [](Account& a) { a.client.reset = true; }),
             Reason::ClientReset},
        Case{"ClientDropped", EndedByClient(),
             And(LoseToClient, [](Account& a) { a.server->closedBy = "lab"; }), Reason::ClientDropped},
        Case{"Refused", Whole(),
             And(LoseToService, [](Account& a) { a.plan.ending = Ending::ServiceRefuses; }),
             Reason::ServiceRefused},
        Case{"ServiceGoneAtTheServer", Whole(), LoseFromClient, Reason::ServiceGone},
        Case{"ServiceGoneAtTheAgent", Whole(), LoseToService, Reason::ServiceGone},
        Case{"Forgotten", Whole(), And(LoseToService, [](Account& a) { a.agent.forgotten = true; }),
             Reason::Forgotten},
        Case{"ServiceReset", Whole(),
             And(LoseFromService,
                 [](Account& a) {
                     a.agent.serviceEnded = false;
                     a.service.reset = true;
                 }),
             Reason::ServiceReset},
        Case{"WriteFailed", Whole(),
             And(LoseFromService,
                 [](Account& a) {
                     a.agent.serviceEnded = false;
                     a.agent.writeFailed = true;
                 }),
             Reason::WriteFailed},
        Case{"StalledServiceStopped", EndedByClient(),
             And(LoseToService, [](Account& a) { a.plan.service.stall = 1s; }), Reason::StopDelay},
        Case{"WrittenUntilTheStop", EndedByClient(),
             And(LoseFromService, [](Account& a) { a.service.lastSent = a.service.endedAt - 10ms; }),
             Reason::StopDelay},
        Case{"CutOffWhileWriting", EndedByClient(),
             And(LoseFromService, [](Account& a) { a.plan.service.bytesToSend = 5000; }), Reason::StopDelay},
        Case{"ReadAfterAFailedWrite", Whole(),
             And(LoseToClient, [](Account& a) { a.agent.writeFailed = true; }), Reason::AfterTheEnd},
        Case{"TunnelWasHeld", EndedByClient(),
             And(LoseFromService, [](Account& a) { a.tunnelWasHeld = true; }), Reason::StopDelay}),
    [](const auto& row) { return std::string(row.param.name); });

std::string Printed(const soak::Ledger& ledger) {
    std::ostringstream text;
    ledger.Print(text);
    return text.str();
}

TEST(LedgerTest, AddsUpAndBalances) {
    soak::Ledger ledger;
    ledger.Enter(Whole());
    Account lost = Whole();
    LoseToService(lost);
    ledger.Enter(lost);
    EXPECT_TRUE(ledger.Balances());
    EXPECT_THAT(Printed(ledger),
                HasSubstr("bytes to the services\n            2000  sent\n            1900  received\n"
                          "             100  of 1 sessions dropped: the service had ended"));
    EXPECT_THAT(Printed(ledger),
                HasSubstr("2  ended cleanly by the service; its client got all of it before the end in 2"));
}

TEST(LedgerTest, ExcusesOneReadAfterAFailedWriteAndNoByteMore) {
    Account account = Whole();
    account.agent.writeFailed = true;
    account.service.sent = account.server->fromDevice = 1000 + 16384;
    EXPECT_TRUE(Balances(account));
    ++account.service.sent;
    ++account.server->fromDevice;
    EXPECT_FALSE(Balances(account));
}

TEST(LedgerTest, DoesNotBalanceWithAForeignByteOrAnIncompleteEnd) {
    Account foreign = Whole(), incomplete = Whole();
    foreign.client.wrong = 1;
    LoseFromService(incomplete);
    for (const Account& account : {foreign, incomplete}) {
        soak::Ledger ledger;
        ledger.Enter(account);
        EXPECT_FALSE(ledger.Balances()) << Printed(ledger);
        EXPECT_FALSE(Balances(account));
    }
}

}  // namespace
