#include "soak/KeyedStream.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace soak {

namespace {

constexpr std::uint64_t stride = 0x9E3779B97F4A7C15;  // odd, so that counting with it visits every value
constexpr std::size_t wordBytes = 8;

}  // namespace

// The finishing step of the generator "splitmix64".
std::uint64_t Mixed(std::uint64_t value) {
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EB;
    return value ^ (value >> 31);
}

KeyedStream::KeyedStream(std::uint64_t seed, std::uint64_t sessionNumber, Direction direction)
    : number(sessionNumber),
      key(Mixed(Mixed(seed) + stride * (2 * sessionNumber + static_cast<std::uint64_t>(direction)))) {}

std::uint64_t KeyedStream::Word(std::uint64_t index) const {
    return index == 0 ? number : Mixed(key + stride * index);
}

void KeyedStream::Fill(std::uint64_t position, char* bytes, std::size_t size) const {
    while (size > 0) {
        const std::uint64_t word = Word(position / wordBytes);
        const std::size_t offset = position % wordBytes, count = std::min(wordBytes - offset, size);
        std::memcpy(bytes, reinterpret_cast<const char*>(&word) + offset, count);
        position += count;
        bytes += count;
        size -= count;
    }
}

std::size_t KeyedStream::CountWrong(std::uint64_t position, std::string_view bytes) const {
    std::array<char, 4096> expected;
    std::size_t wrong = 0;
    while (!bytes.empty()) {
        const auto piece = bytes.substr(0, expected.size());
        Fill(position, expected.data(), piece.size());
        if (std::memcmp(piece.data(), expected.data(), piece.size()) != 0)
            for (std::size_t i = 0; i < piece.size(); ++i) wrong += piece[i] != expected[i] ? 1U : 0U;
        position += piece.size();
        bytes.remove_prefix(piece.size());
    }
    return wrong;
}

std::uint64_t KeyedStream::NumberIn(std::string_view firstBytes) {
    std::uint64_t number = 0;
    std::memcpy(&number, firstBytes.data(), sizeof number);
    return number;
}

}  // namespace soak
