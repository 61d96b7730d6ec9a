#include "host/record/RecordingWriter.h"

#include "host/fake/MachineDirectory.h"
#include "host/record/MachineText.h"
#include "host/record/SysfsCopy.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <dirent.h>
#include <fstream>
#include <stdexcept>
#include <sys/stat.h>

namespace Vantrel {
namespace Ostrand {
namespace host {

namespace {

std::string joined(const std::string& directory, const std::string& name)
{
    return directory.empty() || directory.back() != '/' ? directory + "/" + name : directory + name;
}

std::string baseName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// A name for the output of a command line: its tool and its arguments,
// without the redirection of the shell.
std::string commandFileName(const std::string& line)
{
    std::string words;
    size_t at = 0;
    bool first = true;
    while (at < line.size()) {
        size_t start = line.find_first_not_of(' ', at);
        if (start == std::string::npos) {
            break;
        }
        size_t end = line.find(' ', start);
        std::string word = line.substr(start, end == std::string::npos ? std::string::npos : end - start);
        at = end == std::string::npos ? line.size() : end;
        if (word == "2>&1") {
            continue;
        }
        words += (first ? baseName(word) : " " + word);
        first = false;
    }
    return "tools/" + fileNameOf(words) + ".txt";
}

void writeHeader(MachineText& out, const Recording& recording, const RecordingHeader& header)
{
    for (const auto& line : header.lines) {
        out.comment(line);
    }
    out.comment("Format: samples/README.md. Review before sharing: it holds serial numbers, MAC");
    out.comment("addresses and whatever else the machine answered.");
    out.blank();
    if (recording.hasUname) {
        out.line("uname " + recording.release + " " + recording.machine);
    }
}

void writeCommands(MachineText& out, const Recording& recording)
{
    if (recording.commands.empty()) {
        return;
    }
    out.blank();
    out.comment("The tools, by the exact command line that ran them.");
    for (const auto& command : recording.commands) {
        std::string file = out.data(commandFileName(command.line), command.output);
        out.line("run " + file + " " + command.line);
    }
}

void writeSysfs(MachineText& out, const Recording& recording)
{
    out.blank();
    struct stat info;
    if (!recording.sysfsRoot.empty() && ::stat(recording.sysfsRoot.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
        SysfsCopyCount count = copySysfs(recording.sysfsRoot, joined(out.directory(), "sysfs"));
        out.comment("sysfs as libsysfs reads it: " + std::to_string(count.folders) + " folders, " +
                    std::to_string(count.files) + " attributes, " + std::to_string(count.links) + " links.");
        out.line("sysfs sysfs");
    }
    if (!recording.sysfsMounted) {
        out.line("sysfs unmounted");
    }
    if (recording.mountError != 0) {
        out.line("refuse-mount " + errnoName(recording.mountError));
    }
}

std::string entryLine(const std::string& path, unsigned char type)
{
    switch (type) {
    case DT_DIR: return "dir " + path;
    case DT_LNK: return "link " + path;
    case DT_CHR: return "node " + path + " c";
    case DT_BLK: return "node " + path + " b";
    case DT_REG: return "file " + path + " -";
    default: return "";
    }
}

void writeListings(MachineText& out, const Recording& recording)
{
    if (recording.listings.empty()) {
        return;
    }
    out.blank();
    out.comment("Directories as they were listed (files listed but not read are empty).");
    for (const auto& listing : recording.listings) {
        if (listing.second.empty()) {
            out.line("dir " + listing.first);
            continue;
        }
        std::vector<RecordedEntry> entries = listing.second;
        std::sort(entries.begin(), entries.end(),
                  [](const RecordedEntry& a, const RecordedEntry& b) { return a.name < b.name; });
        for (const auto& entry : entries) {
            if (entry.name == "." || entry.name == "..") {
                continue;
            }
            std::string line = entryLine(joined(listing.first, entry.name), entry.type);
            if (!line.empty()) {
                out.line(line);
            }
        }
    }
}

char listedType(const Recording& recording, const std::string& path)
{
    size_t slash = path.rfind('/');
    auto listing = recording.listings.find(slash == 0 ? "/" : path.substr(0, slash));
    if (listing == recording.listings.end()) {
        return 0;
    }
    for (const auto& entry : listing->second) {
        if (entry.name == path.substr(slash + 1)) {
            return entry.type == DT_BLK ? 'b' : 'c';
        }
    }
    return 0;
}

// The areas that were read or mapped, joined where they touch or overlap.
std::map<uint64_t, std::string> joinedAreas(const std::map<uint64_t, std::string>& reads)
{
    std::map<uint64_t, std::string> areas;
    for (const auto& read : reads) {
        if (!areas.empty()) {
            auto& last = *areas.rbegin();
            uint64_t end = last.first + last.second.size();
            if (read.first <= end) {
                size_t at = static_cast<size_t>(read.first - last.first);
                if (at + read.second.size() > last.second.size()) {
                    last.second.resize(at + read.second.size());
                }
                last.second.replace(at, read.second.size(), read.second);
                continue;
            }
        }
        areas[read.first] = read.second;
    }
    return areas;
}

void writeMemory(MachineText& out, const std::string& path, const RecordedPath& node)
{
    for (const auto& area : joinedAreas(node.reads)) {
        char address[32];
        std::snprintf(address, sizeof address, "0x%llX", static_cast<unsigned long long>(area.first));
        std::string file = out.data("memory/" + fileNameOf(baseName(path)) + "-" + address + ".bin", area.second);
        out.line("memory " + path + " " + address + " " + file);
    }
    if (node.reads.empty()) {
        out.line("memory " + path + " 0x0 -");
    }
}

void writeFile(MachineText& out, const std::string& path, const RecordedPath& node)
{
    std::string bytes;
    for (const auto& area : joinedAreas(node.reads)) {
        if (area.first > bytes.size()) {
            bytes.resize(static_cast<size_t>(area.first));
        }
        bytes.replace(static_cast<size_t>(area.first), std::min(area.second.size(), bytes.size() - area.first),
                      area.second);
    }
    std::string wanted = path.substr(1);
    out.line("file " + path + " " + out.data("files/" + (wanted.empty() ? "root" : wanted), bytes));
}

void writePath(MachineText& out, const Recording& recording, const std::string& path, const RecordedPath& node)
{
    if (!node.opened) {
        if (node.openError != 0 && (node.openError != ENOENT || listedType(recording, path) != 0)) {
            out.line("deny " + path + " " + errnoName(node.openError));
        }
        return;
    }
    if (writeSgNode(out, path, node) || writeBlockNode(out, path, node) || writeFloppyNode(out, path, node) ||
        writeSerialNode(out, path, node) || writeUsbfsNode(out, path, node)) {
        writeRefusals(out, path, node);
        return;
    }
    if (node.mapped || path == "/dev/mem") {
        writeMemory(out, path, node);
    } else if (!node.reads.empty() || node.readToEnd) {
        writeFile(out, path, node);
    } else {
        char type = listedType(recording, path);
        out.line("node " + path + " " + (type == 0 ? 'c' : type));
    }
    writeRefusals(out, path, node);
}

void writePaths(MachineText& out, const Recording& recording)
{
    if (recording.pathOrder.empty()) {
        return;
    }
    out.blank();
    out.comment("Files and device nodes, in the order they were first opened, with what they answered.");
    for (const auto& path : recording.pathOrder) {
        writePath(out, recording, path, recording.paths.at(path));
    }
}

void writeSemaphores(MachineText& out, const Recording& recording)
{
    if (recording.semaphoreKeys.empty()) {
        return;
    }
    std::string keys;
    for (int key : recording.semaphoreKeys) {
        char text[16];
        std::snprintf(text, sizeof text, " 0x%X", static_cast<unsigned int>(key));
        keys += text;
    }
    out.blank();
    out.comment("Semaphore keys used:" + keys + ". Their values are not kept: a replay starts fresh.");
}

} // namespace

void writeRecording(const Recording& recording, const std::string& directory, const RecordingHeader& header)
{
    MachineText out(directory);
    writeHeader(out, recording, header);
    writeCommands(out, recording);
    writeSysfs(out, recording);
    writeListings(out, recording);
    writePaths(out, recording);
    writeSemaphores(out, recording);
    std::ofstream machine(joined(directory, "machine"), std::ios::binary);
    machine << out.text();
    if (!machine) {
        throw std::runtime_error("cannot write " + joined(directory, "machine"));
    }
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel
