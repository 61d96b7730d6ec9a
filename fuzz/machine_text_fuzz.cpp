// Machine files as a person might edit them: arbitrary directive text over a
// folder with a few data files (a text, an identity block, a USB device
// file, a modem file). Loading gives a machine or one MachineDirectoryError
// naming the line, never a crash; a loaded machine is then asked what the
// recordings' directives set up (a refused ioctl, an sg command).
#include "host/fake/FakeMachine.h"
#include "host/fake/MachineDirectory.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <scsi/sg.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Vantrel::Ostrand;

namespace {

void put(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

// The folder of data files, made once for the run.
const std::string& folder()
{
    static const std::string path = [] {
        char pattern[] = "/tmp/ostrand-machine-fuzz-XXXXXX";
        std::string made = ::mkdtemp(pattern) != nullptr ? pattern : "/tmp";
        put(made + "/a.txt", "00:00.0 0600: 8086:1237 (rev 02)\n");
        put(made + "/id.bin", std::string(512, '\x40'));
        put(made + "/dev.usb", "device 12 01 00 02 09 00 00 40 6b 1d 02 00 01 06 03 02 01 01\nstatus 0x0001\n");
        put(made + "/modem.txt", "> ATI3\\r\n< \\r\\nOK\\r\\n\n");
        ::mkdir((made + "/sys").c_str(), 0755);
        return made;
    }();
    return path;
}

void exercise(host::FakeMachine& machine)
{
    host::ScopedMachine use(machine);
    for (const char* path : {"/dev/sg0", "/dev/sr0", "/dev/ttyS0", "/dev/x"}) {
        int fd = host::open(path, O_RDWR);
        if (fd < 0) {
            continue;
        }
        unsigned char command[6] = {0x12, 0, 0, 0, 36, 0};
        unsigned char data[36];
        unsigned char sense[32];
        sg_io_hdr_t header;
        std::memset(&header, 0, sizeof header);
        header.interface_id = 'S';
        header.cmdp = command;
        header.cmd_len = sizeof command;
        header.dxfer_direction = SG_DXFER_FROM_DEV;
        header.dxferp = data;
        header.dxfer_len = sizeof data;
        header.sbp = sense;
        header.mx_sb_len = sizeof sense;
        host::ioctl(fd, SG_IO, &header);
        char identity[512];
        host::ioctl(fd, 0x030D, identity);
        host::close(fd);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string text(reinterpret_cast<const char*>(data), size);
    host::FakeMachine machine;
    try {
        host::loadMachineText(machine, text, folder());
    } catch (const host::MachineDirectoryError&) {
        return 0;
    }
    exercise(machine);
    return 0;
}
