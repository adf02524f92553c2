#include "lab/RandomText.h"

#include <random>
#include <string_view>

namespace lab {

std::string RandomText(std::size_t characters) {
    static constexpr std::string_view alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    std::random_device source;
    std::uniform_int_distribution<std::size_t> positions(0, alphabet.size() - 1);
    std::string text;
    while (text.size() < characters) text += alphabet[positions(source)];
    return text;
}

}  // namespace lab
