// The sysfs reader's text work over arbitrary input: SetAttribute on an
// attribute built as libsysfs builds one (a name, a value buffer with a zero
// behind it, a len no longer than the bytes read, or no value at all), and
// GetScsiDeviceCBTL on arbitrary text. Both are checked against what they
// promise. Layout (FuzzedDataProvider): the name and the SCSI id as strings
// from the front, the value as the rest; from the back one byte of flags
// (1: no value, 2: len is the value's size as libsysfs sets it) and a 16-bit
// len otherwise taken modulo the size plus one.
#include "fuzz/FuzzSupport.h"
#include "probes/CSysfsReader.h"

#include <sysfs/libsysfs.h>

#include <fuzzer/FuzzedDataProvider.h>
#include <cstring>
#include <vector>

using namespace Vantrel::Ostrand;

namespace {

// What SetAttribute must make of the value: the buffer afterwards, and the text.
void expected(const std::vector<char>& bytes, bool hasValue, unsigned short len, std::vector<char>& buffer,
              std::string& text)
{
    buffer = bytes;
    text.clear();
    if (!hasValue || buffer[0] == '\0') {
        return;
    }
    size_t length = std::strlen(buffer.data());
    if (buffer[length - 1] == '\n') {
        buffer[length - 1] = '\0';
    }
    if (len > 0) {
        text.assign(buffer.data(), len - 1);
    }
}

void setAttribute(FuzzedDataProvider& input, const std::string& name)
{
    uint8_t flags = input.ConsumeIntegral<uint8_t>();
    uint16_t lenSeed = input.ConsumeIntegral<uint16_t>();
    std::string value = input.ConsumeRemainingBytesAsString();

    std::vector<char> bytes(value.begin(), value.end());
    bytes.push_back('\0');
    bool hasValue = (flags & 1) == 0;
    // len counts bytes that are really in the buffer, at most 16 bits of them.
    unsigned short len = (flags & 2) != 0 ? static_cast<unsigned short>(value.size())
                                          : static_cast<unsigned short>(lenSeed % (value.size() + 1));

    sysfs_attribute attribute;
    std::memset(&attribute, 0, sizeof attribute);
    std::strncpy(attribute.name, name.c_str(), sizeof attribute.name - 1);
    std::vector<char> buffer = bytes;
    attribute.value = hasValue ? buffer.data() : nullptr;
    attribute.len = len;

    std::vector<char> wantBuffer;
    std::string wantText;
    expected(bytes, hasValue, len, wantBuffer, wantText);

    CSysfsReader reader(nullptr);
    StrMap out;
    reader.SetAttribute(&attribute, out);
    ostrand_fuzz::check(out.size() == 1, "one entry");
    ostrand_fuzz::check(out.begin()->first == attribute.name, "the entry has the attribute's name");
    ostrand_fuzz::check(out.begin()->second == wantText, "the text is len - 1 bytes, line feed gone");
    ostrand_fuzz::check(!hasValue || buffer == wantBuffer, "only the last line feed of the buffer goes");

    // A second time: the first value stays.
    StrMap kept = {{attribute.name, "first"}};
    reader.SetAttribute(&attribute, kept);
    ostrand_fuzz::check(kept.size() == 1 && kept.begin()->second == "first", "an existing key keeps its value");
}

void splitScsiId(const std::string& id)
{
    CSysfsReader reader(nullptr);
    std::string controller = "c", bus = "b", target = "t", lun = "l";
    int result = reader.GetScsiDeviceCBTL(id, controller, bus, target, lun);
    size_t colons = 0;
    std::string rest;
    for (char c : id) {
        if (c == ':') {
            ++colons;
        } else {
            rest += c;
        }
    }
    if (id.empty()) {
        ostrand_fuzz::check(result == 1, "an empty id is 1");
        ostrand_fuzz::check(controller + bus + target + lun == "cbtl", "an empty id touches nothing");
    } else if (colons == 3) {
        ostrand_fuzz::check(result == 0, "three colons are 0");
        ostrand_fuzz::check(controller[0] == 'c' && bus[0] == 'b' && target[0] == 't' && lun[0] == 'l',
                            "outputs are appended to");
        ostrand_fuzz::check(controller.substr(1) + bus.substr(1) + target.substr(1) + lun.substr(1) == rest,
                            "every character lands in one field, in order");
    } else {
        ostrand_fuzz::check(result == 1, "any other count is 1");
        ostrand_fuzz::check(controller.empty() && bus.empty() && target.empty() && lun.empty(), "and clears");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    std::string name = input.ConsumeRandomLengthString(80);
    std::string id = input.ConsumeRandomLengthString(64);
    ostrand_fuzz::allowingNothing([&] {
        splitScsiId(id);
        setAttribute(input, name);
    });
    return 0;
}
