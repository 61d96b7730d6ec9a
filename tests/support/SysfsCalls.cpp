#include "tests/support/SysfsCalls.h"

#include <sysfs/libsysfs.h>

#include <dlfcn.h>
#include <stdexcept>

namespace ostrand_test {

namespace {

bool g_recording = false;
int g_depth = 0;
std::vector<std::string> g_calls;

// One call: recorded unless it comes from inside another recorded function.
class Call {
public:
    explicit Call(const char* name)
    {
        if (g_recording && g_depth == 0) {
            g_calls.push_back(name);
        }
        ++g_depth;
    }
    ~Call() { --g_depth; }
};

// libsysfs's own definition of a function.
template <typename Function>
Function next(const char* name)
{
    void* found = ::dlsym(RTLD_NEXT, name);
    if (found == nullptr) {
        throw std::logic_error(std::string("libsysfs has no ") + name);
    }
    return reinterpret_cast<Function>(found);
}

} // namespace

SysfsCalls::SysfsCalls()
{
    g_calls.clear();
    g_recording = true;
}

SysfsCalls::~SysfsCalls() { g_recording = false; }

const std::vector<std::string>& SysfsCalls::calls() const { return g_calls; }

} // namespace ostrand_test

// Each function as libsysfs declares it: record, then hand on.
#define OSTRAND_RECORDED(result, name, parameters, arguments)                                                          \
    extern "C" result name parameters                                                                                  \
    {                                                                                                                  \
        ostrand_test::Call call(#name);                                                                                \
        static auto real = ostrand_test::next<result(*) parameters>(#name);                                            \
        return real arguments;                                                                                         \
    }

OSTRAND_RECORDED(int, sysfs_get_mnt_path, (char* mnt_path, size_t len), (mnt_path, len))
OSTRAND_RECORDED(struct sysfs_bus*, sysfs_open_bus, (const char* name), (name))
OSTRAND_RECORDED(void, sysfs_close_bus, (struct sysfs_bus * bus), (bus))
OSTRAND_RECORDED(struct dlist*, sysfs_get_bus_devices, (struct sysfs_bus * bus), (bus))
OSTRAND_RECORDED(struct dlist*, sysfs_get_bus_drivers, (struct sysfs_bus * bus), (bus))
OSTRAND_RECORDED(struct dlist*, sysfs_get_driver_devices, (struct sysfs_driver * drv), (drv))
OSTRAND_RECORDED(struct dlist*, sysfs_get_device_attributes, (struct sysfs_device * dev), (dev))
OSTRAND_RECORDED(struct sysfs_class*, sysfs_open_class, (const char* name), (name))
OSTRAND_RECORDED(void, sysfs_close_class, (struct sysfs_class * cls), (cls))
OSTRAND_RECORDED(struct dlist*, sysfs_get_class_devices, (struct sysfs_class * cls), (cls))
OSTRAND_RECORDED(struct dlist*, sysfs_get_classdev_attributes, (struct sysfs_class_device * clsdev), (clsdev))
OSTRAND_RECORDED(struct sysfs_device*, sysfs_get_classdev_device, (struct sysfs_class_device * clsdev), (clsdev))
