#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

#include "registration/RegistrationClient.h"
#include "tests/registration/Recorder.h"
#include "tests/support/LogCapture.h"

namespace nox::tunnel_client {
namespace {

using testing::_;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::EndsWith;

std::string ReadCall(support::Connection& connection) {
    const support::HttpRequest request = support::ReadHttpRequest(connection);
    return request.method + " " + request.target + " " + request.Header("Authorization") + " " + request.body;
}

/// A cloud that answers what it is told to: an SSO service and a registration API. "$API" in the service's
/// replies stands for the API's base URL.
struct Cloud {
    Cloud(std::vector<std::string> ssoReplies, const std::vector<std::string>& apiReplies)
        : api(ReadCall, apiReplies), sso(support::ReadSsoRequest, Framed(std::move(ssoReplies))) {
        device.ssoHost = "127.0.0.1";
        device.ssoPort = sso.Port();
        device.deviceType = "dvr";
        device.deviceName = "Door 1/2";
        device.routes = {{"web", 80}, {"rtsp", 554}};
    }
    std::vector<std::string> Framed(std::vector<std::string> replies) const {
        for (std::string& reply : replies) {
            const std::size_t place = reply.find("$API");
            if (place != std::string::npos) reply.replace(place, 4, apiUrl);
            reply = support::SsoReply(reply);
        }
        return replies;
    }

    Recorder api;
    std::string apiUrl = "http://127.0.0.1:" + std::to_string(api.Port()) + "/v";
    Recorder sso;
    RegistrationConfig device;
};

using Replies = std::vector<std::string>;

const std::string discovery =
    R"({"status":"ok","discovery_data":{"config":{"tunnelServer":{"apiEndpoint":"$API","serverEndpoint":0}},)"
    R"("tenantId":"ten"}})";
const std::string certificate = R"({"status":"ok","certificate_id":"abc"})";
const std::string token = R"({"status":"ok","token":"tok"})";
const std::string ok = R"({"status":"ok"})";

std::string Ok(const std::string& body) { return support::HttpReply(200, body); }
std::string Version(const std::string& json) { return Ok(R"({"apiVersion":)" + json + "}"); }
const std::string added = Ok(R"({"status":true,"data":{"tunnelServerEndpoint":"192.0.2.10:4443"}})");

/// The result of a registration as device@host:port user:password, or the text of its exception.
std::string Register(RegistrationClient& client) {
    TunnelAccess access;
    const std::string thrown = Thrown([&] { access = client.Register(); });
    if (!thrown.empty()) return thrown;
    return access.deviceId + "@" + access.serverHost + ":" + std::to_string(access.serverPort) + " " +
           access.username + ":" + access.password;
}

class WholeStory : public testing::TestWithParam<std::int32_t> {};

// A failed discovery, a good registration, and one that is refused and resets the SSO service.
TEST_P(WholeStory, IsToldInTheseRequestsAndTheseLogLines) {
    const std::string reply = R"({"status":true,"data":{"tunnelServerEndpoint":"tun:4443x",)"
                              R"("tunnelServerCredentials":{"username":"u","password":7}}})";
    Cloud cloud({"{}", discovery, certificate, token, token, ok},
                {Version(R"("2.1.0")"), Ok(reply), Ok("r1"), Ok("r2"), support::HttpReply(400, "{}"),
                 support::HttpReply(401, "no")});
    const std::string at = " 127.0.0.1:" + std::to_string(cloud.sso.Port());
    support::LogCapture log(GetParam());
    cloud.device.dvrUsername = "adm";
    cloud.device.macAddress = "00-1A-2B";
    RegistrationClient client(cloud.device);
    EXPECT_EQ(Register(client), "Discovery failed");
    EXPECT_EQ(Register(client), "abc@tun:4443 u:7");
    EXPECT_EQ(Register(client), "Registration failed");

    const std::string data = R"({"request":"data"})";
    const std::string certificateRequest = R"({"request":"certificate_id"})";
    const std::string tokenRequest = R"({"request":"token","scope":"file-receiver hardware-read"})";
    const std::string reset = R"({"request":"reset"})";
    const std::string remove = "DELETE /v/clients/remove/id/abc Bearer tok ";
    const std::string add =
        R"(POST /v/clients/add Bearer tok {"client":{"deviceId":"abc","deviceType":"dvr",)"
        R"("name":"Door 1\/2","tenantId":"ten","clientMode":"tunnel-client",)";
    const std::string newTail =
        R"("deviceCredentials":{"username":"adm","password":""},"metadata":{"macAddress":"001a2b"}}})";
    const std::string route =
        R"({"route":{"deviceId":"abc","clientMode":"tunnel-client","port":0,"remoteHost":"127.0.0.1",)";
    const std::string web = route + R"("remotePort":80,"serviceName":"web"}})";
    const std::string rtsp = route + R"("remotePort":554,"serviceName":"rtsp"}})";
    const std::string addRoute = "POST /v/routes/add Bearer tok ";
    EXPECT_THAT(cloud.api.Heard(), ElementsAre(remove, add + newTail, addRoute + web, addRoute + rtsp, remove,
                                               add + R"("username":"adm","password":""}})"));

    const std::string connecting = "Connecting to SSO service at" + at + ", request ";
    const std::vector<std::pair<LogLevel, std::string>> lines = {
        {logDebug, "Device MAC address: 001a2b"},
        {logWarning, "MAC address too short for AVL id"},
        {logDebug, "Device AVL id: "},
        {logInfo, "Requesting discovery from" + at},
        {logInfo, connecting + data},
        {logError, "Discovery failed: Invalid status in response"},
        {logInfo, "Requesting discovery from" + at},
        {logInfo, connecting + data},
        {logInfo, "Requesting certificate ID from" + at},
        {logInfo, connecting + certificateRequest},
        {logInfo, connecting + tokenRequest},
        {logInfo, "Registering with " + cloud.apiUrl},
        {logDebug, "Tunnel server API version: 0x020100"},
        {logInfo, R"(RemoveDevice: (200) {"apiVersion":"2.1.0"})"},
        {logInfo, "Adding device abc"},
        {logVerbose, "AddDevice: " + reply},
        {logDebug, "AddRoute: " + web},
        {logInfo, "AddRoute: r1"},
        {logDebug, "AddRoute: " + rtsp},
        {logInfo, "AddRoute: r2"},
        {logInfo, "Device abc registered"},
        {logInfo, connecting + tokenRequest},
        {logInfo, "Registering with " + cloud.apiUrl},
        {logDebug, "Tunnel server API version: 0x010000"},
        {logInfo, "RemoveDevice: (400) {}"},
        {logInfo, "Adding device abc"},
        {logError, "Resetting SSO after getting code (401)"},
        {logInfo, connecting + reset},
        {logError, "Failed to add device: (401) no"},
        {logError, "Registration failed: Failed to add device"}};
    std::vector<std::string> visible;
    for (const auto& [level, text] : lines)
        if (level <= GetParam()) visible.push_back(text);
    EXPECT_THAT(log.Texts(), ElementsAreArray(visible));
}

INSTANTIATE_TEST_SUITE_P(RegistrationClient, WholeStory,
                         testing::Range<std::int32_t>(logError, logVerbose + 1));

// After a reply without credentials the tunnel gets those of the device; a refused reply changes nothing.
TEST(RegistrationClientTest, KeepsNoCredentialsButThoseOfTheLastGoodReply) {
    const auto reply = [](const std::string& rest) {
        return Ok(R"({"status":true,"data":{"tunnelServerEndpoint":"h:)" + rest + "}}");
    };
    const std::pair<std::string, std::string> rows[] = {
        {reply(R"(1","tunnelServerCredentials":{"username":"u","password":"p"})"), "id@h:1 u:p"},
        {reply(R"(2","tunnelServerCredentials":{"username":"x"})"), "Registration failed"},
        {reply("3\""), "id@h:3 admin:own"},
        {reply(R"(4","tunnelServerCredentials":{"username":"","password":""})"), "id@h:4 :"}};
    Replies replies;
    for (const auto& row : rows) replies.insert(replies.end(), {Ok("{}"), row.first});
    Cloud cloud({discovery, token, token, token, token}, replies);
    cloud.device.deviceId = "id";
    cloud.device.dvrUsername = "admin";
    cloud.device.dvrPassword = "own";
    cloud.device.routes.clear();
    RegistrationClient client(cloud.device);
    for (const auto& [bytes, tunnel] : rows) EXPECT_EQ(Register(client), tunnel);
}

/// Replies that end a cycle, and the error lines that they leave.
struct Failure {
    const char* name;
    Replies sso;
    Replies api;
    std::vector<std::string> log;
};

class Failures : public testing::TestWithParam<Failure> {};

TEST_P(Failures, AreLoggedInTheseWords) {
    Cloud cloud(GetParam().sso, GetParam().api);
    support::LogCapture log(logError);
    RegistrationClient client(cloud.device);
    const std::string last = GetParam().log.back();
    EXPECT_EQ(Register(client), last.substr(0, last.find(':')));
    EXPECT_THAT(log.Texts(), ElementsAreArray(GetParam().log));
    EXPECT_EQ(cloud.sso.Heard().size(), GetParam().sso.size());
    EXPECT_EQ(cloud.api.Heard().size(), GetParam().api.size());
}

Failure Undiscovered(const char* name, const std::string& data, const std::string& why) {
    return {name, {R"({"status":"ok","discovery_data":)" + data + "}"}, {}, {"Discovery failed: " + why}};
}
Failure Unregistered(const char* name, Replies api, const std::string& why) {
    return {name, {discovery, certificate, token}, std::move(api), {"Registration failed: " + why}};
}
/// The same when the step that fails logs the last reply too.
Failure Rejected(const char* name, Replies api, const std::string& line, const std::string& why) {
    return {name, {discovery, certificate, token}, std::move(api), {line, "Registration failed: " + why}};
}
Failure Added(const char* name, const std::string& body, const std::string& why) {
    return Unregistered(name, {Ok("{}"), Ok(body)}, why);
}
Failure WithData(const char* name, const std::string& data, const std::string& why) {
    return Added(name, R"({"status":true,"data":{"tunnelServerEndpoint":)" + data + "}}", why);
}

const char* const noObject = "Input is not a valid object";
const char* const noApi = "Missing config.tunnelServer.apiEndpoint in response";
const char* const noEndpoint = "Missing config.tunnelServer.serverEndpoint in response";
const char* const noTenant = "Device is not assigned to a tenant";
const char* const noStatus = "Missing status in AddDevice response";
const char* const noUsername = "Missing tunnelServerCredentials.username in AddDevice response";
const char* const noPassword = "Missing tunnelServerCredentials.password in AddDevice response";
const std::string server = R"({"config":{"tunnelServer":{"apiEndpoint":"a","serverEndpoint":"s"}})";
const std::string credentials = R"("h:1","tunnelServerCredentials":)";

const Failure failures[] = {
    Undiscovered("EmptyData", R"("")", "Received empty discovery data"),
    Undiscovered("NoObject", "17", noObject),
    Undiscovered("NoConfig", "{}", "Missing config in response"),
    Undiscovered("NoServer", R"({"config":{}})", "Missing config.tunnelServer in response"),
    Undiscovered("ServerIsText", R"({"config":{"tunnelServer":"apiEndpoint"}})", noObject),
    Undiscovered("NoApiEndpoint", R"({"config":{"tunnelServer":{"serverEndpoint":1}}})", noApi),
    Undiscovered("NoServerEndpoint", R"({"config":{"tunnelServer":{"apiEndpoint":"a"}}})", noEndpoint),
    Undiscovered("NoTenant", server + "}", "Missing discovery_data.tenantId in response"),
    Undiscovered("TenantNull", server + R"(,"tenantId":null})", noTenant),
    Undiscovered("TenantNullText", server + R"(,"tenantId":"null"})", noTenant),
    {"NoId",
     {discovery, R"({"status":"ok","certificate_id":""})"},
     {},
     {"Discovery failed: Received empty certificate ID"}},
    {"NoToken",
     {discovery, certificate, R"({"status":"ok","token":""})"},
     {},
     {"Registration failed: Failed to get tunnel token"}},
    Unregistered("ApiDown", {}, "curl_easy_perform() failed"),
    Unregistered("RefusalThatIsNotCounted", {support::HttpReply(401, "<html>")}, noObject),
    Unregistered("EmptyVersion", {Version(R"("")")}, "stoi"),
    Unregistered("VersionEndsInPoint", {Version(R"("2.")")}, "stoi"),
    Unregistered("LetterInVersion", {Version(R"("2.x.1")")}, "stoi"),
    Unregistered("HugeVersion", {Version(R"("2.1.99999999999")")}, "stoi"),
    Rejected("NotRemoved", {support::HttpReply(404, "{}")}, "RemoveDevice: (404) {}",
             "Failed to remove device"),
    Rejected("NotAdded", {Ok("{}"), support::HttpReply(201, "no")}, "Failed to add device: (201) no",
             "Failed to add device"),
    Rejected("NoRoute", {Ok("{}"), added, support::HttpReply(400, "no")}, "Failed to add route: (400) no",
             "Failed to add route"),
    Added("AddedWithNothing", "", noObject),
    Added("NoStatus", "{}", noStatus),
    Added("StatusIsText", R"({"status":"true"})", noStatus),
    Added("StatusFalse", R"({"status":false})", "Failed to add device, status = false"),
    Added("NoData", R"({"status":true})", "Missing data in AddDevice response"),
    Added("DataIsText", R"({"status":true,"data":"d"})", noObject),
    Added("NoEndpoint", R"({"status":true,"data":{}})", "Missing tunnelServerEndpoint in AddDevice response"),
    WithData("NoColon", R"("host")", "Invalid tunnelServerEndpoint host. Missing port?"),
    WithData("NoPort", R"("host:")", "stoi"),
    WithData("FirstColon", R"("::1:4443")", "stoi"),
    WithData("HugePort", R"("host:4294967296")", "stoi"),
    WithData("CredentialsAreText", credentials + R"("c")", noObject),
    WithData("NoUsername", credentials + R"({"password":"p"})", noUsername),
    WithData("NoPassword", credentials + R"({"username":"u"})", noPassword),
};

INSTANTIATE_TEST_SUITE_P(RegistrationClient, Failures, testing::ValuesIn(failures), nameOfRow);

struct Client {
    const char* name;
    std::string version;
    std::string packed;
    std::string username, password, mac;
    std::string tail;  // of the client object, behind its mode
};

class Clients : public testing::TestWithParam<Client> {};

TEST_P(Clients, AreDescribedAsTheVersionWantsAndUseTheirOwnCredentials) {
    Cloud cloud({discovery, token}, {Version(GetParam().version), added});
    cloud.device.dvrUsername = GetParam().username;
    cloud.device.dvrPassword = GetParam().password;
    cloud.device.macAddress = GetParam().mac;
    cloud.device.deviceId = "id7";
    cloud.device.routes.clear();
    support::LogCapture log;
    RegistrationClient client(cloud.device);
    EXPECT_EQ(Register(client), "id7@192.0.2.10:4443 " + GetParam().username + ":" + GetParam().password);
    EXPECT_EQ(log.Count("Tunnel server API version: 0x" + GetParam().packed), 1U);
    EXPECT_THAT(cloud.api.Heard(),
                ElementsAre(_, EndsWith(R"("clientMode":"tunnel-client")" + GetParam().tail)));
}

const std::string nobody = R"(,"username":"","password":""}})";

const Client clients[] = {
    {"Number", "2", "000002", "", "", "1A2B3C4D", nobody},
    {"TwoPartsAreNotPadded", "2.1", "000201", "u", "p/", "", R"(,"username":"u","password":"p\/"}})"},
    {"FourthPartIsIgnored", R"("1.2.3.x")", "010203", "", "", "", nobody},
    {"BytesAreCut", R"("257.-1.7rc")", "01ff07", "", "", "", nobody},
    {"NewWithNothing", R"("2.0.0")", "020000", "", "", "", "}}"},
    {"NewWithPassword", R"("2.1.0")", "020100", "", "p", "",
     R"(,"deviceCredentials":{"username":"","password":"p"}}})"},
    {"SixBytes", R"("2.0.0")", "020000", "", "", "00:1A:2B:3C:4D:5E\xff",
     R"(,"metadata":{"macAddress":"001a2b3c4d5e","avlId":"2b3c4d5e"}}})"},
    {"FourBytes", R"("2.0.0")", "020000", "", "", "1A2B3C4D",
     R"(,"metadata":{"macAddress":"1a2b3c4d","avlId":"1a2b3c4d"}}})"},
    {"SevenDigits", R"("2.0.0")", "020000", "", "", "1A2B3C4", R"(,"metadata":{"macAddress":"1a2b3c4"}}})"},
};

INSTANTIATE_TEST_SUITE_P(RegistrationClient, Clients, testing::ValuesIn(clients), nameOfRow);

struct Policy {
    const char* name;
    std::vector<int> statuses;  // of the API's answers
    std::string sso;  // the requests of each cycle: a token (T), perhaps a reset (R) or one that fails (F)
};

class ResetPolicy : public testing::TestWithParam<Policy> {};

TEST_P(ResetPolicy, CountsRefusals) {
    Replies sso = {discovery};
    for (const char kind : GetParam().sso) sso.push_back(kind == 'T' ? token : kind == 'R' ? ok : "{}");
    sso.push_back(ok);  // for a request too many
    Replies api;
    const std::string fits = R"({"status":true,"data":{"tunnelServerEndpoint":"host:1"}})";
    for (const int status : GetParam().statuses) api.push_back(support::HttpReply(status, fits));
    Cloud cloud(sso, api);
    support::LogCapture log(logError);
    cloud.device.deviceId = "id7";
    RegistrationClient client(cloud.device);
    for (const char kind : GetParam().sso) {
        if (kind == 'T') {
            EXPECT_EQ(Register(client), "Registration failed");
        }
    }

    std::string asked;
    for (const std::string& request : cloud.sso.Heard())
        asked += request == R"({"request":"reset"})" ? 'R' : 'T';
    std::string expected = "T" + GetParam().sso;  // the discovery, and then
    std::replace(expected.begin(), expected.end(), 'F', 'R');
    EXPECT_EQ(asked, expected);
    EXPECT_EQ(cloud.api.Heard().size(), api.size());
    EXPECT_EQ(log.Count("Registration failed: Invalid status in response"),
              static_cast<std::size_t>(std::count(GetParam().sso.begin(), GetParam().sso.end(), 'F')));
}

const std::string twelve(12, 'T');

const Policy policies[] = {
    {"EveryTwelfth", std::vector<int>(26, 401), "TR" + twelve + "R" + twelve + "RT"},
    {"ForbiddenToo", {403, 401, 403}, "TRTT"},
    {"SuccessStartsAnew", {401, 401, 200, 500, 403}, "TRTTTR"},
    {"OthersDoNotCount", {404, 401, 404, 400, 500, 401}, "TTRTTT"},
    {"RefusedWhenAdding", {200, 401, 401}, "TRT"},
    {"RefusedWhenAddingRoutes", {200, 200, 401, 401}, "TRT"},
    {"FailedResetIsRepeated", {401, 401, 401, 401}, "TFTFTRT"},
};

INSTANTIATE_TEST_SUITE_P(RegistrationClient, ResetPolicy, testing::ValuesIn(policies), nameOfRow);

}  // namespace
}  // namespace nox::tunnel_client
