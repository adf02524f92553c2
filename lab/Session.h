#pragma once

#include <asio.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "lab/Buffers.h"
#include "lab/Report.h"
#include "lab/RouteTable.h"
#include "lab/Settings.h"

namespace lab {

class Session;

/// The device's connection, as its sessions see it.
class DeviceLink {
public:
    virtual ~DeviceLink() = default;
    virtual bool HasRoom() const = 0;  ///< for another frame of data
    /// Calls the session's ReadMore once, as soon as there is room.
    virtual void WaitForRoom(const std::shared_ptr<Session>& session) = 0;
    virtual std::size_t FrameBytes() const = 0;  ///< the largest payload of a frame
    virtual ByteBuffer& Frames() = 0;            ///< takes whole frames; Flush sends them
    virtual void Flush() = 0;
    /// Calls the session's OnEndSent when all of the session's data and then the message have left.
    virtual void SendEndSession(const std::shared_ptr<Session>& session) = 0;
    /// Nothing more is read from the device, for any session, until the session unblocks it.
    virtual void Block(const std::string& id) = 0;
    virtual void Unblock(const std::string& id) = 0;
    /// When the last session unblocked the device; the current time while it is blocked.
    virtual std::chrono::steady_clock::time_point LastBlocked() const = 0;
    virtual bool HasOthers() const = 0;  ///< whether there are sessions besides the one that asks
    virtual void Over(Session& session) = 0;
};

/// One client of one route, joined to the device's service by frames that carry the session's id.
///
///   Start -> ReadMore <-> OnReadable: client to device, while the device's connection has room
///   Deliver -> Write <-> OnWritten: device to client; too many waiting bytes block the whole device
///
///   Open --- client's end: end_session ---> Ending ---- quiet --------------------> Closed
///     |  \-- client lost or dropped: end_session --> Discarding --- quiet --------> Closed
///     \----- device's end ---> Finishing --- all delivered, FIN ---> Draining ----> Closed
///
/// Ending still delivers the device's late bytes; Discarding only counts them. All on the event loop.
class Session : public std::enable_shared_from_this<Session> {
public:
    Session(std::string sessionId, const Route& sessionRoute, asio::ip::tcp::socket client,
            DeviceLink& deviceLink, const Timings& labTimings, Report& reportOfLab);
    void Start();
    void ReadMore();
    void Deliver(std::string_view bytes);
    void OnEndSent();
    /// The device has ended the session, or its connection is lost: the client gets all bytes that have
    /// arrived.
    void Finish();
    void Stop();  ///< ends at once; bytes that the client has not taken are lost

    const std::string& Id() const { return id; }

private:
    enum class State { Open, Ending, Discarding, Finishing, Draining, Closed };
    using Clock = std::chrono::steady_clock;

    void OnReadable(std::error_code error);
    std::error_code ReadFrames();
    void OnClientDone();
    void LoseClient(const char* who);
    void Write();
    void OnWritten(std::error_code error, std::size_t size);
    void OnAllDelivered();
    void StopWriting();
    void End(State next, const char* who);
    void WaitForQuiet(Clock::time_point since);
    void OnQuietOver(std::error_code error);
    bool OwesClient(Clock::time_point now);
    void LogStalled();
    void WatchForStall();
    void OnStallCheck(std::error_code error);
    void SetBlocking(bool blocks);
    void Close();

    std::string id;
    Route route;
    asio::ip::tcp::socket socket;
    asio::steady_timer quietTimer, stallTimer;
    DeviceLink& link;
    const Timings& timings;
    Report& report;

    State state = State::Open;
    const char* endedBy = "lab";
    bool reading = false;        // a wait for the client's bytes is outstanding
    bool writing = false;        // a write is outstanding, or will be started soon
    bool blocking = false;       // the device is not read because of this session
    bool watching = false;       // the stall timer runs
    bool clientDone = false;     // the client has ended its half, or is lost
    bool clientRefuses = false;  // a write has failed; what the client sent before is still read
    std::shared_ptr<Outbox> toClient = std::make_shared<Outbox>();
    Clock::time_point lastArrival;   // of bytes from the device, since the session is not open any more
    Clock::time_point lastProgress;  // when the client last took bytes
    int lastUnacknowledged = 0;      // bytes of the client, when the quiet timer last expired
    std::uint64_t sentToDevice = 0, gotFromDevice = 0;
};

}  // namespace lab
