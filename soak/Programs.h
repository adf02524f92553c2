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

/// The server. It has the same ports whenever it is started.
class Server {
public:
    using OnLine = std::function<void(const ServerLine&, const std::string& line)>;
    /// @param folder where its output is kept
    /// @param portPicker a free port each time, from a range where the kernel does not give any away
    Server(asio::io_context& loop, const std::filesystem::path& folder, const std::vector<Door>& doors,
           const std::function<unsigned short()>& portPicker, OnLine lineHandler);
    void Start();
    support::Process& Process() { return process->Process(); }
    bool HasEnded() const { return process->HasEnded(); }
    unsigned short SsoPort() const { return ssoPort; }
    unsigned short TunnelPort() const { return tunnelPort; }

private:
    asio::io_context& io;
    std::ofstream log;
    unsigned short ssoPort, tunnelPort;
    std::vector<std::string> arguments;
    OnLine onLine;
    std::unique_ptr<ChildProcess> process;
};

/// The resources of the agent at one moment.
struct Holdings {
    std::size_t descriptors = 0, threads = 0;
    std::size_t kibibytes = 0;  ///< resident and its own, so without the pages of files
};

/// The agent, on a clock that runs ten times as fast, because otherwise a soak would spend its time waiting
/// for the agent's delays.
class Agent {
public:
    static constexpr int clockSpeed = 10;
    using OnLine = std::function<void(const AgentLine&)>;
    /// Starts it. @param folder where its configuration is written, and its log kept
    Agent(asio::io_context& io, const std::filesystem::path& folder, const std::vector<Door>& doors,
          unsigned short ssoPort, const OnLine& lineHandler);
    bool HasEnded() const { return process.HasEnded(); }
    pid_t Pid() const { return process.Process().Pid(); }
    Holdings Holds() const;

private:
    std::ofstream log;
    ChildProcess process;
};

}  // namespace soak
