// The firmware operations of LinuxUtils: the physical slot of a PCI device
// from the BIOS's PCI interrupt routing table, and the number of legacy ports
// of the board from the SMBIOS Port Connector structures.
#include "probes/LinuxUtils.h"

#include "host/Host.h"
#include "platform/smbios/ISmbiosTable.h"
#include "platform/smbios/SmbiosException.h"
#include "platform/smbios/SmbiosFactory.h"
#include "platform/smbios/SmbiosItemAccess.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace Vantrel {
namespace Ostrand {

namespace {

// The BIOS area that holds the routing table.
const off_t kBiosArea = 0xF0000;
const size_t kBiosAreaSize = 0x10000;
const size_t kPirStep = 16;
// The routing table: its size at 6, its slot entries of 16 bytes from 32; in
// an entry the bus at 0, device and function at 1, the slot number at 14.
const size_t kPirSizeOffset = 6;
const size_t kPirHeaderLength = 32;
const size_t kPirEntryLength = 16;
const size_t kEntryBus = 0;
const size_t kEntryDevFn = 1;
const size_t kEntrySlot = 14;

// SMBIOS: the product name of System Information, and the connector and port
// types of Port Connector Information.
const int kSystemInformation = 1;
const unsigned int kProductNameOffset = 5;
const int kPortConnector = 8;
const unsigned int kExternalConnectorOffset = 7;
const unsigned int kPortTypeOffset = 8;

// The offset of "$PIR" in the area, searched on 16-byte boundaries, or the
// size of the area if the firmware has none.
size_t findPir(const unsigned char* area, size_t size)
{
    for (size_t at = 0; at + 4 <= size; at += kPirStep) {
        if (std::memcmp(area + at, "$PIR", 4) == 0) {
            return at;
        }
    }
    return size;
}

// The number of slot entries the table's size field gives, cut to those that
// lie wholly inside the mapped area.
size_t pirEntryCount(const unsigned char* area, size_t size, size_t table)
{
    if (table + kPirSizeOffset + 2 > size) {
        return 0;
    }
    int tableSize = area[table + kPirSizeOffset] | (area[table + kPirSizeOffset + 1] << 8);
    int stated = (tableSize - static_cast<int>(kPirHeaderLength)) / static_cast<int>(kPirEntryLength);
    if (stated <= 0 || table + kPirHeaderLength > size) {
        return 0;
    }
    size_t fitting = (size - table - kPirHeaderLength) / kPirEntryLength;
    return static_cast<size_t>(stated) < fitting ? static_cast<size_t>(stated) : fitting;
}

// Port types 1 to 5 are parallel ports, 6 to 9 serial ones.
bool isParallelPortType(int portType) { return portType >= 1 && portType <= 5; }
bool isSerialPortType(int portType) { return portType >= 6 && portType <= 9; }

// On these two models a serial connector counts only if it is led outside.
bool needsExternalConnector(const std::string& productName)
{
    return productName.find("7301") != std::string::npos || productName.find("7302") != std::string::npos;
}

} // namespace

std::string LinuxUtils::getSlotInfo(const unsigned int& bus, const unsigned int& device)
{
    // 1. Physical memory.
    std::string result;
    int fd = host::open("/dev/mem", O_RDONLY);
    if (fd < 0) {
        return result;
    }
    // 2. The BIOS area. A failed mapping is taken as a failed open.
    void* mapped = host::mmap(nullptr, kBiosAreaSize, PROT_READ, MAP_SHARED, fd, kBiosArea);
    if (mapped == MAP_FAILED || mapped == nullptr) {
        host::close(fd);
        return result;
    }
    const unsigned char* area = static_cast<const unsigned char*>(mapped);
    // 3. The table. Firmware without one leaves the slot unknown.
    size_t table = findPir(area, kBiosAreaSize);
    if (table < kBiosAreaSize) {
        // 4. The number of entries.
        size_t count = pirEntryCount(area, kBiosAreaSize, table);
        // 5. Every entry of the bus and device; the last one stands. The
        //    functions of a device share its entry, so they are not compared.
        for (size_t i = 0; i < count; ++i) {
            const unsigned char* entry = area + table + kPirHeaderLength + i * kPirEntryLength;
            if (entry[kEntryBus] == bus && (entry[kEntryDevFn] >> 3) == device) {
                int slot = entry[kEntrySlot];
                result = slot != 0 ? toString("sd", "PCI Slot ", slot) : std::string("Embedded");
            }
        }
    }
    // 6.
    host::munmap(mapped, kBiosAreaSize);
    host::close(fd);
    return result;
}

int LinuxUtils::getNumOfPorts(PortType type)
{
    // 1. The table: if it cannot be had, the exception goes to the finder.
    int count = 0;
    smbios::ISmbiosTable* table = smbios::SmbiosFactory::getFactory()->getSingleton();

    // 2. The product name of the first System Information structure. A table
    //    without one has no name to compare, so nothing is read.
    std::string productName;
    smbios::SmbiosTableIterator system = (*table)[kSystemInformation];
    if (system != table->end()) {
        productName = smbios::getString_FromItem(*system, kProductNameOffset);
    }

    // 3. The Port Connector structures.
    for (smbios::SmbiosTableIterator port = (*table)[kPortConnector]; port != table->end(); ++port) {
        // 3.1 The port type; a structure that cannot give it is passed over.
        int portType = 0;
        try {
            portType = smbios::getU8_FromItem(*port, kPortTypeOffset);
        } catch (const smbios::SmbiosException&) {
            continue;
        }
        bool counted = false;
        if (type == PORT_TYPE_PARALLEL) {
            // 3.2
            counted = isParallelPortType(portType);
        } else if (type == PORT_TYPE_SERIAL) {
            // 3.3 The connector type is read only on the two models, and a
            //     failure to read it is not caught.
            if (isSerialPortType(portType)) {
                counted = !needsExternalConnector(productName) ||
                          smbios::getU8_FromItem(*port, kExternalConnectorOffset) != 0;
            }
        }
        // 3.4 Any other kind counts nothing.
        // 3.5
        if (counted) {
            ++count;
            m_portType = portType;
        }
    }
    // 4.
    return count;
}

std::string LinuxUtils::getDeviceDescription() { return getPortType(m_portType); }

int LinuxUtils::readDmiTable(int fd, int offset, unsigned short length, unsigned short count, PortType type)
{
    // 1. A copy of the table. The buffer is never empty, so that read gets a
    //    real address even for a length of 0.
    std::vector<unsigned char> buffer(length > 0 ? length : 1);
    if (host::lseek(fd, offset, SEEK_SET) < 0) {
        return 0;
    }
    ssize_t got = host::read(fd, buffer.data(), length);
    if (got < static_cast<ssize_t>(length)) {
        return 0;
    }
    const size_t size = static_cast<size_t>(got);

    // 2. A port type counts if it lies strictly between the bounds.
    int lower = 0;
    int upper = 0;
    if (type == PORT_TYPE_PARALLEL) {
        lower = 0;
        upper = 6;
    } else if (type == PORT_TYPE_SERIAL) {
        lower = 5;
        upper = 10;
    }

    // 3. The structures, at most `count` of them.
    int result = 0;
    if (count == 0 || size == 0) {
        return result;
    }
    size_t position = 0;
    for (unsigned short walked = 0; walked < count && position < size; ++walked) {
        // 3.1 The port type, as a signed byte, of a Port Connector structure.
        if (buffer[position] == kPortConnector && position + kPortTypeOffset < size) {
            int portType = static_cast<signed char>(buffer[position + kPortTypeOffset]);
            if (portType > lower && portType < upper) {
                ++result;
                m_portDescriptions.push_back(getPortType(portType));
            }
        }
        // 3.2 Past the formatted area, then past the double zero behind the strings.
        if (position + 1 >= size) {
            break;
        }
        size_t next = position + buffer[position + 1];
        while (next + 1 < size && !(buffer[next] == 0 && buffer[next + 1] == 0)) {
            ++next;
        }
        // 3.3 A structure whose strings do not end inside the data is the last.
        position = next + 2;
    }
    // 4.
    return result;
}

} // namespace Ostrand
} // namespace Vantrel
