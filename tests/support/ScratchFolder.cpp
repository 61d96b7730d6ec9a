#include "tests/support/ScratchFolder.h"

#include <cstdlib>

namespace ostrand_test {

namespace fs = std::filesystem;

ScratchFolder::ScratchFolder(const std::string& name)
{
    std::string pattern = (fs::temp_directory_path() / (name + "-XXXXXX")).string();
    if (::mkdtemp(pattern.data()) != nullptr) {
        m_path = pattern;
    }
}

ScratchFolder::~ScratchFolder()
{
    if (m_path.empty()) {
        return;
    }
    std::error_code ignored;
    fs::permissions(m_path, fs::perms::owner_all, fs::perm_options::add, ignored);
    fs::remove_all(m_path, ignored);
}

} // namespace ostrand_test
