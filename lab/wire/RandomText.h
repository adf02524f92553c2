#pragma once

#include <string>

namespace lab {

/// Random letters and digits that nobody can guess, for nonces, tokens and passwords.
std::string RandomText(std::size_t characters);

}  // namespace lab
