#include "tests/support/TemporaryFolder.h"

#include <stdlib.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <system_error>

namespace support {

TemporaryFolder::TemporaryFolder() {
    std::string name = std::filesystem::temp_directory_path() / "tunnel-test-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) throw std::system_error(errno, std::generic_category(), name);
    path = name;
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;  // a folder left behind is no reason to end the test run
    std::filesystem::remove_all(path, ignored);
}

std::string TemporaryFolder::Write(const std::string& name, const std::string& content) const {
    const std::filesystem::path file = path / name;
    std::ofstream(file, std::ios::binary) << content;
    return file;
}

std::string ReadFile(const std::filesystem::path& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

}  // namespace support
