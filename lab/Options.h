#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include "lab/AgentFiles.h"
#include "lab/Settings.h"
#include "lab/wire/Frame.h"

namespace lab {

/// What the command line asks for.
struct Options {
    Ports ports;
    AgentSettings agent;
    std::string apiVersion = "2.1.0";
    std::string configFile, environmentFile;  ///< empty: not written
    std::size_t frameBytes = maxPayloadBytes;
    std::chrono::seconds reportEvery{0};  ///< 0: never
};

/// Thrown when there is nothing to run: help was asked for, or the command line is wrong.
struct ExitNow {
    int status;
};

/// @throws ExitNow after it has written help or version to standard output, or a message to standard error
Options ReadOptions(int argc, char** argv);

}  // namespace lab
