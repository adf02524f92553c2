#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "log/Log.h"
#include "tests/support/TemporaryFolder.h"

namespace support {

/// Logs into a temporary file, without time stamps, for as long as it lives.
class LogCapture {
public:
    explicit LogCapture(std::int32_t level = nox::tunnel_client::logVerbose);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// Every line so far as "[source:number] text", without the "LOG START" line.
    std::vector<std::string> Lines() const;
    /// The same without "[source:number] ".
    std::vector<std::string> Texts() const;
    /// How many texts are exactly `text`.
    std::size_t Count(const std::string& text) const;

private:
    TemporaryFolder folder;
    std::string basePath;
};

}  // namespace support
