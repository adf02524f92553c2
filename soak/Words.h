#pragma once

#include <string>

#include "soak/Account.h"

/// Reads the lines that the two programs write to their standard output.
namespace soak {

struct ServerLine {
    enum class Kind { Ready, Connected, Disconnected, Opened, Closed, TurnedAway, Error, Other };
    Kind kind = Kind::Other;
    std::string session;  ///< of Opened and Closed
    ServerWords words;    ///< of Closed
};
ServerLine ReadServerLine(const std::string& line);

struct AgentLine {
    bool isVerified = false;           ///< the server has greeted it, so a new connection serves
    std::string session;               ///< "": the line is of no interest
    bool AgentWords::*word = nullptr;  ///< the fact that the line tells of that session
};
/// @param line with its time, level debug is enough
AgentLine ReadAgentLine(const std::string& line);

}  // namespace soak
