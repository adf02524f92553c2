#include <gtest/gtest.h>

#include <string>

#include "tests/lab/LabRunner.h"

namespace lab {

TEST(SsoServiceTest, AnswersTheFourRequests) {
    LabRunner lab;
    const auto ask = [&](const std::string& request) { return AskSso(lab.SsoPort(), request); };
    const auto data = ask(R"({"request":"data"})");
    const std::string local = "127.0.0.1:";
    EXPECT_EQ(data, R"({"status":"ok","discovery_data":{"config":{"tunnelServer":{"apiEndpoint":"http://)" +
                        local + std::to_string(lab.ApiPort()) + R"(","serverEndpoint":")" + local +
                        std::to_string(lab.TunnelPort()) + R"("}},"tenantId":"lab-tenant"}})");
    EXPECT_EQ(ask(R"({"request":"certificate_id"})"), R"({"status":"ok","certificate_id":"lab-device-1"})");
    EXPECT_EQ(ask(R"({"request":"reset"})"), R"({"status":"ok"})");
    const auto token = ask(R"({"request":"token","scope":"file-receiver hardware-read"})");
    EXPECT_NE(token, ask(R"({"request":"token","scope":"file-receiver hardware-read"})"));
    EXPECT_EQ(At(token, {"token"}).size(), 32U);
}

struct BadRequest {
    const char* name;
    std::string bytes, error;
};
class SsoServiceHangsUp : public testing::TestWithParam<BadRequest> {};
TEST_P(SsoServiceHangsUp, OnWhatIsNoRequest) {
    LabRunner lab;
    auto connection = Connection::To(lab.SsoPort());
    connection.Write(GetParam().bytes);
    EXPECT_EQ(connection.ReadToEnd(), "");
    EXPECT_TRUE(lab.Tells("error sso: " + GetParam().error));
    EXPECT_NE(AskSso(lab.SsoPort(), R"({"request":"data"})"), "");
}
INSTANTIATE_TEST_SUITE_P(
    Requests, SsoServiceHangsUp,
    testing::Values(BadRequest{"Nothing", "", "no request in time"},
                    BadRequest{"HalfALength", std::string("\0\0", 2), "no request in time"},
                    BadRequest{"HalfARequest", EncodeLength(9) + "{", "no request in time"},
                    BadRequest{"TooLong", EncodeLength(4097), "a request of 4097 bytes"},
                    BadRequest{"Huge", "\xFF\xFF\xFF\xFF", "a request of 4294967295 bytes"},
                    BadRequest{"Empty", EncodeLength(0), "not a JSON object"},
                    BadRequest{"NestedDeeply", EncodeLength(4096) + std::string(4096, '['),
                               "not a JSON object"},
                    BadRequest{"UnknownRequest", SsoReply(R"({"request":"a\nb"})"),
                               R"(not a request: {"request":"a\nb"})"},
                    BadRequest{"WrongType", SsoReply(R"({"request":["data"]})"), "not a request"},
                    BadRequest{"NoScope", SsoReply(R"({"request":"token"})"), "not a request"}),
    [](const auto& row) { return std::string(row.param.name); });

const std::string client =
    R"({"client":{"deviceId":"d1","deviceType":"t","name":"n","tenantId":"lab-tenant","clientMode":"tunnel-client")";
const std::string route =
    R"({"route":{"deviceId":"d1","clientMode":"tunnel-client","port":0,"remoteHost":"127.0.0.1",)";

struct ApiCall {
    const char* name;
    std::string method, target, body;
    int status;
    std::string error;  // "": none
};
class Api : public testing::TestWithParam<ApiCall> {};
TEST_P(Api, Answers) {
    LabRunner lab;
    const ScriptedDevice registered(lab, "d1", {});
    const auto token = At(AskSso(lab.SsoPort(), R"({"request":"token","scope":"x"})"), {"token"});
    const auto& call = GetParam();
    const auto answer = Call(lab.ApiPort(), call.method, call.target, token, call.body);
    EXPECT_EQ(answer.status, call.status);
    EXPECT_EQ(At(answer.body, {"error"}), call.error);
    const auto line = "error api: " + call.method + " " + call.target + ": " + std::to_string(call.status);
    EXPECT_EQ(lab.CountLines(line), call.error.empty() ? 0U : 1U);
}
INSTANTIATE_TEST_SUITE_P(
    Calls, Api,
    testing::Values(
        ApiCall{"Removes", "DELETE", "/clients/remove/id/d1", "", 200, ""},
        ApiCall{"FindsNothingToRemove", "DELETE", "/clients/remove/id/d2", "", 400, ""},
        ApiCall{"Adds", "POST", "/clients/add", client + "}}", 200, ""},
        ApiCall{"AddsOldStyle", "POST", "/clients/add", client + R"(,"username":"","password":"p"}})", 200,
                ""},
        ApiCall{"AddsWithMetadata", "POST", "/clients/add", client + R"(,"metadata":{"macAddress":"00"}}})",
                200, ""},
        ApiCall{"AddsRoute", "POST", "/routes/add", route + R"("remotePort":65535,"serviceName":"a b"}})",
                200, ""},
        ApiCall{"NoJson", "POST", "/clients/add", "{", 400, "body must be an object"},
        ApiCall{"NestedDeeply", "POST", "/clients/add", std::string(65536, '['), 400,
                "body must be an object"},
        ApiCall{"NoClient", "POST", "/clients/add", "{}", 400, "body.client must be an object"},
        ApiCall{"NoMode", "POST", "/clients/add",
                R"({"client":{"deviceId":"d","deviceType":"","name":"","tenantId":""}})", 400,
                R"(client.clientMode must be "tunnel-client")"},
        ApiCall{"NoId", "POST", "/clients/add", R"({"client":{"deviceId":""}})", 400,
                "client.deviceId must be a short text without control characters"},
        ApiCall{"IdWithLineFeed", "POST", "/clients/add", R"({"client":{"deviceId":"d\nready"}})", 400,
                "client.deviceId must be a short text without control characters"},
        ApiCall{"Surplus", "POST", "/clients/add", client + R"(,"extra\n":1}})", 400,
                "client.extra_ has no business there"},
        ApiCall{"LongName", "POST", "/clients/add", client + ",\"\xC3\xA4" + std::string(250, 'x') + "\":1}}",
                400, "client.__" + std::string(198, 'x') + " has no business there"},
        ApiCall{"HalfCredentials", "POST", "/clients/add",
                client + R"(,"deviceCredentials":{"username":"u"}}})", 400,
                "deviceCredentials.password must be a text"},
        ApiCall{"PortAsText", "POST", "/routes/add", route + R"("remotePort":"80","serviceName":"s"}})", 400,
                "route.remotePort must be a number from 1 to 65535"},
        ApiCall{"PortTooLarge", "POST", "/routes/add", route + R"("remotePort":65536,"serviceName":"s"}})",
                400, "route.remotePort must be a number from 1 to 65535"},
        ApiCall{"UnknownDevice", "POST", "/routes/add",
                R"({"route":{"deviceId":"d2","clientMode":"tunnel-client","port":0,"remoteHost":"127.0.0.1",)"
                R"("remotePort":1,"serviceName":"s"}})",
                400, "route.deviceId is not registered"},
        ApiCall{"NoSuchCall", "GET", "/clients/add", "", 404, "no such call"},
        ApiCall{"TooLarge", "POST", "/clients/add", std::string(65537, ' '), 413, ""},
        ApiCall{"PathTooLong", "DELETE", "/" + std::string(5000, 'a'), "", 414, ""}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(ApiTest, HandsOutEndpointAndFreshCredentials) {
    LabRunner lab;
    const ScriptedDevice first(lab), again(lab);
    EXPECT_NE(first.password, again.password);
    EXPECT_EQ(again.password.size(), 24U);
    EXPECT_TRUE(lab.Tells("device d1 registered"));
    const auto token = At(AskSso(lab.SsoPort(), R"({"request":"token","scope":"x"})"), {"token"});
    EXPECT_EQ(At(Call(lab.ApiPort(), "POST", "/clients/add", token, client + "}}").body,
                 {"data", "tunnelServerEndpoint"}),
              "127.0.0.1:" + std::to_string(lab.TunnelPort()));
    EXPECT_EQ(Call(lab.ApiPort(), "DELETE", "/clients/remove/id/d1", token).body,
              R"({"status":true,"apiVersion":"2.1.0"})");
}

TEST(ApiTest, RefusesTokensThatTheSsoServiceDidNotIssue) {
    LabRunner lab;
    for (const char* token : {"", "x"})
        EXPECT_EQ(Call(lab.ApiPort(), "DELETE", "/clients/remove/id/d1", token).status, 401);
}

TEST(RoutesTest, KeepTheirPortWhenTheDeviceRegistersAgain) {
    LabRunner lab;
    ScriptedDevice device(lab, "d1", {"web", "ssh"});
    const auto web = lab.RoutePort("d1", "web"), ssh = lab.RoutePort("d1", "ssh");
    const ScriptedDevice again(lab, "d1", {"web"});
    EXPECT_EQ(lab.CountLines("route d1 web 127.0.0.1:" + std::to_string(web) + " -> 127.0.0.1:8080"), 2U);
    EXPECT_THROW(Connection::To(ssh), std::system_error);
    EXPECT_EQ(Connection::To(web).ReadToEnd(), "");
    EXPECT_TRUE(lab.Tells("error client of d1 web turned away: the device is not connected"));
}

TEST(RoutesTest, AFixedPortThatIsTakenIsReplaced) {
    asio::io_context io;
    const auto taken = Listen(io, {asio::ip::address_v4::loopback(), 0}).local_endpoint().port();
    Ports ports;
    ports.local["web"] = taken;
    LabRunner lab(ports);
    const ScriptedDevice first(lab, "d1"), second(lab, "d2");
    EXPECT_EQ(lab.RoutePort("d1", "web"), taken);
    EXPECT_TRUE(lab.Tells("error port " + std::to_string(taken) +
                          " for web of d2: Address already in use, taking another"));
    EXPECT_NE(lab.RoutePort("d2", "web"), taken);
}

}  // namespace lab
