#include "lab/AgentFiles.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <system_error>

namespace lab {

using nlohmann::ordered_json;

namespace {

/// Puts the text between single quotes, where only the single quote itself is special. Each of those is put
/// between double quotes, which sh and service managers read alike.
std::string Quoted(const std::string& text) {
    std::string quoted = "'";
    for (const char c : text) quoted += c == '\'' ? std::string("'\"'\"'") : std::string(1, c);
    return quoted + "'";
}

}  // namespace

std::string AgentConfiguration(const AgentSettings& settings, unsigned short ssoPort) {
    ordered_json routes = ordered_json::array();
    for (const auto& [service, port] : settings.routes)
        routes.push_back({{"serviceName", service}, {"remotePort", port}});
    const ordered_json configuration{
        {"ssoService", {{"type", "local-socket"}, {"port", ssoPort}}},
        {"tunnel", {{"routes", routes}, {"log_path", settings.logPath}, {"log_level", settings.logLevel}}},
        {"timers",
         {{"registrationReconnect", settings.reconnect.count()},
          {"tunnelReconnect", settings.reconnect.count()}}}};
    return configuration.dump(4) + "\n";
}

std::string AgentEnvironment(const AgentSettings& settings) {
    return "DEVICE_ID=" + Quoted(settings.deviceId) + "\nDEVICE_TYPE=" + Quoted(settings.deviceType) +
           "\nDEVICE_NAME=" + Quoted(settings.deviceName) + "\nMAC_ADDRESS=" + Quoted(settings.macAddress) +
           "\nDVR_USERNAME=" + Quoted(settings.dvrUsername) +
           "\nDVR_PASSWORD=" + Quoted(settings.dvrPassword) + "\n";
}

void WritePrivateFile(const std::string& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    std::error_code ignored;  // only a failure to write the content counts
    // The path may also be a device such as /dev/stdout, whose permissions are left alone.
    if (std::filesystem::is_regular_file(path, ignored)) {
        std::filesystem::permissions(
            path, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write, ignored);
    }
    file << content << std::flush;
    if (!file) throw std::system_error(errno, std::generic_category(), "cannot write " + path);
}

}  // namespace lab
