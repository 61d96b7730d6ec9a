// The sg scan on fake machines of 4 to 256 nodes: the listing of /dev, one
// open and SG_GET_SCSI_ID a node, and the map from node path to address.
#include "host/fake/FakeMachine.h"
#include "probes/SCSIGeneric.h"
#include "tests/support/ScsiNodes.h"

#include <benchmark/benchmark.h>

#include <string>

using namespace Vantrel::Ostrand;

namespace {

// Nodes on four host adapters, eight targets each, a few LUNs a target.
void addNodes(host::FakeMachine& machine, int nodes)
{
    for (int n = 0; n < nodes; ++n) {
        ostrand_test::addSgNode(machine, "/dev/sg" + std::to_string(n), n % 4, 0, (n / 4) % 8, n / 32, n % 2 ? 0 : 5);
    }
}

void BM_SgScan(benchmark::State& state)
{
    const int nodes = static_cast<int>(state.range(0));
    host::FakeMachine machine;
    host::ScopedMachine scope{machine};
    addNodes(machine, nodes);
    int found = 0;
    for (auto _ : state) {
        SCSIGeneric sg(0);
        sg.setnumOfValidSgNodes();
        found = sg.getNumofActiveSGs();
        benchmark::DoNotOptimize(found);
    }
    if (found != nodes) {
        state.SkipWithError("not every node is in the map");
    }
    state.SetItemsProcessed(state.iterations() * nodes);
    state.SetComplexityN(nodes);
}
BENCHMARK(BM_SgScan)->RangeMultiplier(4)->Range(4, 256)->Unit(benchmark::kMicrosecond)->Complexity();

} // namespace
