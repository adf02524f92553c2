#pragma once

#include <cstdint>
#include <string>

#include "registration/RegistrationConfig.h"
#include "tunnel/TunnelConfig.h"

namespace nox::tunnel_client {

/// The destination of the log, and its level.
struct LogConfig {
    std::string path;        ///< base path of the log file; empty: standard output
    std::int32_t level = 0;  ///< 0 (off) to 5 (verbose), see log/Log.h
};

/// Everything that the process is configured with.
struct Configuration {
    RegistrationConfig registration;
    TunnelConfig tunnel;  ///< only its timers are set; each registration yields the other members
    LogConfig log;
};

/// Reads the JSON file `argv[1]` and the environment (DEVICE_ID, DEVICE_TYPE, DEVICE_NAME, MAC_ADDRESS,
/// DVR_USERNAME, DVR_PASSWORD). Logs nothing, because the log starts with the settings that are read here.
/// @throws std::invalid_argument with a text for the operator, json::parsing_error for a file that is not
///         JSON or cannot be read, or the exceptions of std::stoi ("stoi") for a text that is no number or a
///         number that is out of range
Configuration LoadConfiguration(int argc, const char* const argv[]);

}  // namespace nox::tunnel_client
