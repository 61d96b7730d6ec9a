#include "host/models/ModemScript.h"

#include <cstdlib>

namespace Vantrel {
namespace Ostrand {
namespace host {

std::string unescape(const std::string& text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out += text[i];
            continue;
        }
        char c = text[++i];
        switch (c) {
        case 'r': out += '\r'; break;
        case 'n': out += '\n'; break;
        case 't': out += '\t'; break;
        case '\\': out += '\\'; break;
        case 'x':
            if (i + 2 < text.size()) {
                out += static_cast<char>(std::strtol(text.substr(i + 1, 2).c_str(), nullptr, 16));
                i += 2;
            }
            break;
        default: out += c; break;
        }
    }
    return out;
}

ModemScript ModemScript::parse(const std::string& text)
{
    ModemScript script;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('\n', start);
        std::string line = text.substr(start, end == std::string::npos ? std::string::npos : end - start);
        start = end == std::string::npos ? text.size() + 1 : end + 1;
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (line.size() >= 2 && line[0] == '>' && line[1] == ' ') {
            script.exchanges.push_back({unescape(line.substr(2)), {}});
        } else if (line.size() >= 1 && line[0] == '<' && !script.exchanges.empty()) {
            script.exchanges.back().pieces.push_back(unescape(line.size() >= 2 ? line.substr(2) : ""));
        }
    }
    return script;
}

} // namespace host
} // namespace Ostrand
} // namespace Vantrel
