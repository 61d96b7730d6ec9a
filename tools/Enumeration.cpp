#include "tools/Enumeration.h"

#include "finders/CDDVDDeviceFinder.h"
#include "finders/FloppyDeviceFinder.h"
#include "finders/MemoryDeviceFinder.h"
#include "finders/ModemDeviceFinder.h"
#include "finders/NetworkDeviceFinder.h"
#include "finders/PCIDeviceFinder.h"
#include "finders/ParallelPortFinder.h"
#include "finders/RACDeviceFinder.h"
#include "finders/SerialPortFinder.h"
#include "frame/CWmiInfo.h"

#include <chrono>
#include <cstdio>
#include <memory>

namespace ostrand_tool {

using namespace Vantrel::Ostrand;

const std::array<const char*, 13> kKeys = {
    "DeviceName",          "DisableDeviceName",      "DeviceDescriptor",     "DeviceDescription",
    "DeviceLocation",      "DeviceresourceTag",      "DeviceParentLocation", "DeviceClass",
    "DeviceManufacturerName", "DeviceModelNumber",   "DeviceFirmwareRevisionLevel", "DeviceSerialNumber",
    "DeviceAdditionalHWInfo"};

namespace {

const std::vector<std::string> kClasses = {"pci",      "network", "memory", "serial", "parallel",
                                           "modem",    "rac",     "floppy", "cddvd"};

std::unique_ptr<IDeviceFinder> makeFinder(const std::string& name)
{
    if (name == "pci") return std::make_unique<PCIDeviceFinder>();
    if (name == "network") return std::make_unique<NetworkDeviceFinder>();
    if (name == "memory") return std::make_unique<MemoryDeviceFinder>();
    if (name == "serial") return std::make_unique<SerialPortFinder>();
    if (name == "parallel") return std::make_unique<ParallelPortFinder>();
    if (name == "modem") return std::make_unique<ModemDeviceFinder>();
    if (name == "rac") return std::make_unique<RACDeviceFinder>();
    if (name == "floppy") return std::make_unique<FloppyDeviceFinder>();
    if (name == "cddvd") return std::make_unique<CDDVDDeviceFinder>();
    return nullptr;
}

std::string whatItDoes(const std::string& name)
{
    if (name == "modem") return "modem: speaking AT to the serial ports (about 10 s a port)";
    if (name == "pci") return "pci: reading the inventory";
    // These finders' constructors scan the sg nodes: they wait while another
    // finder or process holds their lock, and pause 10 s when there is none.
    if (name == "cddvd" || name == "floppy") {
        return name + ": waiting for the sg lock, scanning the sg nodes (a 10 s pause if there are none)";
    }
    return name + ": looking";
}

} // namespace

const std::string& Row::get(const std::string& key) const
{
    static const std::string none;
    for (size_t i = 0; i < kKeys.size(); ++i) {
        if (key == kKeys[i]) {
            return values[i];
        }
    }
    return none;
}

bool classesFor(const std::string& name, std::vector<std::string>& classes)
{
    if (name == "all") {
        classes = kClasses;
        return true;
    }
    for (const auto& known : kClasses) {
        if (known == name) {
            classes = {name};
            return true;
        }
    }
    return false;
}

std::string classNames()
{
    std::string text;
    for (const auto& name : kClasses) {
        text += name + ", ";
    }
    return text + "all";
}

void Progress::start(const std::string& what)
{
    stop();
    if (!m_enabled) {
        return;
    }
    m_running = true;
    m_thread = std::thread([this, what] {
        auto begin = std::chrono::steady_clock::now();
        while (m_running) {
            auto seconds = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin);
            std::fprintf(stderr, "\r\033[Kostrand: %s... %lds", what.c_str(), static_cast<long>(seconds.count()));
            std::fflush(stderr);
            for (int i = 0; i < 10 && m_running; ++i) {
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            }
        }
        std::fprintf(stderr, "\r\033[K");
        std::fflush(stderr);
    });
}

void Progress::stop()
{
    m_running = false;
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

std::vector<Row> enumerate(const std::vector<std::string>& classes, Progress& progress, std::ostream* notes)
{
    std::vector<Row> rows;
    progress.start("pci: reading the inventory");
    CWmiInfo* info = nullptr;
    try {
        info = CWmiInfo::getCWMIInfoInstance();
    } catch (const std::exception& e) {
        progress.stop();
        if (notes != nullptr) {
            *notes << "ostrand: the PCI inventory could not be read: " << e.what() << "\n";
        }
        return rows;
    }
    for (const auto& name : classes) {
        // Started before the finder is built: some wait in their constructor.
        progress.start(whatItDoes(name));
        std::unique_ptr<IDeviceFinder> finder;
        try {
            finder = makeFinder(name);
            info->getEnumerateDeviceHandle(finder.get());
            IWbemClassObject* object = nullptr;
            while (info->Next(0, 0, object) == 1) {
                Row row;
                row.finder = name;
                for (size_t i = 0; i < kKeys.size(); ++i) {
                    object->getValue(kKeys[i], row.values[i]);
                }
                row.value = object->getValue();
                rows.push_back(row);
            }
        } catch (const std::exception& e) {
            if (notes != nullptr) {
                *notes << "ostrand: " << name << ": no records (" << e.what() << ")\n";
            }
        }
        progress.stop();
    }
    info->freeEnumerateDeviceHandle();
    return rows;
}

} // namespace ostrand_tool
