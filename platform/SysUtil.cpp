#include "platform/SysUtil.h"

#include <unistd.h>

namespace Vantrel {
namespace System {

void SysUtil::sleepForSeconds(unsigned int seconds)
{
    unsigned int left = seconds;
    while (left > 0) {
        left = ::sleep(left);
    }
}

} // namespace System
} // namespace Vantrel
