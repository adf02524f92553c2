#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "core/LoadConfiguration.h"
#include "log/Log.h"
#include "tests/support/TemporaryFolder.h"

using namespace nox::tunnel_client;

namespace {

// Configuration texts are written with single quotes here.
const std::string sso = "'ssoService':{'type':'local-socket','port':5000}";
const std::string tunnelSection = "'tunnel':{'routes':[]}";

std::string WithPort(const std::string& port) {
    return "{'ssoService':{'type':'local-socket','port':" + port + "}," + tunnelSection + "}";
}
std::string WithTunnel(const std::string& section) { return "{" + sso + ",'tunnel':" + section + "}"; }
std::string WithTimers(const std::string& timers) {
    return "{" + sso + "," + tunnelSection + ",'timers':" + timers + "}";
}

class LoadConfigurationTest : public testing::Test {
protected:
    LoadConfigurationTest() {
        for (const char* name : {"DEVICE_ID", "MAC_ADDRESS", "DVR_USERNAME", "DVR_PASSWORD"}) unsetenv(name);
        setenv("DEVICE_TYPE", "recorder", 1);
        setenv("DEVICE_NAME", "Lobby", 1);
    }
    void LoadFile(const std::string& path) {
        const char* const argv[] = {"tunnel-client", path.c_str(), "ignored"};
        registration = {};
        tunnel = {};
        log = {};
        LoadConfiguration(3, argv, registration, tunnel, log);
    }
    void Load(std::string text) {
        std::replace(text.begin(), text.end(), '\'', '"');
        LoadFile(folder.Write("config.json", text));
    }
    std::string Complaint(const std::string& text) {
        try {
            Load(text);
        } catch (const std::exception& failure) {
            return failure.what();
        }
        return "none";
    }

    support::TemporaryFolder folder;
    RegistrationConfig registration;
    TunnelConfig tunnel;
    LogConfig log;
};

TEST_F(LoadConfigurationTest, RefusesWithTheFirstFaultOnly) {
    const std::string noObject = "Input is not a valid object";
    const std::string missing = "Invalid config file - missing ";
    const std::string service = "Invalid config file - ssoService ";
    const std::string route = "Invalid config file - route is missing ";
    const std::string goodRoute = "{'remotePort':80,'serviceName':'web'}";
    const std::pair<std::string, std::string> rows[] = {
        {"", noObject},
        {"5", noObject},
        {"{" + sso + "," + tunnelSection, noObject},
        {"{" + sso + "," + sso + "}", "Key conflict"},
        {"{'':1}", "Missing key"},
        {"{}", missing + "ssoService object"},
        {"[{}]", missing + "ssoService object"},
        {"{'ssoService':5}", noObject},
        {"{'ssoService':'{}'}", noObject},
        {"{'ssoService':[]}", service + "is missing type"},
        {"{'ssoService':{'port':5000}}", service + "is missing type"},
        {"{'ssoService':{'type':true,'port':5000}}", service + "is missing type"},
        {"{'ssoService':{'type':'Local-socket'}}", service + "type is not local-socket"},
        {"{'ssoService':{'type':''}}", service + "type is not local-socket"},
        {"{'ssoService':{'type':'local-socket'}}", service + "is missing port"},
        {WithPort("'5000'"), service + "is missing port"},
        {WithPort("null"), service + "is missing port"},
        {"{'ssoService':{'type':'local-socket','port':2147483648}}", "stoi"},
        {"{" + sso + "}", missing + "tunnel object"},
        {WithTunnel("'text'"), noObject},
        {WithTunnel("[]"), missing + "routes array"},
        {WithTunnel("{'routes':{}}"), missing + "routes array"},
        {WithTunnel("{'routes':[5]}"), noObject},
        {WithTunnel("{'routes':[[]]}"), route + "remotePort"},
        {WithTunnel("{'routes':[{'serviceName':5}]}"), route + "remotePort"},
        {WithTunnel("{'routes':[{'remotePort':'80','serviceName':'web'}]}"), route + "remotePort"},
        {WithTunnel("{'routes':[{'remotePort':-2147483649}]}"), "stoi"},
        {WithTunnel("{'routes':[" + goodRoute + ",{'remotePort':80}]}"), route + "serviceName"},
        {WithTunnel("{'routes':[{'remotePort':80,'serviceName':80}]}"), route + "serviceName"},
        {WithTimers("30"), noObject},
        {WithTimers("{'tunnelHeartbeat':'soon'}"), "stoi"},
        {WithTimers("{'registrationReconnect':''}"), "stoi"},
        {WithTimers("{'tunnelReconnect':true}"), "stoi"},
        {WithTimers("{'tunnelReconnect':2147483648}"), "stoi"},
    };
    unsetenv("DEVICE_TYPE");  // looked at last
    for (const auto& [text, complaint] : rows) EXPECT_EQ(Complaint(text), complaint) << text;
}

TEST_F(LoadConfigurationTest, TakesAFileThatCannotBeReadForAnEmptyOne) {
    for (const std::string path : {folder.Path() / "absent.json", folder.Path()}) {
        EXPECT_THROW(LoadFile(path), std::invalid_argument) << path;
    }
}

TEST_F(LoadConfigurationTest, KeepsRoutesInOrderAndIgnoresWhatItDoesNotKnow) {
    const std::string routes =
        "[{'serviceName':'b\\n','x':{},'remotePort':-1.5},{'remotePort':7e2,'serviceName':''}]";
    Load("{'log_path':'root','log_level':'debug','tunnel':{'routes':" + routes +
         "},'ssoService':{'port':5000.9,'x':1,'type':'local-socket'}}");
    EXPECT_EQ(registration.ssoHost, "127.0.0.1");
    EXPECT_EQ(registration.ssoPort, 5000);
    ASSERT_EQ(registration.routes.size(), 2U);
    EXPECT_EQ(registration.routes[0].serviceName, "b\n");
    EXPECT_EQ(registration.routes[0].remotePort, -1);
    EXPECT_EQ(registration.routes[1].serviceName, "");
    EXPECT_EQ(registration.routes[1].remotePort, 7);
    EXPECT_EQ(log.path, "");
    EXPECT_EQ(log.level, logInfo);
}

TEST_F(LoadConfigurationTest, TakesTimersAsNumbersOrTextAndFixesTheHeartbeat) {
    struct {
        const char* timers;
        int registration;
        int tunnel;
    } rows[] = {{"{}", 30, 30},
                {"[5]", 30, 30},
                {"{'tunnelHeartbeat':5}", 30, 30},
                {"{'registrationReconnect':'15','tunnelReconnect':45}", 15, 45},
                {"{'registrationReconnect':0,'tunnelReconnect':'-1'}", 0, -1},
                {"{'registrationReconnect':1.9,'tunnelReconnect':' 45 s'}", 1, 45}};
    for (const auto& row : rows) {
        Load(WithTimers(row.timers));
        EXPECT_EQ(registration.registrationReconnectSeconds, row.registration) << row.timers;
        EXPECT_EQ(tunnel.tunnelReconnectSeconds, row.tunnel) << row.timers;
        EXPECT_EQ(tunnel.tunnelHeartbeatSeconds, 30) << row.timers;
    }
    Load("{" + sso + "," + tunnelSection + "}");
    EXPECT_EQ(registration.registrationReconnectSeconds, 30);
    EXPECT_EQ(tunnel.tunnelReconnectSeconds, 30);
    EXPECT_EQ(tunnel.tunnelHeartbeatSeconds, 30);
}

TEST_F(LoadConfigurationTest, NeverComplainsAboutTheLog) {
    struct {
        const char* members;
        const char* path;
        std::int32_t level;
    } rows[] = {{"'log_path':'logs/agent','log_level':'verbose'", "logs/agent", logVerbose},
                {"'log_path':5,'log_level':4", "", logInfo},
                {"'log_path':null,'log_level':'Debug'", "", logOff},
                {"'log_level':''", "", logOff}};
    for (const auto& row : rows) {
        Load(WithTunnel(std::string("{'routes':[],") + row.members + "}"));
        EXPECT_EQ(log.path, row.path) << row.members;
        EXPECT_EQ(log.level, row.level) << row.members;
    }
}

TEST_F(LoadConfigurationTest, ReadsTheDeviceFromTheEnvironment) {
    const std::string text = "{" + sso + "," + tunnelSection + "}";
    Load(text);
    EXPECT_EQ(
        registration.deviceId + registration.macAddress + registration.dvrUsername + registration.dvrPassword,
        "");
    setenv("DEVICE_ID", " 7 ", 1);
    setenv("DEVICE_NAME", "", 1);
    setenv("MAC_ADDRESS", "00:11", 1);
    setenv("DVR_USERNAME", "admin", 1);
    setenv("DVR_PASSWORD", "pass word", 1);
    Load(text);
    EXPECT_EQ(registration.deviceId, " 7 ");
    EXPECT_EQ(registration.deviceType, "recorder");
    EXPECT_EQ(registration.deviceName, "") << "empty is set";
    EXPECT_EQ(registration.macAddress, "00:11");
    EXPECT_EQ(registration.dvrUsername, "admin");
    EXPECT_EQ(registration.dvrPassword, "pass word");
    unsetenv("DEVICE_NAME");
    EXPECT_EQ(Complaint(text), "Environment variable DEVICE_NAME is missing");
    unsetenv("DEVICE_TYPE");
    EXPECT_EQ(Complaint(text), "Environment variable DEVICE_TYPE is missing");
}

}  // namespace
