#pragma once

#include <poll.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bench/load/Client.h"

namespace load {

/// Sessions that all move the same number of bytes in one direction, each as fast as it can.
class Streams {
public:
    Streams(std::size_t count, const std::string& direction);
    void Move(std::uint64_t bytesEach);

private:
    std::size_t MoveWhatIsReady();
    void MoveSome(tcp::socket& socket, std::uint64_t& bytes);

    std::vector<tcp::socket> sockets;
    bool isUpload;
    std::vector<pollfd> watched;
    std::vector<std::uint64_t> left;
    std::string buffer = std::string(chunkBytes, '.');
};

}  // namespace load
