#include "soak/BreakConnection.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <asio.hpp>
#include <cerrno>
#include <filesystem>
#include <system_error>

namespace soak {

using asio::ip::tcp;

namespace {

int Checked(long result, const char* call) {
    if (result < 0) throw std::system_error(errno, std::generic_category(), call);
    return static_cast<int>(result);
}

bool Breaks(int descriptor, unsigned short port) {
    asio::io_context io;
    tcp::socket socket(io);
    std::error_code error;
    socket.assign(tcp::v4(), descriptor, error);
    const auto peer = socket.remote_endpoint(error);  // an error for files, pipes and listening sockets
    if (error) return false;
    const auto own = socket.local_endpoint(error);
    if (error || (peer.port() != port && own.port() != port)) return false;
    socket.shutdown(tcp::socket::shutdown_both, error);
    return true;
}

}  // namespace

bool BreakConnection(pid_t process, unsigned short port) {
    const int handle = Checked(syscall(SYS_pidfd_open, process, 0), "pidfd_open");
    bool isBroken = false;
    for (const auto& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/fd")) {
        if (!entry.is_socket()) continue;
        const long copy = syscall(SYS_pidfd_getfd, handle, std::stoi(entry.path().filename()), 0);
        if (copy < 0 && errno == EBADF) continue;  // closed meanwhile
        isBroken = Breaks(Checked(copy, "pidfd_getfd"), port) || isBroken;
    }
    close(handle);
    return isBroken;
}

}  // namespace soak
