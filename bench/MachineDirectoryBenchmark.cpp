// The loading of fake machines: the lab server's directory as the command's
// replay reads it, and machine texts of 16 to 1024 directives.
#include "host/fake/FakeMachine.h"
#include "host/fake/MachineDirectory.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <string>

using namespace Vantrel::Ostrand;

namespace {

void BM_LoadLabServer(benchmark::State& state)
{
    const std::string directory = std::string(OSTRAND_SOURCE_DIR) + "/samples/lab-server";
    for (auto _ : state) {
        std::unique_ptr<host::FakeMachine> machine = host::loadMachine(directory);
        benchmark::DoNotOptimize(machine.get());
    }
}
BENCHMARK(BM_LoadLabServer)->Unit(benchmark::kMicrosecond);

// n link directives, each a path of its own.
std::string linkLines(int lines)
{
    std::string text = "uname 6.1.0-56-amd64 x86_64\n";
    char line[128];
    for (int n = 0; n < lines; ++n) {
        std::snprintf(line, sizeof line, "link /proc/bus/usb/%03d/%03d /dev/bus/usb/%03d/%03d\n", n / 128 + 1,
                      n % 128 + 1, n / 128 + 1, n % 128 + 1);
        text += line;
    }
    return text;
}

void BM_LoadMachineText(benchmark::State& state)
{
    const int lines = static_cast<int>(state.range(0));
    const std::string text = linkLines(lines);
    const std::string directory = std::string(OSTRAND_SOURCE_DIR) + "/samples/lab-server";
    for (auto _ : state) {
        host::FakeMachine machine;
        host::loadMachineText(machine, text, directory);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * lines);
    state.SetComplexityN(lines);
}
BENCHMARK(BM_LoadMachineText)->RangeMultiplier(4)->Range(16, 1024)->Unit(benchmark::kMicrosecond)->Complexity();

} // namespace
