#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>

#include "core/LoadConfiguration.h"
#include "tests/support/TemporaryFolder.h"

using namespace nox::tunnel_client;

namespace {

// Configuration texts are written with single quotes here.
const std::string sso = "{'ssoService':{'type':'local-socket','port':5000}";
const std::string good = sso + ",'tunnel':{'routes':[]}}";
std::string WithPort(const std::string& port) {
    return "{'tunnel':{'routes':[]},'ssoService':{'type':'local-socket','port':" + port + "}}";
}
std::string WithTunnel(const std::string& section) { return sso + ",'tunnel':" + section + "}"; }
std::string WithRoutes(const std::string& routes) { return WithTunnel("{'routes':" + routes + "}"); }
std::string WithTimers(const std::string& timers) { return WithTunnel("{'routes':[]},'timers':" + timers); }

class LoadConfigurationTest : public testing::Test {
protected:
    LoadConfigurationTest() {
        for (const char* name : {"DEVICE_ID", "MAC_ADDRESS", "DVR_USERNAME", "DVR_PASSWORD"}) unsetenv(name);
        setenv("DEVICE_TYPE", "recorder", 1);
        setenv("DEVICE_NAME", "Lobby", 1);
    }
    /// A loaded configuration as one line of port, timers, log and routes; or the text of its fault.
    std::string Load(std::string text) {
        std::replace(text.begin(), text.end(), '\'', '"');
        return LoadFile(folder.Write("config.json", text));
    }
    std::string LoadFile(const std::string& path) {
        const char* const argv[] = {"tunnel-client", path.c_str(), "ignored"};
        Configuration loaded;
        try {
            loaded = LoadConfiguration(3, argv);
        } catch (const std::exception& failure) {
            return failure.what();
        }
        device = loaded.registration;
        std::ostringstream summary;
        summary << device.ssoHost << ':' << device.ssoPort << ' ' << device.registrationReconnectSeconds
                << ' ' << loaded.tunnel.tunnelReconnectSeconds << ' ' << loaded.tunnel.tunnelHeartbeatSeconds
                << " '" << loaded.log.path << "' " << loaded.log.level;
        for (const Route& route : device.routes)
            summary << ' ' << route.serviceName << '@' << route.remotePort;
        return summary.str();
    }

    support::TemporaryFolder folder;
    RegistrationConfig device;
};

TEST_F(LoadConfigurationTest, RefusesWithTheFirstFaultOnly) {
    const std::string noObject = "Input is not a valid object";
    const std::string missing = "Invalid config file - missing ";
    const std::string service = "Invalid config file - ssoService ";
    const std::string route = "Invalid config file - route is missing ";
    const std::pair<std::string, std::string> rows[] = {
        {"", noObject},
        {sso, noObject},
        {sso + ",'ssoService':{}}", "Key conflict"},
        {"{}", missing + "ssoService object"},
        {"[{}]", missing + "ssoService object"},
        {"{'ssoService':'{}'}", noObject},
        {"{'ssoService':[]}", service + "is missing type"},
        {"{'ssoService':{'type':true,'port':5000}}", service + "is missing type"},
        {"{'ssoService':{'type':'Local-socket'}}", service + "type is not local-socket"},
        {"{'ssoService':{'type':'local-socket'}}", service + "is missing port"},
        {WithPort("'5000'"), service + "is missing port"},
        {"{'ssoService':{'type':'local-socket','port':2147483648}}", "stoi"},
        {sso + "}", missing + "tunnel object"},
        {WithTunnel("5"), noObject},
        {WithTunnel("[]"), missing + "routes array"},
        {WithRoutes("{}"), missing + "routes array"},
        {WithRoutes("[5]"), noObject},
        {WithRoutes("[[]]"), route + "remotePort"},
        {WithRoutes("[{'remotePort':'80','serviceName':5}]"), route + "remotePort"},
        {WithRoutes("[{'remotePort':-2147483649}]"), "stoi"},
        {WithRoutes("[{'remotePort':80,'serviceName':'web'},{'remotePort':80}]"), route + "serviceName"},
        {WithRoutes("[{'remotePort':80,'serviceName':80}]"), route + "serviceName"},
        {WithTimers("30"), noObject},
        {WithTimers("{'tunnelHeartbeat':'soon'}"), "stoi"},
        {WithTimers("{'registrationReconnect':''}"), "stoi"},
        {WithTimers("{'tunnelReconnect':2147483648}"), "stoi"},
    };
    unsetenv("DEVICE_TYPE");  // looked at last
    for (const auto& [text, complaint] : rows) EXPECT_EQ(Load(text), complaint) << text;
    EXPECT_EQ(LoadFile(folder.Path() / "absent.json"), noObject);
    EXPECT_EQ(LoadFile(folder.Path()), noObject);
}

TEST_F(LoadConfigurationTest, TakesWhatIsThereAndDefaultsForTheRest) {
    const std::string service = "127.0.0.1:5000 ";
    const std::pair<std::string, std::string> rows[] = {
        {good, service + "30 30 30 '' 3"},
        {WithPort("-1.9"), "127.0.0.1:-1 30 30 30 '' 3"},
        {WithTimers("{'" + std::string(9000, 'x') + "':1,'tunnelReconnect':45}"), service + "30 45 30 '' 3"},
        {WithRoutes("[{'serviceName':'b\\t','x':{},'remotePort':7e2},{'remotePort':0,'serviceName':''}]"),
         service + "30 30 30 '' 3 b\t@7 @0"},
        {WithTimers("[5]"), service + "30 30 30 '' 3"},
        {WithTimers("{'tunnelHeartbeat':5}"), service + "30 30 30 '' 3"},
        {WithTimers("{'registrationReconnect':'15','tunnelReconnect':45}"), service + "15 45 30 '' 3"},
        {WithTimers("{'registrationReconnect':0,'tunnelReconnect':' -1 s'}"), service + "0 -1 30 '' 3"},
        {WithTunnel("{'routes':[],'log_path':'a','log_level':'verbose'}"), service + "30 30 30 'a' 5"},
        {WithTunnel("{'routes':[],'log_path':5,'log_level':4}"), service + "30 30 30 '' 3"},
        {WithTunnel("{'routes':[],'log_level':'Debug'},'log_path':'b'"), service + "30 30 30 '' 0"},
    };
    for (const auto& [text, summary] : rows) EXPECT_EQ(Load(text), summary) << text;
}

TEST_F(LoadConfigurationTest, ReadsTheDeviceFromTheEnvironment) {
    Load(good);
    EXPECT_EQ(device.deviceId + device.macAddress + device.dvrUsername + device.dvrPassword, "");
    setenv("DEVICE_ID", " 7 ", 1);
    setenv("DEVICE_NAME", "", 1);  // set all the same
    setenv("MAC_ADDRESS", "00:11", 1);
    setenv("DVR_USERNAME", "admin", 1);
    setenv("DVR_PASSWORD", "pass word", 1);
    EXPECT_EQ(Load(good), "127.0.0.1:5000 30 30 30 '' 3");
    EXPECT_EQ(device.deviceId, " 7 ");
    EXPECT_EQ(device.deviceType + '/' + device.deviceName, "recorder/");
    EXPECT_EQ(device.macAddress, "00:11");
    EXPECT_EQ(device.dvrUsername + '/' + device.dvrPassword, "admin/pass word");
    unsetenv("DEVICE_NAME");
    EXPECT_EQ(Load(good), "Environment variable DEVICE_NAME is missing");
    unsetenv("DEVICE_TYPE");
    EXPECT_EQ(Load(good), "Environment variable DEVICE_TYPE is missing");
}

}  // namespace
