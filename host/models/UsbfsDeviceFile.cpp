// The usbfs node model's text form: the device files that a machine
// directory names, read into a model.
#include "host/models/UsbfsModel.h"

#include "host/fake/MachineDirectory.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

namespace Vantrel {
namespace Ostrand {
namespace host {

namespace {

[[noreturn]] void bad(int line, const std::string& message)
{
    throw std::invalid_argument("line " + std::to_string(line) + ": " + message);
}

long numberOf(int line, const std::string& word, int base)
{
    char* end = nullptr;
    errno = 0;
    long value = std::strtol(word.c_str(), &end, base);
    if (word.empty() || end == nullptr || *end != '\0' || errno != 0) {
        bad(line, "not a number: " + word);
    }
    return value;
}

// The value of one or two hexadecimal digits, as strtol reads them; -1 for
// any other word, which strtol then reads.
int plainByte(const std::string& word)
{
    auto digit = [](char c) {
        return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
    };
    if (word.size() == 1) {
        return digit(word[0]);
    }
    if (word.size() == 2 && digit(word[0]) >= 0 && digit(word[1]) >= 0) {
        return digit(word[0]) * 16 + digit(word[1]);
    }
    return -1;
}

std::string bytesOf(int line, const std::vector<std::string>& words, size_t first)
{
    std::string bytes;
    bytes.reserve(words.size() - std::min(first, words.size()));
    for (size_t i = first; i < words.size(); ++i) {
        int plain = plainByte(words[i]);
        if (plain >= 0) {
            bytes += static_cast<char>(plain);
            continue;
        }
        long value = numberOf(line, words[i], 16);
        if (value < 0 || value > 0xff) {
            bad(line, "not a byte: " + words[i]);
        }
        bytes += static_cast<char>(value);
    }
    return bytes;
}

uint16_t wordOf(int line, const std::string& word)
{
    long value = numberOf(line, word, 0);
    if (value < 0 || value > 0xffff) {
        bad(line, "not a 16-bit word: " + word);
    }
    return static_cast<uint16_t>(value);
}

int errnoOf(int line, const std::string& name)
{
    int error = errnoNamed(name);
    if (error == 0) {
        bad(line, "unknown error name " + name);
    }
    return error;
}

void need(int line, const std::vector<std::string>& words, size_t count, const char* usage)
{
    if (words.size() < count) {
        bad(line, std::string("expected: ") + usage);
    }
}


} // namespace

std::shared_ptr<UsbfsModel> UsbfsModel::parse(const std::string& text)
{
    auto model = std::make_shared<UsbfsModel>();
    int number = 0;
    eachLine(text, [&](std::string& line) {
        ++number;
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        std::vector<std::string> words;
        splitWords(line, words);
        if (words.empty() || words[0][0] == '#') {
            return;
        }
        const std::string& key = words[0];
        if (key == "device") {
            model->setDeviceDescriptor(bytesOf(number, words, 1));
        } else if (key == "config") {
            model->addConfiguration(bytesOf(number, words, 1));
        } else if (key == "languages") {
            std::vector<uint16_t> languages;
            for (size_t i = 1; i < words.size(); ++i) {
                languages.push_back(wordOf(number, "0x" + words[i]));
            }
            model->setLanguages(languages);
        } else if (key == "string") {
            need(number, words, 2, "string INDEX TEXT");
            long index = numberOf(number, words[1], 10);
            std::string value = restOfLine(line, 2);
            if (index < 1 || index > 255 || value.size() > 126) {
                bad(number, "a string has an index from 1 to 255 and at most 126 characters");
            }
            model->setString(static_cast<int>(index), value);
        } else if (key == "status") {
            need(number, words, 2, "status WORD");
            model->setStatus(wordOf(number, words[1]));
        } else if (key == "driver") {
            need(number, words, 3, "driver INTERFACE NAME");
            model->setDriver(static_cast<int>(numberOf(number, words[1], 10)), words[2]);
        } else if (key == "hub") {
            model->setHubDescriptor(bytesOf(number, words, 1));
        } else if (key == "port") {
            need(number, words, 4, "port NUMBER STATUS CHANGE");
            long port = numberOf(number, words[1], 10);
            if (port < 1 || port > 255) {
                bad(number, "a port is numbered from 1 to 255");
            }
            model->setPort(static_cast<int>(port), wordOf(number, words[2]), wordOf(number, words[3]));
        } else if (key == "portinfo") {
            std::vector<int> devices;
            for (size_t i = 1; i < words.size(); ++i) {
                long device = numberOf(number, words[i], 10);
                if (device < 0 || device > 127) {
                    bad(number, "a device number is from 0 to 127");
                }
                devices.push_back(static_cast<int>(device));
            }
            if (devices.size() > 127) {
                bad(number, "a hub has at most 127 ports");
            }
            model->setPortInfo(devices);
        } else if (key == "reply") {
            need(number, words, 3, "reply BYTES|- EVENT NAME");
            // The bytes in one word, two digits each, or - for none.
            std::vector<std::string> pairs;
            const std::string& hex = words[1] == "-" ? std::string() : words[1];
            if (hex.size() % 2 != 0) {
                bad(number, "odd number of hexadecimal digits: " + hex);
            }
            for (size_t i = 0; i < hex.size(); i += 2) {
                pairs.push_back(hex.substr(i, 2));
            }
            model->setReply(restOfLine(line, 2), bytesOf(number, pairs, 0));
        } else if (key == "fail") {
            need(number, words, 3, "fail ERRNO EVENT NAME");
            model->fail(restOfLine(line, 2), errnoOf(number, words[1]));
        } else {
            bad(number, "unknown line '" + key + "'");
        }
    });
    return model;
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel
