// The file system of a fake machine: directories, regular files, device
// nodes with their models, and symbolic links with their targets.
#pragma once

#include "host/models/DeviceModel.h"

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Vantrel {
namespace Ostrand {
namespace host {

class FakeFileTree {
public:
    struct Entry {
        Entry(unsigned char entryType, std::shared_ptr<DeviceModel> entryModel)
            : type(entryType), model(std::move(entryModel))
        {
        }
        unsigned char type; // DT_REG, DT_DIR, DT_LNK, DT_CHR, DT_BLK
        std::shared_ptr<DeviceModel> model;
        int openError = 0;
        std::string target; // of a link, as written: absolute or relative to its directory
    };

    FakeFileTree();
    // A listing points at the entries of its own tree: a tree is not copied.
    FakeFileTree(const FakeFileTree&) = delete;
    FakeFileTree& operator=(const FakeFileTree&) = delete;
    // Parent directories are implied. Adding a path again replaces its entry
    // and keeps its place in the listing.
    void add(const std::string& path, Entry entry);
    // The entry at a path, links not followed; null if there is none.
    const Entry* find(const std::string& path) const;
    Entry* find(const std::string& path);
    // The entry a path leads to, links followed (40 at most, as the kernel
    // allows); null for a path that leads nowhere. `resolved` gets its path.
    const Entry* follow(const std::string& path, std::string* resolved = nullptr) const;
    // Names and types of a directory's entries, with "." and "..", in the
    // order of adding.
    std::vector<std::pair<std::string, unsigned char>> children(const std::string& directory) const;

    static std::string normalise(const std::string& path);
    static std::string parentOf(const std::string& path);
    static std::string baseOf(const std::string& path);

private:
    std::map<std::string, Entry> m_entries;
    // Directory to names and their entries, in order of adding. An entry that
    // is added again is replaced in place, so the pointer stays good.
    std::map<std::string, std::vector<std::pair<std::string, const Entry*>>> m_children;
};

} // namespace host
} // namespace Ostrand
} // namespace Vantrel
