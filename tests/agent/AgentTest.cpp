// The real executable against scripted peers: what it sends, in which order, and what it logs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>
#include <regex>
#include <sstream>

#include "tests/support/Cloud.h"
#include "tests/support/Eventually.h"
#include "tests/support/InTime.h"
#include "tests/support/LogText.h"
#include "tests/support/Process.h"

namespace {

using Lines = std::vector<std::string>;

Lines WithoutTimes(const std::string& log) {
    Lines lines;
    std::istringstream text(log);
    std::string line;
    std::getline(text, line);
    EXPECT_EQ(line.rfind("LOG START ", 0), 0U) << line;
    const std::regex time(R"(^\d\d:\d\d:\d\d\.\d\d\d )"), number(R"(\[(SSO|Reg)(\w+):\d+\])");
    while (std::getline(text, line)) {
        EXPECT_TRUE(std::regex_search(line, time)) << line;
        lines.push_back(std::regex_replace(std::regex_replace(line, time, ""), number, "[$1$2]"));
    }
    return lines;
}

void Append(Lines& lines, const Lines& more) { lines.insert(lines.end(), more.begin(), more.end()); }

const std::string end = "[TunnelClient:168] ListenToTunnelServer - read header: (2) End of file";
const std::string tooMany = "[TunnelClient:45] Too many reconnects, will restart discovery";

/// The log of one registration and three connections that die, from the request for a token on.
Lines LogOfACycle(const support::Cloud& cloud) {
    const std::string port = std::to_string(cloud.TunnelPort());
    Lines lines = {
        "[SSOConnection] Connecting to SSO service at 127.0.0.1:" + std::to_string(cloud.SsoPort()) +
            R"(, request {"request":"token","scope":"file-receiver hardware-read"})",
        "[RegistrationClient] Registering with http://127.0.0.1:" + std::to_string(cloud.ApiPort()),
        "[RegistrationClient] RemoveDevice: (200) " + cloud.ApiReply(),
        "[RegistrationClient] Adding device cert-1",
        "[RegistrationClient] AddRoute: " + cloud.ApiReply(),
        "[RegistrationClient] AddRoute: " + cloud.ApiReply(),
        "[RegistrationClient] Device cert-1 registered"};
    for (int connection = 0; connection < 3; ++connection) {
        Append(lines,
               {"[TunnelClient:98] Connecting to tunnel server 127.0.0.1:" + port,
                "[TunnelClient:270] Message signature verified", "[TunnelClient:448] Sending heartbeat",
                "[TunnelClient:283] Tunnel server message: welcome", end,
                "[TunnelClient:445] Stopping heartbeat messages",
                connection < 2 ? "[TunnelClient:50] Tunnel reconnecting..." : tooMany});
    }
    return lines;
}

Lines LogOfTwoCycles(const support::Cloud& cloud) {
    const std::string at = " from 127.0.0.1:" + std::to_string(cloud.SsoPort());
    const std::string ssoAt =
        "[SSOConnection] Connecting to SSO service at 127.0.0.1:" + std::to_string(cloud.SsoPort()) +
        ", request ";
    Lines lines = {"[client:196] Tunnel client version: 2024.07.19",
                   "[RegistrationClient] Requesting discovery" + at, ssoAt + R"({"request":"data"})",
                   "[RegistrationClient] Requesting certificate ID" + at,
                   ssoAt + R"({"request":"certificate_id"})"};
    Append(lines, LogOfACycle(cloud));
    Append(lines, LogOfACycle(cloud));
    return lines;
}

/// Requests of one registration, from that for a token on.
Lines AskedInACycle() {
    const std::string route =
        R"(POST /routes/add Bearer tok {"route":{"deviceId":"cert-1",)"
        R"("clientMode":"tunnel-client","port":0,"remoteHost":"127.0.0.1","remotePort":)";
    return {R"({"request":"token","scope":"file-receiver hardware-read"})",
            "DELETE /clients/remove/id/cert-1 Bearer tok ",
            R"(POST /clients/add Bearer tok {"client":{"deviceId":"cert-1","deviceType":"recorder",)"
            R"("name":"North\/gate","tenantId":"t1","clientMode":"tunnel-client",)"
            R"("deviceCredentials":{"username":"u","password":"p"},)"
            R"("metadata":{"macAddress":"001a2b3c4d5e","avlId":"2b3c4d5e"}}})",
            route + R"(80,"serviceName":"web"}})", route + R"(22,"serviceName":"ssh"}})"};
}

// Every line and every request of two cycles, each with three connections that die. The clock is faster, so
// that the real delays fit into a test.
TEST(AgentTest, RegistersOpensThreeTunnelsAndRegistersAgain) {
    const auto attempt = [](int scale) {
        std::mutex mutex;  // of what each server's thread adds
        Lines asked, verify;
        const auto keep = [&mutex](Lines& lines, const std::string& line) {
            const std::lock_guard<std::mutex> lock(mutex);
            lines.push_back(line);
        };
        support::Cloud cloud(
            [&](support::Connection& agent) {
                keep(verify, support::Accept(agent));
                support::AwaitHeartbeat(agent);
            },
            [&](const std::string& request) { keep(asked, request); });
        support::Process agent(cloud.Command("info", 0), cloud.Environment(20.0 / scale));
        const Lines expected = LogOfTwoCycles(cloud);
        EXPECT_TRUE(
            support::Eventually([&] { return support::Count(agent.Output(), "\n") > expected.size(); }));
        Lines log = WithoutTimes(agent.Output());
        log.resize(expected.size());
        if (log != expected) return testing::PrintToString(log);

        const std::lock_guard<std::mutex> lock(mutex);
        EXPECT_THAT(verify.at(0),
                    testing::StartsWith(R"({"method":"verify","username":"tunnel-user","message":"",)"
                                        R"("deviceId":"cert-1","version":"1.0","timestamp":")"));
        EXPECT_THAT(verify.at(0), testing::HasSubstr(R"("noncestr":"pkDHTxmMR18N2l9k")"))
            << "something drew from rand() before";
        Lines requests = {R"({"request":"data"})", R"({"request":"certificate_id"})"};
        Append(requests, AskedInACycle());
        Append(requests, AskedInACycle());
        asked.resize(requests.size());
        EXPECT_EQ(asked, requests) << "discovery is not asked for again";
        // Each connection lasts until its pending heartbeat is due, thirty seconds after the first.
        EXPECT_GE(support::SecondsBetween(agent.Output(), end, tooMany), 85);
        EXPECT_EQ(agent.Errors(), "");
        EXPECT_TRUE(agent.IsRunning());
        return std::string("as expected");
    };
    support::ExpectInTime(std::string("as expected"), attempt);
}

TEST(AgentTest, LivesOnWhenNothingAnswers) {
    support::TemporaryFolder folder;
    const std::string configuration = folder.Write(
        "agent.json",
        R"({"ssoService":{"type":"local-socket","port":)" +
            std::to_string(support::ScriptedServer({}).Port()) +
            R"(},"tunnel":{"routes":[],"log_level":"error"},"timers":{"registrationReconnect":0}})");
    support::Process agent({AGENT_PROGRAM, configuration},
                           {"DEVICE_TYPE=recorder", "DEVICE_NAME=North gate"});
    const auto turns = [&agent] {
        return support::Count(agent.Output(), "[client:219] Tunnel client error: Discovery failed\n");
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
