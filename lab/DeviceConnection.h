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
///   Start -> ReadMore <-> OnRead -> HandleFrame ...: what comes from the device
///   Flush -> Write <-> OnWritten: what goes to it, everybody's frames in one stream
///
///   Verifying -- good "verify" --> Serving -- newer connection: "conflict" --> Farewell
///       |                             |                                            |
///       | bad or late, lost           | lost, or breaks the rules                  | read, or late
///       '-----------------------------'--------------------------------------------'--> Closed
///
/// Sessions that still have something to deliver live on when it is closed; then it waits for them. All on
/// the event loop.
class DeviceConnection final : public std::enable_shared_from_this<DeviceConnection>, DeviceLink {
public:
    class Owner {
    public:
        virtual ~Owner() = default;
        virtual const Credentials* Find(const std::string& deviceId) const = 0;  ///< null: not registered
        virtual void OnVerified(DeviceConnection& connection) = 0;
        virtual void OnLost(DeviceConnection& connection) = 0;  ///< a verified one; it opens no more sessions
        virtual void OnOver(DeviceConnection& connection) = 0;  ///< closed, and the last session too
    };

    DeviceConnection(asio::ip::tcp::socket device, Owner& connectionOwner, const Timings& labTimings,
                     std::size_t largestPayload, Report& reportOfLab);
    void Start();
    /// Joins a client to a service of this device, which must be verified.
    void OpenSession(const std::string& id, const Route& route, asio::ip::tcp::socket client);
    /// Tells the device that another connection of it has taken over, and closes.
    void Replace();
    void Stop(const std::string& reason);  ///< once is enough, twice is harmless
    void StopSessions();                   ///< at once, what is left to deliver is lost

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
    asio::steady_timer timer;  // the limit of Verifying, then of Farewell
    Owner& owner;
    const Timings& timings;
    const std::size_t frameBytes;
    Report& report;

    std::string
        deviceId;  // once verified, as is the password, which stays ours when the device registers anew
    std::string password;
    bool reading = false, writing = false;
    std::shared_ptr<FrameReader> fromDevice = std::make_shared<FrameReader>();
    std::shared_ptr<Outbox> toDevice = std::make_shared<Outbox>();

    std::map<std::string, std::shared_ptr<Session>, std::less<>> sessions;
    std::set<std::string> blockers;  // sessions with so much to deliver that nothing more is read
    std::chrono::steady_clock::time_point lastBlocked;
    std::deque<std::weak_ptr<Session>> waiting;                                 // for room
    std::deque<std::pair<std::uint64_t, std::weak_ptr<Session>>> endsOnTheWay;  // with the position of each
};

}  // namespace lab
