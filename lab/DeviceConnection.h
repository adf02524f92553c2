#pragma once

#include <asio.hpp>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "lab/Buffers.h"
#include "lab/Directory.h"
#include "lab/Report.h"
#include "lab/Session.h"
#include "lab/Settings.h"
#include "lab/wire/ControlMessage.h"
#include "lab/wire/FrameReader.h"

namespace lab {

/// A device's connection to the tunnel server, and the sessions on it.
///
///   Start -> ReadMore <-> OnRead -> HandleFrame ...: frames from the device
///   Flush -> Write <-> OnWritten: frames to the device, those of all sessions in one stream
///
///   Verifying -- good "verify" --> Serving -- newer connection: "conflict" --> Farewell
///       |                             |                                            |
///       | bad or late, lost           | lost, or breaks the rules                  | read, or late
///       '-----------------------------'--------------------------------------------'--> Closed
///
/// Sessions that still have bytes to deliver outlive the socket, and the connection waits for them. All on
/// the event loop.
class DeviceConnection final : public std::enable_shared_from_this<DeviceConnection>, DeviceLink {
public:
    class Owner {
    public:
        virtual ~Owner() = default;
        virtual const Credentials* Find(const std::string& deviceId) const = 0;  ///< null: not registered
        virtual void OnVerified(DeviceConnection& connection) = 0;
        virtual void OnLost(
            DeviceConnection& connection) = 0;  ///< it was verified; it opens no more sessions
        virtual void OnOver(DeviceConnection& connection) = 0;  ///< it is closed, and its last session, too
    };

    DeviceConnection(asio::ip::tcp::socket device, Owner& connectionOwner, const Timings& labTimings,
                     std::size_t largestPayload, Report& reportOfLab);
    void Start();
    /// Joins a client to a service of this device, which must be verified.
    void OpenSession(const std::string& id, const Route& route, asio::ip::tcp::socket client);
    /// Tells the device that another connection of it has taken over, and closes this one.
    void Replace();
    void Stop(const std::string& reason);  ///< a second call does nothing
    void StopSessions();                   ///< at once; bytes that are not delivered yet are lost

    const std::string& DeviceId() const { return deviceId; }

private:
    enum class State { Verifying, Serving, Farewell, Closed };

    void ReadMore();
    void OnRead(std::error_code error, std::size_t size);
    void HandleFrames();
    void HandleFrame(const FrameReader::View& frame);
    void HandleData(const FrameReader::View& frame);
    void HandleVerify(const FrameReader::View& frame);
    void HandleControl(const ControlMessage& message);
    void SendControl(const std::vector<Member>& unsignedMessage);
    void Write();
    void OnWritten(std::error_code error, std::size_t size);
    void TellWhoWaits();
    void OnTimer(std::error_code error);
    void FinishSessions();
    void Leave(const std::string& reason);

    bool HasRoom() const override { return toDevice->Size() < deviceBacklogBytes; }
    void WaitForRoom(const std::shared_ptr<Session>& session) override { waiting.push_back(session); }
    std::size_t FrameBytes() const override { return frameBytes; }
    ByteBuffer& Frames() override { return toDevice->Back(); }
    void Flush() override;
    void SendEndSession(const std::shared_ptr<Session>& session) override;
    void Block(const std::string& id) override { blockers.insert(id); }
    void Unblock(const std::string& id) override;
    std::chrono::steady_clock::time_point LastBlocked() const override;
    bool HasOthers() const override { return sessions.size() > 1; }
    void Over(Session& session) override;

    std::string Name() const { return "device " + Word(deviceId); }

    State state = State::Verifying;
    asio::ip::tcp::socket socket;
    std::string peer;
    asio::steady_timer timer;  // limits Verifying, then Farewell
    Owner& owner;
    const Timings& timings;
    const std::size_t frameBytes;
    Report& report;

    // Both are set once the device is verified. The password stays the same when the device registers again.
    std::string deviceId;
    std::string password;
    bool reading = false, writing = false;
    std::shared_ptr<FrameReader> fromDevice = std::make_shared<FrameReader>();
    std::shared_ptr<Outbox> toDevice = std::make_shared<Outbox>();

    std::map<std::string, std::shared_ptr<Session>, std::less<>> sessions;
    std::set<std::string> blockers;  // sessions whose backlog stops the reading from the device
    std::chrono::steady_clock::time_point lastBlocked;
    std::deque<std::weak_ptr<Session>> waiting;  // for room
    // Sessions whose end_session has not left yet, each with its position in the stream to the device.
    std::deque<std::pair<std::uint64_t, std::weak_ptr<Session>>> endsOnTheWay;
};

}  // namespace lab
