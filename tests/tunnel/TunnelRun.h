#pragma once

#include <map>
#include <string>
#include <vector>

#include "log/Log.h"
#include "tests/support/ScriptedPeers.h"
#include "tunnel/TunnelClient.h"

/// One Run of a TunnelClient against scripted tunnel servers.
namespace support {

inline const std::string password = "secret";
inline const std::string sessionId = "session-00000001";

/// Milliseconds instead of seconds; a heartbeat period of 300.
nox::tunnel_client::TunnelConfig QuickConfig(unsigned short port);
nox::tunnel_client::Delays QuickDelays();

/// Runs against a server that plays one conversation for each connection; further connections are refused.
/// @return the log, without the lines that the refused connections leave
/// @throws what a conversation or the run throws
std::vector<std::string> RunTunnel(std::vector<support::Conversation> conversations,
                                   std::int32_t level = nox::tunnel_client::logInfo,
                                   const nox::tunnel_client::Delays& delays = QuickDelays());

/// The server's side: reads the verify message and answers with a signed "message".
void Accept(support::Connection& agent);
/// Ends our half in order and waits until the agent has closed: everything sent before is read.
void HangUp(support::Connection& agent);
/// A frame as bytes; those of several may be written in one segment.
std::string Bytes(const support::Frame& frame);
/// The same of a signed control frame.
std::string Control(const std::string& json);
void Say(support::Connection& agent, const std::string& json);
/// The "new_session" for the id above, or another, on 127.0.0.1; and for a server that says it.
std::string NewSessionText(unsigned short port, const std::string& id = sessionId);
void NewSession(support::Connection& agent, unsigned short port, const std::string& id = sessionId);

/// What the agent says: data by session, control messages in order, without what signing adds.
struct Heard {
    std::map<std::string, std::string> data;
    std::vector<std::string> control;
};
/// Everything until `ends` sessions are reported as disconnected.
Heard Listen(support::Connection& agent, int ends);

/// An option of the agent's socket that is connected to that port; 0 when there is none.
int OptionOfSocketTo(unsigned short port, int level, int name);

std::string Megabytes(std::size_t count);  ///< of one letter

}  // namespace support
