// ostrand: the library's records on the command line, from the live machine
// or from a machine kept as data (--machine DIR).
//
//   ostrand list [--class CLASS] [--machine DIR] [--json]
//   ostrand tree [--class CLASS] [--machine DIR]
//   ostrand usb [--machine DIR] [--json]
//   ostrand record DIR [--class CLASS] [--machine DIR]
#include "tools/Enumeration.h"
#include "tools/Output.h"
#include "tools/Record.h"
#include "tools/UsbReport.h"

#include "host/fake/MachineDirectory.h"

#include <CLI/CLI.hpp>

#include <iostream>
#include <memory>
#include <unistd.h>

namespace {

const int kBadUse = 2;

int badUse(const std::string& message)
{
    std::cerr << "ostrand: " << message << "\n";
    return kBadUse;
}

std::string oneLine(std::string text)
{
    for (char& c : text) {
        if (c == '\n' || c == '\r') {
            c = ' ';
        }
    }
    while (!text.empty() && text.back() == ' ') {
        text.pop_back();
    }
    return text;
}

} // namespace

int main(int argc, char** argv)
{
    using namespace ostrand_tool;

    CLI::App app{"ostrand: hardware records as the diagnostics framework reads them"};
    app.require_subcommand(1);
    std::string className = "pci";
    std::string machineDir;
    bool json = false;
    bool verbose = false;

    auto addCommon = [&](CLI::App* command) {
        command->add_option("--class,-c", className,
                            "pci, network, memory, serial, parallel, modem, rac, floppy, cddvd or all");
        command->add_option("--machine,-m", machineDir, "a machine kept as data in this directory (default: live)");
        command->add_flag("--verbose,-v", verbose, "say on stderr why a finder gave nothing");
    };
    CLI::App* list = app.add_subcommand("list", "one line (or JSON object) per record");
    addCommon(list);
    list->add_flag("--json", json, "JSON: one object per record");
    CLI::App* tree = app.add_subcommand("tree", "the location tree, System Board at the root");
    addCommon(tree);
    CLI::App* usb = app.add_subcommand("usb", "the USB tree with the state of every hub port");
    usb->add_option("--machine,-m", machineDir, "a machine kept as data in this directory (default: live)");
    usb->add_flag("--json", json, "JSON: every field of every record, and the port states");
    CLI::App* recordCommand =
        app.add_subcommand("record", "write what the machine answers as a machine directory that --machine replays");
    std::string recordDir;
    std::string recordClass;
    recordCommand->add_option("DIR", recordDir, "a new or empty folder for the recording")->required();
    recordCommand->add_option("--class,-c", recordClass,
                              "the finders to run (default: every class but modem; modem or all speak AT to the "
                              "serial ports)");
    recordCommand->add_option("--machine,-m", machineDir, "record a machine kept as data instead of the live one");

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        return badUse(oneLine(e.what()) + " (see ostrand --help)");
    }

    if (recordCommand->parsed()) {
        RecordRequest request;
        request.directory = recordDir;
        request.source = machineDir;
        request.progress = ::isatty(STDERR_FILENO) == 1;
        if (!recordClasses(recordClass, request.classes)) {
            return badUse("unknown class '" + recordClass + "' (expected " + classNames() + ")");
        }
        return record(request, std::cerr);
    }

    std::vector<std::string> classes;
    if (!classesFor(className, classes)) {
        return badUse("unknown class '" + className + "' (expected " + classNames() + ")");
    }

    std::unique_ptr<Vantrel::Ostrand::host::FakeMachine> fake;
    if (!machineDir.empty()) {
        try {
            fake = Vantrel::Ostrand::host::loadMachine(machineDir);
        } catch (const std::exception& e) {
            return badUse(oneLine(e.what()));
        }
        Vantrel::Ostrand::host::use(fake.get());
    }

    if (usb->parsed()) {
        UsbReport report = readUsb();
        Vantrel::Ostrand::host::use(nullptr);
        if (json) {
            printUsbJson(std::cout, report);
        } else {
            printUsbTree(std::cout, report);
        }
        if (!report.error.empty()) {
            std::cerr << "ostrand: " << oneLine(report.error) << "\n";
            return 1;
        }
        if (!report.walked) {
            std::cerr << "ostrand: no USB tree to walk (no USB controller, a kernel before 2.6, or no USB devices in "
                         "sysfs)\n";
        }
        return 0;
    }

    Progress progress(::isatty(STDERR_FILENO) == 1);
    std::vector<Row> rows = enumerate(classes, progress, verbose ? &std::cerr : nullptr);
    Vantrel::Ostrand::host::use(nullptr);

    if (tree->parsed()) {
        printTree(std::cout, rows);
    } else if (json) {
        printJson(std::cout, rows);
    } else {
        printTable(std::cout, rows);
    }
    return 0;
}
