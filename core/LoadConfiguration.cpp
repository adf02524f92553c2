#include "core/LoadConfiguration.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>

#include "json/json.h"
#include "log/Log.h"

namespace nox::tunnel_client {

namespace {

constexpr std::int32_t defaultTimerSeconds = 30;
constexpr std::int32_t heartbeatSeconds = 30;

void Require(bool condition, const char* complaint) {
    if (!condition) throw std::invalid_argument(complaint);
}

// A file that cannot be read gives an empty text, which the parser refuses like any other text that is not
// JSON. This uses stdio because the C++ library's streams, linked in, would double the size of the program.
std::string ReadWholeFile(const char* path) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path, "r"), std::fclose);
    std::string content;
    if (!file) return content;
    std::array<char, 4096> piece;
    while (const std::size_t size = std::fread(piece.data(), 1, piece.size(), file.get())) {
        content.append(piece.data(), size);
    }
    return content;
}

bool HasString(const json::jobject& section, const char* key) {
    return section.has_key(key) && section[key].is_string();
}

bool HasNumber(const json::jobject& section, const char* key) {
    return section.has_key(key) && section[key].is_number();
}

// Cuts a fraction or an exponent off, as std::stoi does.
std::int32_t ReadInteger(const json::jobject& section, const char* key) {
    return std::stoi(section[key].as_string());
}

void ReadSsoService(const json::jobject& root, RegistrationConfig& registration) {
    Require(root.has_key("ssoService"), "Invalid config file - missing ssoService object");
    const json::jobject service = root["ssoService"];
    Require(HasString(service, "type"), "Invalid config file - ssoService is missing type");
    Require(service["type"].as_string() == "local-socket",
            "Invalid config file - ssoService type is not local-socket");
    Require(HasNumber(service, "port"), "Invalid config file - ssoService is missing port");
    registration.ssoPort = ReadInteger(service, "port");
    registration.ssoHost = "127.0.0.1";
}

Route ReadRoute(const json::jobject& section) {
    Route route;
    Require(HasNumber(section, "remotePort"), "Invalid config file - route is missing remotePort");
    route.remotePort = ReadInteger(section, "remotePort");
    Require(HasString(section, "serviceName"), "Invalid config file - route is missing serviceName");
    route.serviceName = section["serviceName"].as_string();
    return route;
}

std::vector<Route> ReadRoutes(const json::jobject& section) {
    Require(section.has_key("routes") && section["routes"].is_array(),
            "Invalid config file - missing routes array");
    const json::jobject list = section["routes"];
    std::vector<Route> routes;
    for (std::size_t i = 0; i < list.size(); ++i) routes.push_back(ReadRoute(list.at(i)));
    return routes;
}

// A fault in the log's settings must not keep the agent from starting: a member that is not a string counts
// as missing, and an unknown level switches logging off.
LogConfig ReadLog(const json::jobject& section) {
    LogConfig log;
    if (HasString(section, "log_path")) log.path = section["log_path"].as_string();
    const std::string level = HasString(section, "log_level") ? section["log_level"].as_string() : "info";
    log.level = LogLevelFromName(level.c_str());
    return log;
}

// The type is not checked, because numbers and numeric strings are both in use.
void ReadTimer(const json::jobject& timers, const char* key, std::int32_t& seconds) {
    if (timers.has_key(key)) seconds = ReadInteger(timers, key);
}

void ReadTimers(const json::jobject& root, Configuration& configuration) {
    std::int32_t heartbeat = 0;
    configuration.registration.registrationReconnectSeconds = defaultTimerSeconds;
    configuration.tunnel.tunnelReconnectSeconds = defaultTimerSeconds;
    // The heartbeat's period is fixed. Its key is read all the same, so that a value that is no number is
    // refused.
    configuration.tunnel.tunnelHeartbeatSeconds = heartbeatSeconds;
    if (!root.has_key("timers")) return;
    const json::jobject timers = root["timers"];
    ReadTimer(timers, "tunnelHeartbeat", heartbeat);
    ReadTimer(timers, "registrationReconnect", configuration.registration.registrationReconnectSeconds);
    ReadTimer(timers, "tunnelReconnect", configuration.tunnel.tunnelReconnectSeconds);
}

// Returns whether the variable is set; one that is set to the empty text counts.
bool ReadVariable(const char* name, std::string& value) {
    const char* text = std::getenv(name);
    if (text != nullptr) value = text;
    return text != nullptr;
}

void ReadEnvironment(RegistrationConfig& registration) {
    ReadVariable("DEVICE_ID", registration.deviceId);
    Require(ReadVariable("DEVICE_TYPE", registration.deviceType),
            "Environment variable DEVICE_TYPE is missing");
    Require(ReadVariable("DEVICE_NAME", registration.deviceName),
            "Environment variable DEVICE_NAME is missing");
    ReadVariable("MAC_ADDRESS", registration.macAddress);
    ReadVariable("DVR_USERNAME", registration.dvrUsername);
    ReadVariable("DVR_PASSWORD", registration.dvrPassword);
}

}  // namespace

Configuration LoadConfiguration(int argc, const char* const argv[]) {
    Require(argc > 1, "Missing argument - JSON config file");
    const json::jobject root = json::jobject::parse(ReadWholeFile(argv[1]));
    Configuration configuration;
    ReadSsoService(root, configuration.registration);
    Require(root.has_key("tunnel"), "Invalid config file - missing tunnel object");
    const json::jobject section = root["tunnel"];
    configuration.registration.routes = ReadRoutes(section);
    configuration.log = ReadLog(section);
    ReadTimers(root, configuration);
    ReadEnvironment(configuration.registration);
    return configuration;
}

}  // namespace nox::tunnel_client
