#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include "lab/AgentFiles.h"
#include "lab/Settings.h"
#include "lab/wire/Frame.h"

namespace lab {

/// The settings of the command line.
struct Options {
    Ports ports;
    AgentSettings agent;
    std::string apiVersion = "2.1.0";
    std::string configFile, environmentFile;  ///< empty: not written
    std::size_t frameBytes = maxPayloadBytes;
    std::chrono::seconds reportEvery{0};  ///< 0: never
};

/// Thrown when the program is to end at once, because help was asked for or the command line is wrong.
struct ExitNow {
    int status;
};

/// @throws ExitNow after writing help or version to standard output, or a message to standard error
Options ReadOptions(int argc, char** argv);

}  // namespace lab
