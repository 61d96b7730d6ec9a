#include "platform/smbios/SmbiosFactory.h"

#include "host/Host.h"
#include "platform/smbios/SmbiosEntryPoint.h"
#include "platform/smbios/SmbiosException.h"
#include "platform/smbios/SmbiosTable.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>

namespace smbios {

namespace host = Vantrel::Ostrand::host;

namespace {

const char* const kEntryPointFile = "/sys/firmware/dmi/tables/smbios_entry_point";
const char* const kTableFile = "/sys/firmware/dmi/tables/DMI";
const char* const kPhysicalMemory = "/dev/mem";
// The BIOS area that holds the entry point, searched on 16-byte boundaries.
const off_t kBiosArea = 0xF0000;
const size_t kBiosAreaSize = 0x10000;
const size_t kEntryPointStep = 16;
// Larger than any entry point.
const size_t kEntryPointFileLimit = 64;
// A table that claims more than this has a corrupt length; only this much is read.
const size_t kTableLimit = 1 << 20;

// Up to `limit` bytes of a file. False if it cannot be opened or a read fails.
bool readFile(const char* path, size_t limit, std::string& out)
{
    int fd = host::open(path, O_RDONLY);
    if (fd < 0) {
        return false;
    }
    out.clear();
    char chunk[4096];
    bool ok = true;
    while (out.size() < limit) {
        ssize_t n = host::read(fd, chunk, std::min(sizeof chunk, limit - out.size()));
        if (n < 0) {
            ok = false;
            break;
        }
        if (n == 0) {
            break;
        }
        out.append(chunk, static_cast<size_t>(n));
    }
    host::close(fd);
    return ok;
}

const uint8_t* bytesOf(const std::string& text) { return reinterpret_cast<const uint8_t*>(text.data()); }

size_t bytesToRead(const SmbiosEntryPoint& entry) { return std::min<size_t>(entry.tableLength, kTableLimit); }

std::unique_ptr<ISmbiosTable> makeTable(const SmbiosEntryPoint& entry, const std::string& bytes)
{
    size_t limit = entry.hasStructureCount ? entry.structureCount : SmbiosTable::kNoLimit;
    return std::unique_ptr<ISmbiosTable>(new SmbiosTable(bytes, limit, entry.majorVersion, entry.minorVersion));
}

// First: the kernel's copies of the entry point and the table in sysfs.
std::unique_ptr<ISmbiosTable> readFromSysfs()
{
    std::string entryBytes;
    SmbiosEntryPoint entry;
    if (!readFile(kEntryPointFile, kEntryPointFileLimit, entryBytes) ||
        !SmbiosEntryPoint::parse(bytesOf(entryBytes), entryBytes.size(), entry)) {
        return nullptr;
    }
    std::string table;
    if (!readFile(kTableFile, bytesToRead(entry), table) || table.empty()) {
        return nullptr;
    }
    return makeTable(entry, table);
}

// The entry point in the BIOS area. A 3.x entry point is preferred, since its
// table may lie above 4 GiB; firmware that has both states the same table.
bool findEntryPoint(const uint8_t* area, size_t size, SmbiosEntryPoint& entry)
{
    for (size_t at = 0; at < size; at += kEntryPointStep) {
        if (SmbiosEntryPoint::parse30(area + at, size - at, entry)) {
            return true;
        }
    }
    for (size_t at = 0; at < size; at += kEntryPointStep) {
        if (SmbiosEntryPoint::parse21(area + at, size - at, entry)) {
            return true;
        }
    }
    return false;
}

// `count` bytes of physical memory at `address`, or what of them could be read.
bool readPhysical(int fd, uint64_t address, size_t count, std::string& out)
{
    if (address > static_cast<uint64_t>(std::numeric_limits<off_t>::max()) ||
        host::lseek(fd, static_cast<off_t>(address), SEEK_SET) < 0) {
        return false;
    }
    out.clear();
    char chunk[4096];
    while (out.size() < count) {
        ssize_t n = host::read(fd, chunk, std::min(sizeof chunk, count - out.size()));
        if (n <= 0) {
            break;
        }
        out.append(chunk, static_cast<size_t>(n));
    }
    return !out.empty();
}

// Then: the entry point found in the BIOS area of /dev/mem, and the table read
// from its physical address.
std::unique_ptr<ISmbiosTable> readFromMemory()
{
    int fd = host::open(kPhysicalMemory, O_RDONLY);
    if (fd < 0) {
        return nullptr;
    }
    SmbiosEntryPoint entry;
    bool found = false;
    void* area = host::mmap(nullptr, kBiosAreaSize, PROT_READ, MAP_SHARED, fd, kBiosArea);
    if (area != MAP_FAILED && area != nullptr) {
        found = findEntryPoint(static_cast<const uint8_t*>(area), kBiosAreaSize, entry);
        host::munmap(area, kBiosAreaSize);
    }
    std::string table;
    bool read = found && readPhysical(fd, entry.tableAddress, bytesToRead(entry), table);
    host::close(fd);
    return read ? makeTable(entry, table) : nullptr;
}

} // namespace

SmbiosFactory::SmbiosFactory() {}

SmbiosFactory::~SmbiosFactory() {}

SmbiosFactory* SmbiosFactory::getFactory()
{
    static SmbiosFactory factory;
    return &factory;
}

void SmbiosFactory::reset() { getFactory()->m_table.reset(); }

ISmbiosTable* SmbiosFactory::getSingleton()
{
    if (!m_table) {
        m_table.reset(makeNew());
    }
    return m_table.get();
}

ISmbiosTable* SmbiosFactory::makeNew()
{
    std::unique_ptr<ISmbiosTable> table = readFromSysfs();
    if (!table) {
        table = readFromMemory();
    }
    if (!table) {
        throw SmbiosException("no SMBIOS table can be read on this machine");
    }
    return table.release();
}

} // namespace smbios
