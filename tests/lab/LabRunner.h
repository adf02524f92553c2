#pragma once

#include <asio.hpp>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "lab/Lab.h"
#include "lab/ScriptedPeers.h"
#include "lab/ScriptedServer.h"

namespace lab {

/// A lab on a thread of its own, with delays in milliseconds; keeps what it tells.
class LabRunner {
public:
    explicit LabRunner(Ports ports = {}, Timings timings = Short());
    ~LabRunner();
    LabRunner(const LabRunner&) = delete;
    LabRunner& operator=(const LabRunner&) = delete;

    static Timings Short();

    unsigned short SsoPort() const { return lab->SsoPort(); }
    unsigned short ApiPort() const { return lab->ApiPort(); }
    unsigned short TunnelPort() const { return lab->TunnelPort(); }

    /// Waits for a line that contains `text`. @return the first such line, "" when it never comes
    std::string Line(const std::string& text);
    bool Tells(const std::string& text) { return !Line(text).empty(); }
    std::size_t CountLines(const std::string& text);
    std::string Totals();

    /// The local port of a device's route, once there is one.
    unsigned short RoutePort(const std::string& deviceId, const std::string& service);

private:
    asio::io_context io;
    std::mutex mutex;
    std::vector<std::string> lines;
    std::unique_ptr<Lab> lab;
    std::thread thread;
};

struct HttpAnswer {
    int status;
    std::string body;
};
HttpAnswer Call(unsigned short port, const std::string& method, const std::string& target,
                const std::string& token, const std::string& body = "");
std::string AskSso(unsigned short port, const std::string& json);
/// The text of `json`'s member at a path of names, "" when it is missing.
std::string At(const std::string& json, const std::vector<std::string>& path);

/// A device that has registered: one that does what it should, until a test makes it do otherwise.
class ScriptedDevice {
public:
    explicit ScriptedDevice(LabRunner& labRunner, std::string id = "d1",
                            const std::vector<std::string>& services = {"web"});

    /// Connects to the tunnel server, another time if need be, and sends a good verify.
    Connection& Connect();
    Connection& Tunnel() { return tunnel; }
    void SendVerify(const std::string& method = "verify", const std::string& version = "1.0");
    void SendControl(const std::string& json) { WriteControl(tunnel, password, json); }
    void SendData(const std::string& session, const std::string& bytes) {
        WriteFrame(tunnel, {dataFrame, session, bytes});
    }
    /// The next control message. @throws std::runtime_error unless it is of that method and well signed
    std::string Expect(const std::string& method);
    /// A client of the first service, and the id of its session.
    std::pair<Connection, std::string> Client(const std::string& service = "web");
    /// The payloads of one session's frames, until there are so many bytes.
    std::string ReadData(const std::string& session, std::size_t bytes);

    std::string deviceId, username, password;

private:
    LabRunner& runner;
    Connection tunnel;
};

/// Writes as much of `bytes` as goes without waiting for long. @return how much that is
std::size_t WriteUntilStuck(Connection& connection, const std::string& bytes);
/// Bytes that tell when one of them is missing or in another's place.
std::string Pattern(std::size_t size);

}  // namespace lab
