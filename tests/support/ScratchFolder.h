// A fresh folder under the temporary folder for one test, removed with it
// (read-only entries the test left behind included).
#pragma once

#include <filesystem>
#include <string>

namespace ostrand_test {

class ScratchFolder {
public:
    // NAME-XXXXXX under the temporary folder; an empty path if it cannot be made.
    explicit ScratchFolder(const std::string& name);
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    const std::filesystem::path& path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

} // namespace ostrand_test
