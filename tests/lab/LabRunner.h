#pragma once

#include <asio.hpp>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "lab/Lab.h"
#include "tests/support/ScriptedPeers.h"
#include "tests/support/ScriptedServer.h"

namespace lab {

using support::Connection;
using support::Frame;
using support::SsoReply;

/// A lab on a thread of its own; keeps the lines that it reports.
class LabRunner {
public:
    explicit LabRunner(Ports ports = {}, Timings timings = Short(), std::size_t frameBytes = maxPayloadBytes);
    ~LabRunner();
    /// Limits of three seconds where a test waits for their end, because a busy machine may stand still for
    /// one; clients that take nothing have the usual time.
    static Timings Short();

    unsigned short SsoPort() const { return lab->SsoPort(); }
    unsigned short ApiPort() const { return lab->ApiPort(); }
    unsigned short TunnelPort() const { return lab->TunnelPort(); }

    /// The lines so far that contain `text`.
    std::vector<std::string> Lines(const std::string& text);
    /// Waits for a line that contains `text`. @return whether it comes
    bool Tells(const std::string& text);
    std::string Totals();

    std::string AskSso(const std::string& json) const;
    std::string Token() const;
    /// One call of the API, such as "POST /clients/add", with a fresh token unless one is given.
    /// @return status and body of the answer
    std::pair<int, std::string> Call(const std::string& call, const std::string& body = "",
                                     const std::optional<std::string>& token = {}) const;

    /// The local port of a device's route, once there is one.
    unsigned short RoutePort(const std::string& deviceId, const std::string& service);

private:
    asio::io_context io;
    std::mutex mutex;
    std::vector<std::string> lines;
    std::unique_ptr<Lab> lab;
    std::thread thread;
};

/// Bodies for the API; `more` are members besides those that are always the same.
std::string ClientBody(const std::string& deviceId, const std::string& more = "");
std::string RouteBody(const std::string& deviceId, const std::string& more);
std::string Bytes(const Frame& frame);
/// A "verify" as a frame.
std::string VerifyBytes(const std::string& deviceId, const std::string& username, const std::string& password,
                        const std::string& method = "verify", const std::string& version = "1.0");

/// A device that has registered. It behaves well until a test makes it misbehave.
class ScriptedDevice {
public:
    explicit ScriptedDevice(LabRunner& labRunner, std::string id = "d1",
                            const std::vector<std::string>& services = {"web"});

    /// Connects to the tunnel server, another time if need be, and sends a good verify.
    void Connect();
    void SendControl(const std::string& json) { WriteControl(tunnel, password, json); }
    void SendData(const std::string& session, const std::string& bytes) {
        WriteFrame(tunnel, {dataFrame, session, bytes});
    }
    /// The session of the next control message. @throws std::runtime_error unless it is of that method and
    /// well signed
    std::string Expect(const std::string& method);
    /// A client of the service "web", and the id of its session.
    std::pair<Connection, std::string> Client();

    std::string deviceId, username, password;
    Connection tunnel;

private:
    LabRunner& runner;
};

}  // namespace lab
