#pragma once

#include "core/Configuration.h"

namespace nox::tunnel_client {

/// Fills the three records, which must be freshly made, from the JSON file `argv[1]` and the environment
/// (DEVICE_ID, DEVICE_TYPE, DEVICE_NAME, MAC_ADDRESS, DVR_USERNAME, DVR_PASSWORD). What only a registration
/// can tell stays empty in `tunnel`. Nothing is logged: logging starts with what is read here.
/// @throws std::invalid_argument with a text for the operator, json::parsing_error for a file
/// that is not JSON or
///         cannot be read, or what std::stoi throws ("stoi") for a number that is none or is out of range.
///         The records may be half filled then.
void LoadConfiguration(int argc, const char* const argv[], RegistrationConfig& registration,
                       TunnelConfig& tunnel, LogConfig& log);

}  // namespace nox::tunnel_client
