#include "tests/support/LogText.h"

#include <sstream>
#include <stdexcept>

namespace support {

namespace {

double SecondOfTheDay(const std::string& log, const std::string& text) {
    const auto at = log.find(text);
    if (at == std::string::npos) throw std::runtime_error(text + " is missing in\n" + log);
    int hours = 0, minutes = 0;
    double seconds = 0;
    char colon = ':';
    std::istringstream(log.substr(log.rfind('\n', at) + 1)) >> hours >> colon >> minutes >> colon >> seconds;
    return hours * 3600 + minutes * 60 + seconds;
}

}  // namespace

std::size_t Count(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
}

// A second backwards is no midnight: the log reads two clocks for one line.
double SecondsBetween(const std::string& log, const std::string& from, const std::string& to) {
    const double seconds = SecondOfTheDay(log, to) - SecondOfTheDay(log, from);
    return seconds < -1 ? seconds + 86400 : seconds;
}

}  // namespace support
