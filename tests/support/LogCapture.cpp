#include "tests/support/LogCapture.h"

#include <algorithm>
#include <set>
#include <sstream>

namespace support {

using namespace nox::tunnel_client;

LogCapture::LogCapture(std::int32_t level) : basePath(folder.Path() / "captured") {
    LogStart(basePath.c_str(), level, 0);
}

LogCapture::~LogCapture() {
    LogStart(nullptr, logOff, 0);  // the logger must not keep our base path
    LogStop();
}

std::vector<std::string> LogCapture::Lines() const {
    // More than one file when the test made the logger switch; their names sort by time.
    std::set<std::filesystem::path> files;
    for (const auto& file : std::filesystem::directory_iterator(folder.Path())) files.insert(file.path());
    std::vector<std::string> lines;
    for (const auto& file : files) {
        std::istringstream content(ReadFile(file));
        for (std::string line; std::getline(content, line);) {
            if (line.rfind("LOG START ", 0) != 0) lines.push_back(line);
        }
    }
    return lines;
}

std::vector<std::string> LogCapture::Texts() const {
    std::vector<std::string> texts = Lines();
    for (std::string& text : texts) text.erase(0, text.find("] ") + 2);
    return texts;
}

std::size_t LogCapture::Count(const std::string& text) const {
    const std::vector<std::string> texts = Texts();
    return static_cast<std::size_t>(std::count(texts.begin(), texts.end(), text));
}

}  // namespace support
