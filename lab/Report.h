#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace lab {

/// The first three count what exists now, the others what has happened since the start.
struct Counters {
    std::size_t devices = 0;                     ///< connected
    std::size_t routes = 0;                      ///< with a local port
    std::size_t sessions = 0;                    ///< open or still closing
    std::uint64_t opened = 0;                    ///< all sessions since the start
    std::uint64_t toDevice = 0, fromDevice = 0;  ///< payload bytes of sessions
    std::uint64_t errors = 0;
};

/// Reports events to the engineer, one on each line. On the event loop only.
class Report {
public:
    using Sink = std::function<void(const std::string& line)>;
    explicit Report(Sink lineSink) : sink(std::move(lineSink)) {}

    Counters counters;

    void Event(const std::string& line) { sink(line); }
    /// Counts a peer's fault and reports it, but at most errorLinesPerSecond of them, so that a device that
    /// errs in a loop does not flood the terminal. The number of those that were not shown is reported with a
    /// later one or with the totals.
    void Error(const std::string& text);
    void Totals();

    static constexpr int errorLinesPerSecond = 20;

private:
    void TellHowManyWereKeptBack();

    Sink sink;
    std::chrono::steady_clock::time_point
        second;  // when the current second began; it has had toldInSecond errors
    int toldInSecond = 0;
    std::uint64_t keptBack = 0;
};

/// A text from outside as one word of a line: every byte that is not printable ASCII becomes '_', and the
/// text is cut at 200 bytes.
std::string Word(std::string_view text);

}  // namespace lab
