// Every exchange of a registration ended by the service after each step of it: inside the
// request, after it, and after each byte of the reply. The next exchange, and the next
// registration, works as if nothing had been.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "registration/RegistrationClient.h"
#include "registration/SSOConnection.h"
#include "tests/registration/Recorder.h"
#include "tests/support/LogCapture.h"

namespace nox::tunnel_client {
namespace {

using namespace std::chrono_literals;

enum class Way { Close, Reset, Silence };
constexpr auto silence =
    10ms;  // nobody gives up on it by himself, or only after 30 seconds: it ends in a close

void End(lab::Connection& agent, Way way) {
    if (way == Way::Reset) return agent.Reset();
    if (way == Way::Silence) std::this_thread::sleep_for(silence);
    agent.ShutdownSend();
    agent.ReadToEnd();
}

/// An exchange that ends after so many bytes of its reply.
template <typename Request>
lab::Conversation Cut(Request (*read)(lab::Connection&), const std::string& reply, std::size_t bytes,
                      Way way) {
    return [=](lab::Connection& agent) {
        read(agent);
        agent.Write(reply.substr(0, bytes));
        End(agent, way);
    };
}
lab::Conversation CutInRequest(Way way) {
    return [way](lab::Connection& agent) {
        agent.Read(1);
        End(agent, way);
    };
}

class BrokenExchange : public testing::TestWithParam<Way> {};

TEST_P(BrokenExchange, WithTheSsoServiceIsReportedAfterAnyByte) {
    const bool reset = GetParam() == Way::Reset;
    const std::string reply = lab::SsoReply(R"({"status":"ok","token":"t"})");
    for (std::size_t bytes = 0; bytes < reply.size(); ++bytes) {
        support::LogCapture log(logOff);
        lab::ScriptedServer sso({CutInRequest(GetParam()), Cut(lab::ReadSsoRequest, reply, bytes, GetParam()),
                                 Cut(lab::ReadSsoRequest, reply, reply.size(), Way::Close)});
        const auto ask = [&] { return SSOConnection::GetToken("127.0.0.1", sso.Port()); };
        EXPECT_THROW(ask(), std::system_error);
        const auto asked = std::chrono::steady_clock::now();
        EXPECT_EQ(Thrown(ask), reset ? "read: Connection reset by peer" : "read: End of file") << bytes;
        EXPECT_GE(std::chrono::steady_clock::now() - asked, GetParam() == Way::Silence ? silence : 0ms);
        EXPECT_EQ(ask(), "t");
    }
}

// What ends in order inside its header counts for libcurl as a reply without a body; half a
// body never counts.
TEST_P(BrokenExchange, WithTheApiIsReportedAfterAnyByte) {
    const bool reset = GetParam() == Way::Reset;
    CurlConnection curl;
    const std::string body = R"({"a":1})", reply = lab::HttpReply(200, body);
    for (std::size_t bytes = 0; bytes < reply.size(); ++bytes) {
        support::LogCapture log(logWarning);
        lab::ScriptedServer api({CutInRequest(GetParam()),
                                 Cut(lab::ReadHttpRequest, reply, bytes, GetParam()),
                                 Cut(lab::ReadHttpRequest, reply, reply.size(), Way::Close)});
        HttpResponse response;
        const auto ask = [&] {
            response = curl.Post("http://127.0.0.1:" + std::to_string(api.Port()), "t", "{}");
        };
        EXPECT_THROW(ask(), std::runtime_error);
        const bool failed = !Thrown(ask).empty();
        EXPECT_TRUE(failed || (!reset && response.httpCode == 200 && bytes < reply.size() - body.size()));
        EXPECT_EQ(response.body, "");
        EXPECT_EQ(log.Texts().size(), failed ? 2U : 1U);
        ask();
        EXPECT_EQ(response.body, body);
    }
}

/// The seven exchanges of a first registration, the SSO service's three first.
constexpr std::size_t ssoExchanges = 3, exchanges = 7;
std::string Reply(std::size_t exchange, unsigned short apiPort) {
    const std::string server =
        R"({"serverEndpoint":0,"apiEndpoint":"http://127.0.0.1:)" + std::to_string(apiPort) + R"("})";
    switch (exchange) {
        case 0:
            return lab::SsoReply(R"({"status":"ok","discovery_data":{"config":{"tunnelServer":)" + server +
                                 R"(},"tenantId":"t"}})");
        case 1: return lab::SsoReply(R"({"status":"ok","certificate_id":"abc"})");
        case 2: return lab::SsoReply(R"({"status":"ok","token":"tok"})");
        case 4: return lab::HttpReply(200, R"({"status":true,"data":{"tunnelServerEndpoint":"host:1"}})");
        default: return lab::HttpReply(200, "{}");
    }
}

/// The exchanges up to the `broken` one, and then all that come when registration is tried again.
std::vector<lab::Conversation> Twice(std::size_t begin, std::size_t end, std::size_t broken,
                                     std::size_t again, unsigned short apiPort,
                                     const lab::Conversation& broke) {
    std::vector<lab::Conversation> conversations;
    const auto add = [&](std::size_t exchange) {
        const std::string reply = Reply(exchange, apiPort);
        conversations.push_back(exchange < ssoExchanges
                                    ? Cut(lab::ReadSsoRequest, reply, reply.size(), Way::Close)
                                    : Cut(lab::ReadHttpRequest, reply, reply.size(), Way::Close));
    };
    for (std::size_t exchange = begin; exchange < std::min(broken, end); ++exchange) add(exchange);
    if (broken >= begin && broken < end) conversations.push_back(broke);
    for (std::size_t exchange = std::max(begin, again); exchange < end; ++exchange) add(exchange);
    return conversations;
}

TEST_P(BrokenExchange, EndsARegistrationAndTheNextOneWorks) {
    for (std::size_t broken = 0; broken < exchanges; ++broken) {
        const bool discovers = broken < 2;
        const std::string failure = discovers ? "Discovery failed" : "Registration failed";
        const std::size_t length = Reply(broken, 65535).size();
        // Inside the request, after it, inside the reply's first line or length, and one byte before its end.
        for (const std::size_t bytes : {length, std::size_t{0}, std::size_t{2}, length - 1}) {
            const std::string reply = Reply(broken, 65535);
            const auto cut = broken < ssoExchanges ? Cut(lab::ReadSsoRequest, reply, bytes, GetParam())
                                                   : Cut(lab::ReadHttpRequest, reply, bytes, GetParam());
            const auto broke = bytes == length ? CutInRequest(GetParam()) : cut;
            const std::size_t again = discovers ? 0 : 2;
            lab::ScriptedServer api(Twice(ssoExchanges, exchanges, broken, ssoExchanges, 0, broke));
            lab::ScriptedServer sso(Twice(0, ssoExchanges, broken, again, api.Port(), broke));
            support::LogCapture log(logError);
            RegistrationConfig device;
            device.ssoHost = "127.0.0.1";
            device.ssoPort = sso.Port();
            device.routes = {{"web", 80}, {"rtsp", 554}};
            RegistrationClient client(device);
            EXPECT_EQ(Thrown([&] { client.Register(); }), failure) << broken << ' ' << bytes;
            EXPECT_EQ(Thrown([&] { client.Register(); }), "") << broken << ' ' << bytes;
            EXPECT_NO_THROW(sso.Finish());
            EXPECT_NO_THROW(api.Finish());
            const auto lines = log.Texts();
            ASSERT_EQ(lines.size(), 1U);
            EXPECT_EQ(lines[0].rfind(failure + ": ", 0), 0U) << lines[0];
        }
    }
}

constexpr const char* names[] = {"Close", "Reset", "Silence"};
INSTANTIATE_TEST_SUITE_P(Ways, BrokenExchange, testing::Values(Way::Close, Way::Reset, Way::Silence),
                         [](const auto& row) { return std::string(names[static_cast<int>(row.param)]); });

}  // namespace
}  // namespace nox::tunnel_client
