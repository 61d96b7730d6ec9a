#include "probes/HexText.h"

#include <algorithm>
#include <cstddef>

namespace Vantrel {
namespace Ostrand {

void splitBusDevFn(std::string_view text, int& bus, int& device, int& function)
{
    // 1, 2. Without the domain, if there is one. A search that finds nothing
    //       gives npos, so a text without a colon or a point is taken whole.
    //       The two beginnings up to the first and the last colon are one
    //       text exactly when they are equally long. The parts are views
    //       of the text, not copies: no start below lies behind its end.
    size_t first = text.find(':');
    size_t last = text.rfind(':');
    std::string_view working = text;
    if (std::min(first, text.size()) != std::min(last, text.size())) {
        working = working.substr(first + 1, last);
    }
    // 3. The bus, up to the first colon.
    size_t colon = working.find(':');
    bus = readHex(working.substr(0, colon));
    // 4. The device, behind that colon up to the first point.
    size_t point = working.find('.');
    device = readHex(working.substr(colon + 1, point - (colon + 1)));
    // 5. The function, behind the last point.
    size_t lastPoint = working.rfind('.');
    function = readHex(working.substr(lastPoint + 1));
}

} // namespace Ostrand
} // namespace Vantrel
