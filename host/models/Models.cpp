#include "host/models/Models.h"

#include <cstdlib>
#include <stdexcept>

namespace Vantrel {
namespace Ostrand {
namespace host {

namespace {

void loadMemory(FakeMachine& m, const Directive& d)
{
    needWords(d, 4, "memory PATH ADDRESS DATAFILE");
    auto model = std::dynamic_pointer_cast<MemoryModel>(m.model(d.words[1]));
    if (!model) {
        model = std::make_shared<MemoryModel>();
        m.addNode(d.words[1], 'c', model);
    }
    char* end = nullptr;
    unsigned long long address = std::strtoull(d.words[2].c_str(), &end, 0);
    if (end == nullptr || *end != '\0') {
        d.fail("bad address " + d.words[2]);
    }
    model->place(address, d.data(d.words[3]));
}

void loadSerial(FakeMachine& m, const Directive& d)
{
    needWords(d, 2, "serial PATH type=N port=N irq=N [line=N] [modem=FILE]");
    auto model = std::make_shared<SerialModel>(static_cast<int>(d.number("type", 4)),
                                               static_cast<int>(d.number("port", 0)),
                                               static_cast<int>(d.number("irq", 0)),
                                               static_cast<int>(d.number("line", 0)));
    std::string modem = d.option("modem", "");
    if (!modem.empty()) {
        model->attachModem(ModemScript::parse(d.data(modem)));
    }
    m.addNode(d.words[1], 'c', model);
}

void loadUsbfs(FakeMachine& m, const Directive& d)
{
    needWords(d, 3, "usbfs PATH DEVICEFILE");
    std::shared_ptr<UsbfsModel> model;
    try {
        model = UsbfsModel::parse(d.data(d.words[2]));
    } catch (const std::invalid_argument& e) {
        d.fail(d.words[2] + ", " + e.what());
    }
    m.addNode(d.words[1], 'c', model);
}

} // namespace

const std::vector<ModelDirective>& modelDirectives()
{
    static const std::vector<ModelDirective> list = {
        {"memory", loadMemory},
        {"serial", loadSerial},
        {"usbfs", loadUsbfs},
    };
    return list;
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel
