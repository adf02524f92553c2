#pragma once

#include <map>
#include <string>
#include <vector>

#include "tests/support/ScriptedPeers.h"

/// What a scripted tunnel server does, one call for each step of its conversation.
namespace support {

inline const std::string password = "secret";
inline const std::string sessionId = "session-00000001";

/// Reads the verify message and answers with a signed "message". @return the verify message's JSON text
std::string Accept(Connection& agent);
/// Ends our half in order and waits until the agent has closed: everything sent before is read.
void HangUp(Connection& agent);

/// A frame as bytes; those of several may be written in one segment.
std::string Bytes(const Frame& frame);
/// The same of a signed control frame.
std::string Control(const std::string& json);
std::string NewSessionText(unsigned short port, const std::string& id = sessionId);
std::string EndSessionText(const std::string& id = sessionId);

/// Sends a signed control frame.
void Say(Connection& agent, const std::string& json);
/// Asks for a session with a service on 127.0.0.1.
void NewSession(Connection& agent, unsigned short port, const std::string& id = sessionId);
void EndSession(Connection& agent, const std::string& id = sessionId);
/// Asks for a session to a host without an address, which ends the run of the agent's tunnel at once, with
/// all that is open.
void EndTheRun(Connection& agent);
void SendData(Connection& agent, const std::string& payload, const std::string& id = sessionId);

/// The next frame with a session's data.
Frame ReadData(Connection& agent);
/// Reads up to the next heartbeat.
void AwaitHeartbeat(Connection& agent);

/// Frames of the agent: data by session, control messages in order, without the members that signing adds.
struct Heard {
    std::map<std::string, std::string> data;
    std::vector<std::string> control;
};
/// Everything until `ends` sessions are reported as disconnected.
Heard Listen(Connection& agent, int ends);

/// A text of numbers that tell where in it they stand: two parts that change places are seen.
std::string Numbered(std::size_t bytes);
std::string Megabytes(std::size_t count);  ///< of numbered text

/// A conversation for each connection of a long test.
std::vector<Conversation> Always(const Conversation& conversation);

}  // namespace support
