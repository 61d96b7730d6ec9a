// Drives the library as the framework does: the singleton, one finder per
// class, Next until it returns 0, then the free.
#pragma once

#include <array>
#include <atomic>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

namespace ostrand_tool {

// One record as read back through getValue.
struct Row {
    std::string finder;
    std::array<std::string, 13> values;
    int value = 0;
    const std::string& get(const std::string& key) const;
};

extern const std::array<const char*, 13> kKeys;

// The finders of a class name; "all" gives every board finder. False for an unknown name.
bool classesFor(const std::string& name, std::vector<std::string>& classes);
std::string classNames();

// Elapsed seconds on stderr while a finder runs, when stderr is a terminal.
class Progress {
public:
    explicit Progress(bool enabled) : m_enabled(enabled) {}
    ~Progress() { stop(); }
    void start(const std::string& what);
    void stop();

private:
    bool m_enabled;
    std::atomic<bool> m_running{false};
    std::thread m_thread;
};

// Runs the finders of `classes` in order. A finder that throws (an SMBIOS
// table that cannot be read without root, say) gives no rows; its reason goes
// to `notes` if that is not null.
std::vector<Row> enumerate(const std::vector<std::string>& classes, Progress& progress, std::ostream* notes);

} // namespace ostrand_tool
