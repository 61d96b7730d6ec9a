// The lsusb parser's text handling over arbitrary "lsusb -v" text: the lines
// as the tool's stream gives them, gathered into one record per device line,
// and the search operations on every line. Only std::out_of_range and the
// shell's "command not found" line may leave; the record in hand is then
// released here, so that every other record must be released by the parser.
#include "fuzz/FuzzSupport.h"
#include "host/fake/FakeMachine.h"
#include "usb/LsusbText.h"
#include "usb/lsusbParser.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <vector>

using namespace Vantrel::Ostrand;

namespace {

// A parser whose root is settled, as after a run on a 2.6.16 kernel.
lsusbParser& settledParser()
{
    static lsusbParser* parser = [] {
        host::FakeMachine machine;
        machine.setUname("2.6.16.21-0.8-smp", "x86_64");
        machine.addCommand("lsusb -v 2>&1", "");
        host::ScopedMachine scope{machine};
        lsusbParser* made = new lsusbParser(nullptr);
        UsbMap none;
        ostrand_fuzz::check(made->getlsusbOutput(none), "the empty run failed");
        return made;
    }();
    return *parser;
}

// The search operations keep their promise at a few starts of the line.
void checkSearches(lsusbParser& parser, const char* line)
{
    int length = static_cast<int>(std::strlen(line));
    const int starts[] = {-1, 0, 7, 8, 10, 11, 12, 14, 15, 21, length - 1, length, length + 1};
    for (int start : starts) {
        int digit = parser.getFirstDigit(line, start);
        ostrand_fuzz::check(digit == -1 || (digit >= start && digit < length &&
                                            std::isdigit(static_cast<unsigned char>(line[digit]))),
                            "getFirstDigit gave no digit at or behind the start");
        int alnum = parser.getFirstAlphaNumChar(line, start);
        ostrand_fuzz::check(alnum == -1 || (alnum >= start && alnum < length &&
                                            std::isalnum(static_cast<unsigned char>(line[alnum]))),
                            "getFirstAlphaNumChar gave no letter or digit at or behind the start");
    }
    int position = -1;
    if (parser.isContrlChar(line, position)) {
        ostrand_fuzz::check(position >= 0 && position < length, "control character outside the line");
        unsigned char code = static_cast<unsigned char>(line[position]);
        ostrand_fuzz::check(code >= 1 && code <= 30 && code != 9 && code != 10 && code != 13,
                            "isContrlChar reported no control character");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    lsusbParser& parser = settledParser();
    std::vector<char> text(data, data + size);
    FILE* stream = fmemopen(text.data(), text.size(), "r");
    if (stream == nullptr) {
        return 0;
    }

    UsbMap devices;
    LsusbDeviceCollector collector(parser, devices);
    char line[kLsusbLineSize];
    std::memset(line, 0, sizeof line);
    bool thrown = false;
    try {
        while (readToolLine(stream, line)) {
            ostrand_fuzz::check(std::strlen(line) < kLsusbLineSize - 1, "a line longer than the buffer allows");
            checkSearches(parser, line);
            collector.takeLine(line);
        }
        collector.finish();
    } catch (char* shellLine) {
        ostrand_fuzz::check(shellLine == line, "something else than the line buffer was thrown");
        ostrand_fuzz::check(std::strstr(shellLine, "command not found") != nullptr, "a line was thrown for nothing");
        thrown = true;
    } catch (const std::out_of_range&) {
        thrown = true;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "unexpected exception: %s\n", e.what());
        std::abort();
    } catch (...) {
        std::fprintf(stderr, "unexpected exception of unknown type\n");
        std::abort();
    }
    if (thrown) {
        // The record in hand is left to whoever holds the collector.
        delete collector.current();
    } else {
        ostrand_fuzz::check(collector.current() == nullptr, "a record stayed in hand at the end");
    }
    std::fclose(stream);

    for (const auto& entry : devices) {
        ostrand_fuzz::check(entry.first == entry.second.devicePath, "an entry under another path than its own");
        // A device line whose key a control character cut off leaves the path empty.
        ostrand_fuzz::check(entry.second.devicePath.empty() || entry.second.devicePath.compare(0, 13, "/dev/bus/usb/") == 0,
                            "a path off the root");
        ostrand_fuzz::check(entry.second.slotName.empty(), "slotName reached a map entry");
        ostrand_fuzz::check(entry.second.selfPowered == 0 || entry.second.selfPowered == 1, "selfPowered not 0 or 1");
    }
    return 0;
}
