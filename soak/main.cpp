#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <string_view>

#include "soak/Soak.h"

// tunnel-soak MINUTES SEED FOLDER: see scripts/soak.sh, which calls it.
namespace {

template <typename Number>
Number Read(std::string_view text, Number limit) {
    Number number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number > limit)
        throw std::invalid_argument("\"" + std::string(text) + "\" is no such number");
    return number;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) return std::cerr << "usage: tunnel-soak MINUTES SEED FOLDER\n", 2;
    try {
        const std::chrono::seconds length(60 * Read<std::uint32_t>(argv[1], 10000));
        const bool good = soak::Soak(length, Read<std::uint64_t>(argv[2], UINT64_MAX), argv[3]).Run();
        std::cout << (good ? "soak: PASSED" : "soak: FAILED") << std::endl;
        return good ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& error) {
        std::cerr << "tunnel-soak: " << error.what() << std::endl;
        return EXIT_FAILURE;
    }
}
