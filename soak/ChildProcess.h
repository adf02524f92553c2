#pragma once

#include <array>
#include <asio.hpp>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/Process.h"

namespace soak {

/// A program whose output, both streams, is read line by line. It is killed with this object, and when the
/// thread that started it ends. The loop must not run any more once this object is gone, unless HasEnded.
class ChildProcess {
public:
    using OnLine = std::function<void(const std::string&)>;

    /// @param arguments, environment as in support::Process
    /// @param lineHandler called from the event loop, in the order of the lines
    /// @throws std::system_error when no process or pipe can be made
    ChildProcess(asio::io_context& io, std::vector<std::string> arguments,
                 std::vector<std::string> environment, OnLine lineHandler);

    support::Process& Process() { return *process; }
    const support::Process& Process() const { return *process; }
    /// Its output is closed, and the last line has been handled.
    bool HasEnded() const { return ended; }

private:
    void Read();
    void HandleLines();

    asio::readable_pipe output;
    std::optional<support::Process> process;
    std::array<char, 65536> chunk;
    std::string text;  // that is no whole line yet
    OnLine onLine;
    bool ended = false;
};

}  // namespace soak
