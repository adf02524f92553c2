#include "lab/Report.h"

#include <algorithm>
#include <sstream>
#include <utility>

namespace lab {

void Report::Error(const std::string& text) {
    ++counters.errors;
    const auto now = std::chrono::steady_clock::now();
    if (now - second >= std::chrono::seconds(1)) {
        TellHowManyWereKeptBack();
        second = now;
        toldInSecond = 0;
    }
    ++toldInSecond <= errorLinesPerSecond ? sink("error " + text) : void(++keptBack);
}

void Report::TellHowManyWereKeptBack() {
    if (keptBack > 0) sink("error " + std::to_string(std::exchange(keptBack, 0)) + " more errors, not shown");
}

void Report::Totals() {
    TellHowManyWereKeptBack();
    std::ostringstream line;
    line << "report devices=" << counters.devices << " routes=" << counters.routes
         << " sessions=" << counters.sessions << " opened=" << counters.opened
         << " to-device=" << counters.toDevice << " from-device=" << counters.fromDevice
         << " errors=" << counters.errors;
    sink(line.str());
}

std::string Word(std::string_view text) {
    std::string word(text.substr(0, 200));
    const auto isStrange = [](char c) { return c <= ' ' || c > '~'; };
    std::replace_if(word.begin(), word.end(), isStrange, '_');
    return word;
}

}  // namespace lab
