#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "lab/wire/ControlMessage.h"
#include "lab/wire/Frame.h"
#include "lab/wire/Signing.h"

namespace lab {

/// The bytes of the page's hex block: 16 columns of two digits a line, then the same as text.
std::string WorkedExample() {
    std::ifstream page(PROTOCOL_PAGE);
    std::string bytes, line;
    while (std::getline(page, line) && line != "```hex") continue;
    while (std::getline(page, line) && line != "```") {
        std::istringstream columns(line.substr(0, 48));
        for (unsigned value = 0; columns >> std::hex >> value;) bytes += static_cast<char>(value);
    }
    return bytes;
}

TEST(ProtocolPageTest, TheWorkedExampleIsWhatTheLabSends) {
    const std::string payload =
        Sign("bench-secret", NewSession("0000000000000001", 8080), {"1700000000000", "AbCdEfGhIjKlMnOp"});
    const auto header = EncodeHeader(controlFrame, payload.size(), noSession);
    EXPECT_EQ(WorkedExample(), std::string(header.begin(), header.end()) + payload);
}

}  // namespace lab
