#pragma once

#include <string>
#include <vector>

#include "tests/support/LogCapture.h"
#include "tests/support/TunnelVerbs.h"
#include "tunnel/TunnelClient.h"

/// One Run of a TunnelClient against scripted tunnel servers.
namespace support {

nox::tunnel_client::TunnelConfig ConfigFor(unsigned short port);
/// Parts of a second instead of seconds: a run lasts one second, a heartbeat period 300 ms. All are `scale`
/// times longer, for ExpectInTime.
nox::tunnel_client::Delays QuickDelays(int scale = 1);

/// Runs against a server that plays one conversation for each connection; further connections are refused.
/// @return the log, without the lines that the refused connections leave
/// @throws what a conversation or the run throws
std::vector<std::string> RunTunnel(std::vector<Conversation> conversations,
                                   std::int32_t level = nox::tunnel_client::logInfo,
                                   const nox::tunnel_client::Delays& delays = QuickDelays());

/// Runs for as long as the server plays its part of one verified connection, and no longer. The delays are
/// the device's, so none of them ends within a test, except where a test shortens one. The server has as long
/// as on a device to answer the verify message, whatever `delays` say.
/// @return the log
/// @throws what the conversation throws
std::vector<std::string> DuringTunnel(const Conversation& play,
                                      std::int32_t level = nox::tunnel_client::logInfo,
                                      const nox::tunnel_client::Delays& delays = {});

/// An option of the agent's socket that is connected to that port; 0 when there is none.
int OptionOfSocketTo(unsigned short port, int level, int name);

/// The log of the run that is under way, for its conversations.
std::vector<std::string> LogSoFar();
/// Waits for a line of that log, by its text behind "] ".
void AwaitLog(const std::string& text);
/// Waits until the agent has nothing to do but to beat: the tunnel takes nothing, and no session may read
/// more. The run needs QuickBeats.
void AwaitStandstill();
nox::tunnel_client::Delays QuickBeats();  ///< a heartbeat in 30 ms, otherwise the device's delays

}  // namespace support
