// Every exchange of a registration ended by the service at every place where it can be: inside the request,
// after it, inside the reply. The next registration works as if nothing had been.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>

#include "registration/RegistrationClient.h"
#include "tests/registration/Recorder.h"
#include "tests/support/LogCapture.h"

namespace nox::tunnel_client {
namespace {

/// The seven exchanges of a first registration: three with the SSO service, and then with the API.
constexpr std::size_t ssoExchanges = 3, exchanges = 7;

/// A reply that fits every request.
std::string SsoReply(unsigned short api) {
    return support::SsoReply(
        R"({"status":"ok","certificate_id":"abc","token":"tok","discovery_data":{"config":)"
        R"({"tunnelServer":{"serverEndpoint":0,"apiEndpoint":"http://127.0.0.1:)" +
        std::to_string(api) + R"("}},"tenantId":"t"}})");
}
const std::string apiReply =
    support::HttpReply(200, R"({"status":true,"data":{"tunnelServerEndpoint":"host:1"}})");

class BrokenExchange : public testing::TestWithParam<bool> {
protected:
    const bool isReset = GetParam();  // or else closed in order

    /// Exchanges with one service: that of the number `broken` ends after so many bytes of its reply.
    template <typename Request>
    std::vector<support::Conversation> Exchanges(Request (*read)(support::Connection&),
                                                 const std::string& reply, std::size_t broken,
                                                 std::size_t bytes) {
        const auto play = [=](support::Connection& agent) {
            const bool breaks = met++ == broken, inRequest = bytes > reply.size();
            if (breaks && inRequest) {
                agent.Read(1);
            } else {
                read(agent);
                agent.Write(breaks ? reply.substr(0, bytes) : reply);
            }
            if (breaks && isReset) return agent.Reset();
            if (breaks) agent.ShutdownSend(), agent.ReadToEnd();
        };
        return std::vector<support::Conversation>(2 * exchanges, play);
    }
    std::atomic<std::size_t> met{0};
};

TEST_P(BrokenExchange, EndsARegistrationAndTheNextOneWorks) {
    for (std::size_t broken = 0; broken < exchanges; ++broken) {
        const bool discovers = broken < 2, inSso = broken < ssoExchanges;
        const std::size_t length = inSso ? SsoReply(65535).size() : apiReply.size();
        // Of the reply: nothing, part of its first line or length, the length alone, a text begun or almost
        // whole. The last is the break inside the request.
        for (const std::size_t bytes : std::vector<std::size_t>{0, 1, 4, 5, length - 1, length + 1}) {
            SCOPED_TRACE(std::to_string(broken) + " " + std::to_string(bytes));
            met = 0;
            support::ScriptedServer api(Exchanges(support::ReadHttpRequest, apiReply, broken, bytes));
            support::ScriptedServer sso(
                Exchanges(support::ReadSsoRequest, SsoReply(api.Port()), broken, bytes));
            support::LogCapture log(logError);
            RegistrationConfig device;
            device.ssoHost = "127.0.0.1";
            device.ssoPort = sso.Port();
            device.routes = {{"web", 80}, {"rtsp", 554}};
            RegistrationClient client(device);
            const std::string failure = discovers ? "Discovery failed" : "Registration failed";
            EXPECT_EQ(Thrown([&] { client.Register(); }), failure);
            const std::string cause = !inSso           ? ": curl_easy_perform() failed"
                                      : bytes > length ? ": "  // either the write or the read may fail first
                                      : isReset        ? ": read: Connection reset by peer"
                                                       : ": read: End of file";
            EXPECT_THAT(log.Texts(), testing::ElementsAre(testing::StartsWith(failure + cause)));
            EXPECT_EQ(Thrown([&] { client.Register(); }), "");
            EXPECT_EQ(met, broken + 1 + exchanges - (discovers ? 0 : 2));
            EXPECT_EQ(log.Texts().size(), 1U);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Ways, BrokenExchange, testing::Bool());

}  // namespace
}  // namespace nox::tunnel_client
