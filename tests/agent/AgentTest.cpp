// The real executable against scripted peers: what it sends, in which order, and what it logs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <iomanip>
#include <regex>
#include <sstream>

#include "tests/support/Eventually.h"
#include "tests/support/Process.h"
#include "tests/support/ScriptedPeers.h"

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::StartsWith;

const std::string identity = R"({"status":"ok","discovery_data":{"tenantId":"t1","config":{"tunnelServer":)"
                             R"({"serverEndpoint":1,"apiEndpoint":"http://127.0.0.1:API"}}}})";

std::string Replaced(std::string text, const std::string& word, const std::string& with) {
    return text.replace(text.find(word), word.size(), with);
}

// A cloud that keeps what it was asked. Every exchange is a connection of its own.
class AgentTest : public testing::Test {
protected:
    support::Conversation Sso(const std::string& reply) {
        return [this, reply](support::Connection& agent) {
            asked.push_back(support::ReadSsoRequest(agent));
            agent.Write(support::SsoReply(reply));
        };
    }
    support::Conversation Api(int status, const std::string& reply) {
        return [this, status, reply](support::Connection& agent) {
            const support::HttpRequest request = support::ReadHttpRequest(agent);
            asked.push_back(request.method + " " + request.target + " " + request.Header("Authorization") +
                            " " + request.body);
            agent.Write(support::HttpReply(status, reply));
        };
    }
    std::string Configuration(unsigned short ssoPort, const std::string& level) {
        return folder.Write("agent.json",
                            R"({"ssoService":{"type":"local-socket","port":)" + std::to_string(ssoPort) +
                                R"(},"tunnel":{"routes":[{"serviceName":"web","remotePort":80},)"
                                R"({"serviceName":"ssh","remotePort":22}],"log_level":")" +
                                level + R"("},"timers":{"registrationReconnect":0,"tunnelReconnect":"0"}})");
    }
    static std::vector<std::string> WithoutTimes(const std::string& log) {
        std::vector<std::string> lines;
        std::istringstream text(log);
        for (std::string line; std::getline(text, line);) {
            EXPECT_TRUE(lines.empty() || std::regex_search(line, std::regex(R"(^\d\d:\d\d:\d\d\.\d\d\d \[)")))
                << line;
            lines.push_back(line.substr(lines.empty() ? 0 : 13));
        }
        return lines;
    }

    support::TemporaryFolder folder;
    std::vector<std::string>
        asked;  // by SSO service and API; one asks after the other, so one list is enough
    const std::vector<std::string> device = {"DEVICE_TYPE=recorder", "DEVICE_NAME=North/gate",
                                             "DEVICE_ID=",           "MAC_ADDRESS=00:1A:2B:3C:4D:5E",
                                             "DVR_USERNAME=u",       "DVR_PASSWORD=p"};
};

const std::string added =
    R"({"status":true,"data":{"tunnelServerEndpoint":"127.0.0.1:TUNNEL","tunnelServerCredentials":)"
    R"({"username":"tunnel-user","password":"tunnel-password"}}})";

TEST_F(AgentTest, RegistersInOrderAndOpensTheTunnel) {
    std::string verify;
    support::ScriptedServer tunnel({[&](support::Connection& agent) {
        verify = support::ReadControl(agent);
        support::WriteControl(agent, "tunnel-password", R"({"method":"message","message":"welcome"})");
        support::ReadFrame(agent);
    }});
    support::ScriptedServer api({Api(400, R"({"apiVersion":"2.0.0"})"),
                                 Api(200, Replaced(added, "TUNNEL", std::to_string(tunnel.Port()))),
                                 Api(200, "one"), Api(200, "two")});
    support::ScriptedServer sso({Sso(Replaced(identity, "API", std::to_string(api.Port()))),
                                 Sso(R"({"status":"ok","certificate_id":"cert-1"})"),
                                 Sso(R"({"status":"ok","token":"tok"})")});
    support::Process agent({AGENT_PROGRAM, Configuration(sso.Port(), "info")}, device);
    tunnel.Finish();
    const std::string heartbeat = "[TunnelClient:448] Sending heartbeat";
    ASSERT_TRUE(support::Eventually([&] { return agent.Output().find(heartbeat) != std::string::npos; }));

    EXPECT_THAT(verify,
                StartsWith(R"({"method":"verify","username":"tunnel-user","message":"","deviceId":"cert-1",)"
                           R"("version":"1.0","timestamp":")"));
    EXPECT_THAT(verify, testing::HasSubstr(R"("noncestr":"pkDHTxmMR18N2l9k")"))
        << "something drew from rand() before";
    const std::string route = R"({"route":{"deviceId":"cert-1","clientMode":"tunnel-client","port":0,)"
                              R"("remoteHost":"127.0.0.1","remotePort":)";
    EXPECT_THAT(
        asked,
        ElementsAre(R"({"request":"data"})", R"({"request":"certificate_id"})",
                    R"({"request":"token","scope":"file-receiver hardware-read"})",
                    "DELETE /clients/remove/id/cert-1 Bearer tok ",
                    R"(POST /clients/add Bearer tok {"client":{"deviceId":"cert-1","deviceType":"recorder",)"
                    R"("name":"North\/gate","tenantId":"t1","clientMode":"tunnel-client",)"
                    R"("deviceCredentials":{"username":"u","password":"p"},)"
                    R"("metadata":{"macAddress":"001a2b3c4d5e","avlId":"2b3c4d5e"}}})",
                    "POST /routes/add Bearer tok " + route + R"(80,"serviceName":"web"}})",
                    "POST /routes/add Bearer tok " + route + R"(22,"serviceName":"ssh"}})"));
    auto log = WithoutTimes(agent.Output());
    for (std::string& line : log)
        line = std::regex_replace(line, std::regex(R"(\[(SSO|Reg)(\w+):\d+\])"), "[$1$2]");
    const std::string ssoAt =
        "[SSOConnection] Connecting to SSO service at 127.0.0.1:" + std::to_string(sso.Port());
    ASSERT_GE(log.size(), 17U);
    log.resize(17);
    EXPECT_THAT(
        log,
        ElementsAre(
            StartsWith("LOG START "), "[client:196] Tunnel client version: 2024.07.19",
            "[RegistrationClient] Requesting discovery from 127.0.0.1:" + std::to_string(sso.Port()),
            ssoAt + ", request " + asked[0],
            "[RegistrationClient] Requesting certificate ID from 127.0.0.1:" + std::to_string(sso.Port()),
            ssoAt + ", request " + asked[1], ssoAt + ", request " + asked[2],
            "[RegistrationClient] Registering with http://127.0.0.1:" + std::to_string(api.Port()),
            R"([RegistrationClient] RemoveDevice: (400) {"apiVersion":"2.0.0"})",
            "[RegistrationClient] Adding device cert-1", "[RegistrationClient] AddRoute: one",
            "[RegistrationClient] AddRoute: two", "[RegistrationClient] Device cert-1 registered",
            "[TunnelClient:98] Connecting to tunnel server 127.0.0.1:" + std::to_string(tunnel.Port()),
            "[TunnelClient:270] Message signature verified", heartbeat,
            "[TunnelClient:283] Tunnel server message: welcome"));
    EXPECT_EQ(agent.Errors(), "");
    EXPECT_TRUE(agent.IsRunning());
}

// With the clock ten times as fast, so that the real delays fit into a test.
TEST_F(AgentTest, RegistersAgainAfterThreeConnectionsThatDied) {
    const support::Conversation serve = [](support::Connection& agent) {
        support::ReadControl(agent);
        support::WriteControl(agent, "tunnel-password", R"({"method":"anything"})");
        support::ReadFrame(agent);
    };
    support::ScriptedServer tunnel({serve, serve, serve, serve});
    const std::string endpoint = Replaced(added, "TUNNEL", std::to_string(tunnel.Port()));
    const auto removed = Api(200, R"({"apiVersion":"2.0.0"})");
    const auto addedDevice = Api(200, endpoint);
    const auto route = Api(200, "{}");
    support::ScriptedServer api({removed, addedDevice, route, route, removed, addedDevice, route, route});
    const auto token = Sso(R"({"status":"ok","token":"tok"})");
    support::ScriptedServer sso({Sso(Replaced(identity, "API", std::to_string(api.Port()))),
                                 Sso(R"({"status":"ok","certificate_id":"cert-1"})"), token, token});
    std::vector<std::string> environment = device;
    environment.insert(environment.end(), {"LD_PRELOAD=" FAKETIME_LIBRARY, "FAKETIME=+0 x10",
                                           "ASAN_OPTIONS=verify_asan_link_order=0"});
    support::Process agent({AGENT_PROGRAM, Configuration(sso.Port(), "error")}, environment);
    tunnel.Finish();
    EXPECT_EQ(asked.size(), 3U + 4U + 1U + 4U) << "discovery is not asked for again";

    const std::string end = "[TunnelClient:168] ListenToTunnelServer - read header: (2) End of file";
    const std::string again = "[TunnelClient:50] Tunnel reconnecting...";
    auto log = WithoutTimes(agent.Output());
    ASSERT_GE(log.size(), 7U);
    log.resize(7);
    EXPECT_THAT(log, ElementsAre(StartsWith("LOG START "), end, again, end, again, end,
                                 "[TunnelClient:45] Too many reconnects, will restart discovery"));
    // Each connection lasts until its pending heartbeat is due, thirty seconds after the first.
    const auto seconds = [&](const std::string& line) {
        std::tm time{};
        const std::string text = agent.Output();
        std::istringstream(text.substr(text.find(line) - 13)) >> std::get_time(&time, "%H:%M:%S");
        return time.tm_hour * 3600 + time.tm_min * 60 + time.tm_sec;
    };
    const int lasted = (seconds(log.back()) - seconds(end) + 86400) % 86400;
    EXPECT_GE(lasted, 85);
    EXPECT_TRUE(agent.IsRunning());
}

TEST_F(AgentTest, LivesOnWhenNothingAnswers) {
    const unsigned short closed = support::ScriptedServer({}).Port();
    support::Process agent({AGENT_PROGRAM, Configuration(closed, "error")}, device);
    const auto turns = [&agent] {
        std::size_t count = 0;
        const std::string log = agent.Output(),
                          error = "[client:219] Tunnel client error: Discovery failed\n";
        for (auto at = log.find(error); at != std::string::npos; at = log.find(error, at + 1)) ++count;
        return count;
    };
    ASSERT_TRUE(support::Eventually([&] { return turns() > 20; }));
    [[maybe_unused]] const std::size_t memory = agent.ResidentKibibytes();
    ASSERT_TRUE(support::Eventually([&] { return turns() > 320; }));
// The sanitizers remember what was freed, and who used it.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LE(agent.ResidentKibibytes(), memory + 128);
#endif
    // Between two turns, which follow each other without a pause, it holds its standard descriptors and no
    // other.
    EXPECT_TRUE(support::Eventually([&] { return agent.Descriptors() == 3; }));
}

}  // namespace
