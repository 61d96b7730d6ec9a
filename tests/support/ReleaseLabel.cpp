#include "tests/support/ReleaseLabel.h"

#include "usb/LsusbText.h"

namespace ostrand_test {

std::string withReleaseLabel(std::string text)
{
    for (std::string::size_type at = text.find("@RELEASE@"); at != std::string::npos;
         at = text.find("@RELEASE@", at)) {
        text.replace(at, 9, Vantrel::Ostrand::kUsbReleaseLabel);
    }
    return text;
}

} // namespace ostrand_test
