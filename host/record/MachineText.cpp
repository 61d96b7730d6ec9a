#include "host/record/MachineText.h"

#include "host/models/IoctlNames.h"
#include "host/models/SgModel.h"
#include "host/fake/MachineDirectory.h"

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <linux/cdrom.h>
#include <linux/usbdevice_fs.h>
#include <scsi/sg.h>
#include <stdexcept>
#include <sys/ioctl.h>

namespace Vantrel {
namespace Ostrand {
namespace host {

std::string MachineText::data(const std::string& wanted, const std::string& bytes)
{
    std::string name = wanted;
    std::string stem = wanted;
    std::string extension;
    size_t dot = wanted.rfind('.');
    size_t slash = wanted.rfind('/');
    if (dot != std::string::npos && (slash == std::string::npos || dot > slash)) {
        stem = wanted.substr(0, dot);
        extension = wanted.substr(dot);
    }
    for (int n = 2; m_names.count(name) != 0; ++n) {
        name = stem + "-" + std::to_string(n) + extension;
    }
    m_names.insert(name);
    std::filesystem::path file = std::filesystem::path(m_directory) / name;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream out(file, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) {
        throw std::runtime_error("cannot write " + file.string());
    }
    line("size " + name + " " + std::to_string(bytes.size()));
    return name;
}

std::string hexWord(const std::string& bytes, bool dashForNone)
{
    if (bytes.empty() && dashForNone) {
        return "-";
    }
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    for (unsigned char byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 0x0F];
    }
    return text;
}

std::string hexPairs(const std::string& bytes)
{
    std::string text;
    for (size_t i = 0; i < bytes.size(); ++i) {
        text += (i == 0 ? "" : " ") + hexWord(bytes.substr(i, 1));
    }
    return text;
}

std::string escaped(const std::string& text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        bool edge = (i == 0 || i + 1 == text.size()) && (c == ' ' || c == '\t');
        if (c == '\r') {
            out += "\\r";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\\') {
            out += "\\\\";
        } else if (edge || c == '#' || c == '"' || c < 0x20 || c >= 0x7F) {
            char code[8];
            std::snprintf(code, sizeof code, "\\x%02X", c);
            out += code;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

std::string fileNameOf(const std::string& text)
{
    std::string name;
    for (char c : text) {
        if (std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '_') {
            name += c;
        } else if (!name.empty() && name.back() != '-') {
            name += '-';
        }
    }
    while (!name.empty() && (name.back() == '-' || name.back() == '.')) {
        name.pop_back();
    }
    while (!name.empty() && name.front() == '.') {
        name.erase(0, 1);
    }
    if (name.size() > 60) {
        name.resize(60);
    }
    return name.empty() ? "data" : name;
}

std::string scsiCommandWord(int opcode)
{
    switch (opcode & 0xFF) {
    case kTestUnitReady: return "test-unit-ready";
    case kInquiry: return "inquiry";
    case kModeSense10: return "mode-sense";
    case kModeSense6: return "mode-sense-6";
    case kReadCapacity10: return "read-capacity";
    default: {
        char word[16];
        std::snprintf(word, sizeof word, "0x%02X", static_cast<unsigned int>(opcode) & 0xFF);
        return word;
    }
    }
}

const RecordedIoctl* firstAnswer(const RecordedPath& node, unsigned long request)
{
    for (const auto& call : node.ioctls) {
        if (call.request == request && call.result >= 0) {
            return &call;
        }
    }
    return nullptr;
}

namespace {

// The requests whose every call a model answers from lines of its own, in order.
bool answeredCallByCall(unsigned long request)
{
    return request == SG_IO || request == CDROM_SEND_PACKET || request == USBDEVFS_CONTROL ||
           request == USBDEVFS_GETDRIVER || request == USBDEVFS_IOCTL;
}

} // namespace

void writeRefusals(MachineText& out, const std::string& path, const RecordedPath& node)
{
    std::set<unsigned long> seen;
    for (const auto& call : node.ioctls) {
        if (!seen.insert(call.request).second || answeredCallByCall(call.request)) {
            continue;
        }
        if (call.result < 0) {
            out.line("refuse-ioctl " + path + " " + ioctlName(call.request) + " " + errnoName(call.error));
        }
    }
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel
