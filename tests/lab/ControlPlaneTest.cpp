#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <string>
#include <thread>

#include "tests/lab/LabRunner.h"

namespace lab {

TEST(SsoServiceTest, HangsUpOnWhatIsNoRequest) {
    const std::pair<std::string, std::string> rows[] = {
        {std::string("\0\0", 2), "no request in time"},
        {EncodeLength(9) + "{", "no request in time"},
        {EncodeLength(4097), "a request of 4097 bytes"},
        {"\xFF\xFF\xFF\xFF", "a request of 4294967295 bytes"},
        {EncodeLength(0), "not a JSON object"},
        {SsoReply(std::string(4096, '[')), "not a JSON object"},
        {SsoReply(R"({"request":"a\nb"})"), R"(not a request: {"request":"a\nb"})"},
        {SsoReply(R"({"request":["data"]})"), "not a request"},
        {SsoReply(R"({"request":"token"})"), "not a request"}};
    for (const auto& [bytes, error] : rows) {
        SCOPED_TRACE(testing::PrintToString(bytes));
        LabRunner lab;
        auto connection = Connection::To(lab.SsoPort());
        connection.Write(bytes);
        EXPECT_EQ(connection.ReadToEnd(), "");
        EXPECT_TRUE(lab.Tells("error sso: " + error));
        EXPECT_EQ(lab.AskSso(R"({"request":"reset"})"), R"({"status":"ok"})") << "others are still served";
    }
}

TEST(ApiTest, TakesOnlyWhatAgentsSend) {
    const std::string noName = "client.deviceId must be a short text without control characters";
    const std::string noPort = "route.remotePort must be a number from 1 to 65535";
    const std::tuple<std::string, std::string, int, std::string> rows[] = {
        {"DELETE /clients/remove/id/d1", "", 200, ""},
        {"DELETE /clients/remove/id/d2", "", 400, ""},
        {"POST /clients/add", ClientBody("d1", R"(,"username":"","password":"p")"), 200, ""},
        {"POST /clients/add", ClientBody("d1", R"(,"metadata":{"macAddress":"00"})"), 200, ""},
        {"POST /routes/add", RouteBody("d1", R"("remotePort":65535,"serviceName":"a b")"), 200, ""},
        {"POST /clients/add", std::string(65536, '['), 400, "body must be an object"},
        {"POST /clients/add", "{}", 400, "body.client must be an object"},
        {"POST /clients/add", R"({"client":{"deviceId":"d","deviceType":"","name":"","tenantId":""}})", 400,
         R"(client.clientMode must be \"tunnel-client\")"},
        {"POST /clients/add", ClientBody(""), 400, noName},
        {"POST /clients/add", ClientBody(R"(d\nready)"), 400, noName},
        {"POST /clients/add", ClientBody("d1", ",\"\xC3\xA4" + std::string(250, 'x') + "\":1"), 400,
         "client.__" + std::string(198, 'x') + " has no business there"},
        {"POST /clients/add", ClientBody("d1", R"(,"deviceCredentials":{"username":"u"})"), 400,
         "deviceCredentials.password must be a text"},
        {"POST /routes/add", RouteBody("d1", R"("remotePort":"80","serviceName":"s")"), 400, noPort},
        {"POST /routes/add", RouteBody("d1", R"("remotePort":65536,"serviceName":"s")"), 400, noPort},
        {"POST /routes/add", RouteBody("d2", R"("remotePort":1,"serviceName":"s")"), 400,
         "route.deviceId is not registered"},
        {"GET /clients/add", "", 404, "no such call"},
        {"POST /clients/add", std::string(65537, ' '), 413, ""},
        {"DELETE /" + std::string(5000, 'a'), "", 414, ""}};
    for (const auto& [call, body, status, error] : rows) {
        SCOPED_TRACE(testing::Message() << call << ' ' << body);
        LabRunner lab;
        const ScriptedDevice registered(lab, "d1", {});
        const auto [answered, answer] = lab.Call(call, body);
        EXPECT_EQ(answered, status);
        EXPECT_EQ(answer == R"({"status":false,"error":")" + error + "\"}", !error.empty()) << answer;
        EXPECT_EQ(lab.Lines("error api: " + call + ": " + std::to_string(status)).size(),
                  error.empty() ? 0U : 1U);
    }
}

TEST(ApiTest, HandsOutEndpointAndFreshCredentialsForTokensOfItsOwn) {
    LabRunner lab;
    const ScriptedDevice first(lab), again(lab);
    EXPECT_NE(lab.Token(), lab.Token());
    EXPECT_NE(first.password, again.password);
    EXPECT_EQ(again.password.size(), 24U);
    EXPECT_TRUE(lab.Tells("device d1 registered"));
    const std::string answer = lab.Call("POST /clients/add", ClientBody("d1")).second;
    EXPECT_NE(answer.find(R"("tunnelServerEndpoint":"127.0.0.2:)" + std::to_string(lab.TunnelPort())),
              std::string::npos)
        << "where the device reaches the lab";
    for (const char* token : {"", "x"})
        EXPECT_EQ(lab.Call("DELETE /clients/remove/id/d1", "", token).first, 401);
    EXPECT_EQ(lab.Call("DELETE /clients/remove/id/d1").second, R"({"status":true,"apiVersion":"2.1.0"})");
}

TEST(ApiTest, AnswersThoughManyClientsSendTheirRequestsByteByByte) {
    LabRunner lab;
    std::vector<Connection> slow;
    for (int i = 0; i < 20; ++i) slow.push_back(Connection::To(lab.ApiPort()));
    std::atomic<bool> answered{false};
    auto trickle = std::async(std::launch::async, [&] {
        for (; !answered; std::this_thread::sleep_for(std::chrono::milliseconds(200))) {
            std::error_code closed;
            for (Connection& client : slow) client.Socket().write_some(asio::buffer("x", 1), closed);
        }
    });
    auto call =
        std::async(std::launch::async, [&] { return lab.Call("DELETE /clients/remove/id/d1").first; });
    call.wait();
    answered = true;
    EXPECT_EQ(call.get(), 400);
}

TEST(RoutesTest, KeepTheirPortWhenTheDeviceRegistersAgain) {
    LabRunner lab;
    ScriptedDevice device(lab, "d1", {"web", "ssh"});
    const auto web = lab.RoutePort("d1", "web"), ssh = lab.RoutePort("d1", "ssh");
    const ScriptedDevice again(lab, "d1", {"web"});
    EXPECT_EQ(lab.Lines("route d1 web 127.0.0.1:" + std::to_string(web) + " -> 127.0.0.1:8080").size(), 2U);
    EXPECT_THROW(Connection::To(ssh), std::system_error);
    EXPECT_EQ(Connection::To(web).ReadToEnd(), "");
    EXPECT_TRUE(lab.Tells("error client of d1 web turned away: the device is not connected"));
}

// Other programs may take a port that nobody has held for a moment, so there are several attempts.
TEST(RoutesTest, AFixedPortThatIsTakenIsReplaced) {
    for (int attempt = 0; attempt < 10; ++attempt) {
        asio::io_context io;
        const auto fixed = Listen(io, {asio::ip::address_v4::loopback(), 0}).local_endpoint().port();
        Ports ports;
        ports.local["web"] = fixed;
        LabRunner lab(ports);
        const ScriptedDevice first(lab, "d1"), second(lab, "d2");
        if (lab.RoutePort("d1", "web") != fixed) continue;
        EXPECT_TRUE(lab.Tells("error port " + std::to_string(fixed) +
                              " for web of d2: Address already in use, taking another"));
        EXPECT_NE(lab.RoutePort("d2", "web"), fixed);
        return;
    }
    FAIL() << "the fixed port was never used";
}

}  // namespace lab
