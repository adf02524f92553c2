// Control messages, one a line, each signed as the server would sign it. A line such as "+5" lets 5 seconds
// pass.
#include <cstdlib>
#include <sstream>

#include "fuzz/TunnelRun.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    std::istringstream lines(std::string(reinterpret_cast<const char*>(data), size));
    fuzz::Stream stream;
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind('+', 0) == 0) {
            stream.WaitSeconds(static_cast<unsigned>(std::strtoul(&line[1], nullptr, 10)));
        } else {
            stream.SendControl(line);
        }
    }
    fuzz::RunTunnel(stream, SIZE_MAX);
    return 0;
}
