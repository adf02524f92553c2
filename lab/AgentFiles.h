#pragma once

#include <chrono>
#include <string>
#include <utility>
#include <vector>

/// The two files that an agent is started with.
namespace lab {

struct AgentSettings {
    std::vector<std::pair<std::string, unsigned short>> routes;  ///< service name, TCP port on the device
    std::string logPath, logLevel = "info";
    std::chrono::seconds reconnect{5};

    std::string deviceId = "lab-device-1", deviceType = "recorder", deviceName = "Bench recorder";
    std::string macAddress = "00:00:5e:00:53:01", dvrUsername = "operator", dvrPassword = "bench";
};

std::string AgentConfiguration(const AgentSettings& settings, unsigned short ssoPort);
/// One line NAME='value' for each variable, readable by sh and by service managers.
std::string AgentEnvironment(const AgentSettings& settings);

/// Writes a file that only its owner can read, because it may hold a password.
/// @throws std::system_error naming the file
void WritePrivateFile(const std::string& path, const std::string& content);

}  // namespace lab
