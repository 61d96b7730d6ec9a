#include "host/fake/FakeFileTree.h"

#include <dirent.h>

namespace Vantrel {
namespace Ostrand {
namespace host {

std::string FakeFileTree::normalise(const std::string& path)
{
    // Most paths are written clean: no double slash, no slash at the end.
    if (path.find("//") == std::string::npos && (path.size() <= 1 || path.back() != '/')) {
        return path;
    }
    std::string result;
    result.reserve(path.size());
    for (char c : path) {
        if (c == '/' && !result.empty() && result.back() == '/') {
            continue;
        }
        result += c;
    }
    while (result.size() > 1 && result.back() == '/') {
        result.pop_back();
    }
    return result;
}

std::string FakeFileTree::parentOf(const std::string& path)
{
    std::string trimmed = normalise(path);
    size_t slash = trimmed.rfind('/');
    if (slash == std::string::npos || slash == 0) {
        return "/";
    }
    return trimmed.substr(0, slash);
}

std::string FakeFileTree::baseOf(const std::string& path)
{
    std::string trimmed = normalise(path);
    size_t slash = trimmed.rfind('/');
    return slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
}

FakeFileTree::FakeFileTree() { m_entries.emplace("/", Entry{DT_DIR, nullptr}); }

void FakeFileTree::add(const std::string& rawPath, Entry entry)
{
    std::string path = normalise(rawPath);
    if (path.empty() || path == "/") {
        return;
    }
    std::string parent = parentOf(path);
    if (m_entries.find(parent) == m_entries.end()) {
        add(parent, Entry{DT_DIR, nullptr});
    }
    auto it = m_entries.find(path);
    if (it == m_entries.end()) {
        const Entry& added = m_entries.emplace(path, std::move(entry)).first->second;
        m_children[parent].emplace_back(baseOf(path), &added);
    } else {
        it->second = std::move(entry);
    }
}

const FakeFileTree::Entry* FakeFileTree::find(const std::string& path) const
{
    auto it = m_entries.find(normalise(path));
    return it == m_entries.end() ? nullptr : &it->second;
}

FakeFileTree::Entry* FakeFileTree::find(const std::string& path)
{
    auto it = m_entries.find(normalise(path));
    return it == m_entries.end() ? nullptr : &it->second;
}

namespace {

// Joins a link's target to the directory the link is in, and folds "." and "..".
std::string joinTarget(const std::string& directory, const std::string& target)
{
    std::string whole = target.empty() || target[0] == '/' ? target : directory + "/" + target;
    std::vector<std::string> parts;
    size_t start = 0;
    while (start <= whole.size()) {
        size_t end = whole.find('/', start);
        std::string part = whole.substr(start, end == std::string::npos ? std::string::npos : end - start);
        start = end == std::string::npos ? whole.size() + 1 : end + 1;
        if (part.empty() || part == ".") {
            continue;
        }
        if (part == "..") {
            if (!parts.empty()) {
                parts.pop_back();
            }
            continue;
        }
        parts.push_back(part);
    }
    std::string result;
    for (const auto& part : parts) {
        result += "/" + part;
    }
    return result.empty() ? "/" : result;
}

} // namespace

const FakeFileTree::Entry* FakeFileTree::follow(const std::string& rawPath, std::string* resolved) const
{
    std::string path = normalise(rawPath);
    for (int hops = 0; hops <= 40; ++hops) {
        const Entry* entry = find(path);
        if (entry == nullptr) {
            return nullptr;
        }
        if (entry->type != DT_LNK) {
            if (resolved != nullptr) {
                *resolved = path;
            }
            return entry;
        }
        if (entry->target.empty()) {
            return nullptr; // a link whose target was never described leads nowhere
        }
        path = joinTarget(parentOf(path), entry->target);
    }
    return nullptr;
}

std::vector<std::pair<std::string, unsigned char>> FakeFileTree::children(const std::string& directory) const
{
    std::vector<std::pair<std::string, unsigned char>> result;
    result.emplace_back(".", DT_DIR);
    result.emplace_back("..", DT_DIR);
    std::string key = normalise(directory);
    auto it = m_children.find(key);
    if (it == m_children.end()) {
        return result;
    }
    result.reserve(2 + it->second.size());
    for (const auto& child : it->second) {
        result.emplace_back(child.first, child.second->type);
    }
    return result;
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel
