// The lab's captures of the command hold the label of the USB release as a
// mark, @RELEASE@; the label itself is the reader's.
#pragma once

#include <string>

namespace ostrand_test {

// The text with each mark replaced by the reader's label.
std::string withReleaseLabel(std::string text);

} // namespace ostrand_test
