#pragma once

#include <sys/types.h>

#include <array>
#include <asio.hpp>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace soak {

/// A program of ours whose output, both streams, is read line by line. It is killed with this
/// object, and when the thread that started it ends. The loop must not run on between the end
/// of this object and the output's.
class ChildProcess {
public:
    using OnLine = std::function<void(const std::string&)>;

    /// @param arguments the program's path first
    /// @param environment "NAME=value" each, and nothing else
    /// @param lineHandler called from the event loop, in the order of the lines
    /// @throws std::system_error when no process or pipe can be made; a program that cannot be
    /// run ends with 127
    ChildProcess(asio::io_context& io, std::vector<std::string> arguments,
                 std::vector<std::string> environment, OnLine lineHandler);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    void Signal(int number) const;
    bool HasEnded() const { return ended; }  ///< its output has, and the last line has been handled

    /// Of the running process.
    std::size_t Descriptors() const;
    std::size_t Status(const char* field) const;  ///< a number of its /proc status, such as "Threads", or 0

private:
    void Read();
    void TellLines();

    pid_t pid = -1;
    asio::posix::stream_descriptor output;
    std::array<char, 65536> chunk;
    std::string text;  // that is no whole line yet
    OnLine onLine;
    bool ended = false;
};

}  // namespace soak
