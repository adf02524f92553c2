#pragma once

#include <sys/types.h>

namespace soak {

/// Shuts down a process's TCP connection from or to that port, in both directions and without its doing, as a
/// fault of the network would. The process keeps its descriptor.
/// @return whether there was such a connection
/// @throws std::system_error when the system does not let us into the process: it has to be our child
bool BreakConnection(pid_t process, unsigned short port);

}  // namespace soak
