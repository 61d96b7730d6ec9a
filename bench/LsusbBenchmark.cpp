// The lsusb parser on "lsusb -v" texts of 5 to 127 devices made of the real
// captures' device blocks, each on a bus of its own: the whole run through
// the tool's stream, and the scanning of the lines alone.
#include "host/fake/FakeMachine.h"
#include "tests/support/Machines.h"
#include "usb/LsusbText.h"
#include "usb/lsusbParser.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

using namespace Vantrel::Ostrand;

namespace {

const int kFewest = 5;
const int kMost = 127;

// The device blocks of a capture: from a device line up to the next one.
std::vector<std::string> deviceBlocks(const std::string& text)
{
    std::vector<std::string> blocks;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.compare(0, 5, "Bus 0") == 0) {
            blocks.push_back("");
        }
        if (!blocks.empty()) {
            blocks.back() += line + "\n";
        }
    }
    return blocks;
}

// The captures' blocks in turn, each on a bus of its own so that every path differs.
std::string devicesText(int devices)
{
    const char* const captures[] = {"lab-server/lsusb-v.txt", "lsusb/server-ibm-x3650m3-vendor0000-mouse.txt",
                                    "lsusb/server-cisco-ucsc-c220m4.txt", "lsusb/server-lenovo-sr650-centos7-xcc.txt",
                                    "lsusb/server-supermicro-x9drw-nonroot-nostrings.txt",
                                    "lsusb/old-2003-lkml-usb-dvd-burner.txt"};
    std::vector<std::string> blocks;
    for (const char* capture : captures) {
        for (const std::string& block : deviceBlocks(ostrand_test::capture(capture))) {
            blocks.push_back(block);
        }
    }
    std::string text = "\n";
    for (int n = 0; n < devices; ++n) {
        std::string block = blocks[static_cast<size_t>(n) % blocks.size()];
        // "0" and two base-36 digits: a device line must begin "Bus 0".
        const char* const digits = "0123456789abcdefghijklmnopqrstuvwxyz";
        const char bus[3] = {'0', digits[(n + 1) / 36], digits[(n + 1) % 36]};
        block.replace(4, 3, bus, 3);
        text += block;
    }
    return text;
}

const std::string& text(int devices)
{
    static std::map<int, std::string> made;
    auto found = made.find(devices);
    if (found == made.end()) {
        found = made.emplace(devices, devicesText(devices)).first;
    }
    return found->second;
}

void BM_LsusbGetlsusbOutput(benchmark::State& state)
{
    const int kDevices = static_cast<int>(state.range(0));
    host::FakeMachine machine;
    machine.setUname("2.6.18-8.el5", "x86_64");
    machine.addCommand("lsusb -v 2>&1", text(kDevices));
    host::ScopedMachine scope{machine};
    size_t devices = 0;
    for (auto _ : state) {
        lsusbParser parser(nullptr);
        UsbMap map;
        parser.getlsusbOutput(map);
        devices = map.size();
        // The map, not the count: this library version's DoNotOptimize on a
        // size_t lvalue ("+m,r") leaves GCC reading an unset register after it.
        benchmark::DoNotOptimize(map);
    }
    if (devices != static_cast<size_t>(kDevices)) {
        state.SkipWithError("the map does not hold every device");
    }
    state.counters["devices"] = static_cast<double>(devices);
    state.SetItemsProcessed(state.iterations() * kDevices);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text(kDevices).size()));
    state.SetComplexityN(kDevices);
}
BENCHMARK(BM_LsusbGetlsusbOutput)->Arg(kFewest)->Arg(16)->Arg(50)->Arg(kMost)->Unit(benchmark::kMicrosecond)->Complexity();

// The lines as the stream gives them, then only the gathering and scanning.
void BM_LsusbScanLines(benchmark::State& state)
{
    const int kDevices = static_cast<int>(state.range(0));
    std::vector<std::string> lines;
    {
        std::vector<char> bytes(text(kDevices).begin(), text(kDevices).end());
        FILE* stream = fmemopen(bytes.data(), bytes.size(), "r");
        char line[kLsusbLineSize] = {};
        while (stream != nullptr && readToolLine(stream, line)) {
            lines.push_back(line);
        }
        if (stream != nullptr) {
            std::fclose(stream);
        }
    }
    lsusbParser parser(nullptr);
    char buffer[kLsusbLineSize] = {};
    size_t devices = 0;
    for (auto _ : state) {
        UsbMap map;
        LsusbDeviceCollector collector(parser, map);
        for (const std::string& line : lines) {
            std::memcpy(buffer, line.c_str(), line.size() + 1);
            collector.takeLine(buffer);
        }
        collector.finish();
        devices = map.size();
        // The map, not the count: this library version's DoNotOptimize on a
        // size_t lvalue ("+m,r") leaves GCC reading an unset register after it.
        benchmark::DoNotOptimize(map);
    }
    if (devices != static_cast<size_t>(kDevices)) {
        state.SkipWithError("the map does not hold every device");
    }
    state.counters["lines"] = static_cast<double>(lines.size());
    state.SetItemsProcessed(state.iterations() * kDevices);
    state.SetComplexityN(kDevices);
}
BENCHMARK(BM_LsusbScanLines)->Arg(kFewest)->Arg(16)->Arg(50)->Arg(kMost)->Unit(benchmark::kMicrosecond)->Complexity();

} // namespace
