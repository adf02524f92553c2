#pragma once

#include <cstdint>
#include <string>

#include "registration/RegistrationConfig.h"
#include "tunnel/TunnelConfig.h"

namespace nox::tunnel_client {

/// Where and how much to log.
struct LogConfig {
    std::string path;        ///< base path of the log file; empty: standard output
    std::int32_t level = 0;  ///< 0 (off) to 5 (verbose), see log/Log.h
};

/// Fills the three records, which must be freshly made, from the JSON file `argv[1]` and the environment (DEVICE_ID,
/// DEVICE_TYPE, DEVICE_NAME, MAC_ADDRESS, DVR_USERNAME, DVR_PASSWORD). What only a registration can tell stays empty in
/// `tunnel`. Nothing is logged: logging starts with what is read here.
/// @throws std::invalid_argument with a text for the operator, json::parsing_error for a file that is not JSON or
///         cannot be read, or what std::stoi throws ("stoi") for a number that is none or is out of range.
///         The records may be half filled then.
void LoadConfiguration(int argc, const char* const argv[], RegistrationConfig& registration,
                       TunnelConfig& tunnel, LogConfig& log);

}  // namespace nox::tunnel_client
