#include "finders/ParallelPortFinder.h"

#include "probes/LinuxUtils.h"

#include <string>

namespace Vantrel {
namespace Ostrand {

namespace {

// Port number `i` as the firmware counts it; the node is named, never opened.
IWbemClassObject* makeRecord(LinuxUtils& utils, int i)
{
    std::string location = utils.toString("sd", "Parallel Port ", i);
    return new IWbemClassObject(utils.toString("sd", "PARALLEL_PORT_", i), "", utils.toString("sd", "/dev/lp", i),
                                utils.getDeviceDescription(), location, location, "System Board!ISA Bus", "", "", "",
                                "", "", "Embedded", 0);
}

} // namespace

ParallelPortFinder::ParallelPortFinder() : m_linuxUtils(new LinuxUtils) {}

ParallelPortFinder::~ParallelPortFinder()
{
    delete m_linuxUtils;
    m_linuxUtils = nullptr;
}

void ParallelPortFinder::getAllObjects(PCIUtil*, std::vector<IWbemClassObject>& objects)
{
    objects.clear();
    int n = m_linuxUtils->getNumOfPorts(LinuxUtils::PORT_TYPE_PARALLEL);
    if (n < 1) {
        return;
    }
    for (int i = 0; i < n; ++i) {
        IWbemClassObject* record = makeRecord(*m_linuxUtils, i);
        objects.push_back(*record);
        delete record;
    }
}

} // namespace Ostrand
} // namespace Vantrel
