#pragma once

#include <cstddef>
#include <string>

/// Questions to the text of an agent's log.
namespace support {

/// How often `text` contains `part`.
std::size_t Count(const std::string& text, const std::string& part);

/// From the first line with `from` to the first line with `to`, by the log's own times.
/// @throws std::runtime_error when one of them is missing
double SecondsBetween(const std::string& log, const std::string& from, const std::string& to);

}  // namespace support
