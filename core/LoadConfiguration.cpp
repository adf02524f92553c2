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

// A file that cannot be read gives no text, which the parser then refuses: one complaint for both. By stdio,
// because the library's streams, linked in, would double the size of the program.
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

void ReadRoutes(const json::jobject& section, std::vector<Route>& routes) {
    Require(section.has_key("routes") && section["routes"].is_array(),
            "Invalid config file - missing routes array");
    const json::jobject list = section["routes"];
    for (std::size_t i = 0; i < list.size(); ++i) routes.push_back(ReadRoute(list.at(i)));
}

// Logging is no reason to refuse to start: what does not fit is passed over, and an unknown level is silence.
void ReadLog(const json::jobject& section, LogConfig& log) {
    log.path = HasString(section, "log_path") ? section["log_path"].as_string() : "";
    const std::string level = HasString(section, "log_level") ? section["log_level"].as_string() : "info";
    log.level = LogLevelFromName(level.c_str());
}

// Number or numeric string, both are in use.
void ReadTimer(const json::jobject& timers, const char* key, std::int32_t& seconds) {
    if (timers.has_key(key)) seconds = ReadInteger(timers, key);
}

void ReadTimers(const json::jobject& root, RegistrationConfig& registration, TunnelConfig& tunnel) {
    registration.registrationReconnectSeconds = defaultTimerSeconds;
    tunnel.tunnelReconnectSeconds = defaultTimerSeconds;
    tunnel.tunnelHeartbeatSeconds = defaultTimerSeconds;
    if (!root.has_key("timers")) return;
    const json::jobject timers = root["timers"];
    ReadTimer(timers, "tunnelHeartbeat", tunnel.tunnelHeartbeatSeconds);
    ReadTimer(timers, "registrationReconnect", registration.registrationReconnectSeconds);
    ReadTimer(timers, "tunnelReconnect", tunnel.tunnelReconnectSeconds);
}

// Returns whether the variable is set; the empty text counts.
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

void LoadConfiguration(int argc, const char* const argv[], RegistrationConfig& registration,
                       TunnelConfig& tunnel, LogConfig& log) {
    Require(argc > 1, "Missing argument - JSON config file");
    const json::jobject root = json::jobject::parse(ReadWholeFile(argv[1]));
    ReadSsoService(root, registration);
    Require(root.has_key("tunnel"), "Invalid config file - missing tunnel object");
    const json::jobject section = root["tunnel"];
    ReadRoutes(section, registration.routes);
    ReadLog(section, log);
    ReadTimers(root, registration, tunnel);
    ReadEnvironment(registration);
    // The heartbeat's period is fixed. Its key was read all the same: nonsense in the file is refused.
    tunnel.tunnelHeartbeatSeconds = heartbeatSeconds;
}

}  // namespace nox::tunnel_client
