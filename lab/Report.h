#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace lab {

/// What happened since the start. The first three are what is there now.
struct Counters {
    std::size_t devices = 0;                     ///< connected
    std::size_t routes = 0;                      ///< with a local port
    std::size_t sessions = 0;                    ///< open or still closing
    std::uint64_t opened = 0;                    ///< sessions, ever
    std::uint64_t toDevice = 0, fromDevice = 0;  ///< payload bytes of sessions
    std::uint64_t errors = 0;
};

/// What the lab tells its engineer, one event a line. On the event loop only.
class Report {
public:
    using Sink = std::function<void(const std::string& line)>;
    explicit Report(Sink lineSink) : sink(std::move(lineSink)) {}

    Counters counters;

    void Event(const std::string& line) { sink(line); }
    /// Counts what a peer did wrong and tells of it, but not of more than errorLinesPerSecond: a device that
    /// errs in a loop must not take the terminal away. How many were kept back is told with the next one, or
    /// with the totals.
    void Error(const std::string& text);
    void Totals();

    static constexpr int errorLinesPerSecond = 20;

private:
    void TellHowManyWereKeptBack();

    Sink sink;
    std::chrono::steady_clock::time_point second;  // the errors told since then: toldInSecond
    int toldInSecond = 0;
    std::uint64_t keptBack = 0;
};

/// A text from outside as one word of a line: what is not printable ASCII becomes '_', and it
/// is cut at 200 bytes.
std::string Word(std::string_view text);

}  // namespace lab
