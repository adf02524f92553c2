#pragma once

#include <asio.hpp>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "soak/ChildProcess.h"
#include "soak/Words.h"

namespace soak {

/// A route of the device: the name, the service's port, and the server's port for clients.
struct Door {
    std::string service;
    unsigned short devicePort = 0, clientPort = 0;
};

/// The server: always at the same ports, however often it is started.
class Server {
public:
    using OnLine = std::function<void(const ServerLine&, const std::string& line)>;
    /// @param folder where its output is kept, too
    /// @param portPicker a free port each time, from a range where the kernel does not give any away
    Server(asio::io_context& loop, const std::filesystem::path& folder, const std::vector<Door>& doors,
           const std::function<unsigned short()>& portPicker, OnLine lineHandler);
    void Start();
    void Signal(int number) const { process->Signal(number); }
    bool HasEnded() const { return process->HasEnded(); }
    unsigned short SsoPort() const { return ssoPort; }

private:
    asio::io_context& io;
    std::ofstream log;
    unsigned short ssoPort;
    std::vector<std::string> arguments;
    OnLine onLine;
    std::unique_ptr<ChildProcess> process;
};

/// What the agent holds.
struct Holdings {
    std::size_t descriptors = 0, threads = 0, residentKibibytes = 0;
};

/// The agent, on a clock that runs ten times as fast: its delays are what a soak waits for most of the time.
class Agent {
public:
    using OnLine = std::function<void(const AgentLine&)>;
    /// Starts it. @param folder where its configuration is written, and its log kept
    Agent(asio::io_context& io, const std::filesystem::path& folder, const std::vector<Door>& doors,
          unsigned short ssoPort, const OnLine& lineHandler);
    bool HasEnded() const { return process.HasEnded(); }
    Holdings Holds() const;

private:
    std::ofstream log;
    ChildProcess process;
};

}  // namespace soak
