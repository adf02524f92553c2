#pragma once

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "lab/wire/ControlMessage.h"
#include "lab/wire/FrameReader.h"
#include "soak/storm/Opening.h"

namespace storm {

/// Reads what the agent sends, and checks all of it: frames, signatures, the order of messages, and the bytes
/// of the sessions. Knows no socket.
///
/// When an id was opened twice, everything before the second connected-session belongs to the first opening,
/// because the agent drops the first session when it queues that message, and its queue keeps the order.
class Hearing {
public:
    /// @param faultHandler called with the text of each fault
    explicit Hearing(std::function<void(const std::string&)> faultHandler);

    /// The agent will be asked for this opening. To be called in the order in which it is asked.
    void Expect(Opening& opening);
    char* Room(std::size_t bytes) { return reader.Room(bytes); }
    /// @param hasSigned whether the server has begun to send a signed message
    void Received(std::size_t bytes, bool hasSigned);
    bool IsVerified() const { return isVerified; }
    std::uint64_t Bytes() const { return bytesOfSessions; }

private:
    void Handle(const lab::FrameReader::View& frame, bool hasSigned);
    void HandleData(const lab::FrameReader::View& frame);
    void HandleControl(const std::string& json);
    void HandleVerify(const lab::ControlMessage& message, const std::string& json);
    void HandleConnected(const std::string& id);
    void HandleDisconnected(const std::string& id);

    std::function<void(const std::string&)> onFault;
    lab::FrameReader reader;
    bool isVerified = false;  // the verify message has come
    std::uint64_t bytesOfSessions = 0;
    std::map<std::string, std::deque<Opening*>> expected;  // by id
    std::map<std::string, Opening*> connected;             // by id: the last one
    std::map<std::string, Opening*, std::less<>> onWire;   // by the id in the headers
};

/// The id as the header of a data frame carries it.
std::string IdOnWire(const std::string& id);

}  // namespace storm
