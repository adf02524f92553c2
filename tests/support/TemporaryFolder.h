#pragma once

#include <filesystem>
#include <string>

namespace support {

/// A fresh folder below the system's temporary one, removed with everything in it.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::filesystem::path& Path() const { return path; }
    /// Writes a file of that name. @return its path
    std::string Write(const std::string& name, const std::string& content) const;

private:
    std::filesystem::path path;
};

/// The whole content of a file; "" when it cannot be read.
std::string ReadFile(const std::filesystem::path& path);

}  // namespace support
