#include "tests/support/CommandRun.h"

#include <cstdio>
#include <sys/wait.h>

namespace ostrand_test {

#ifdef OSTRAND_COMMAND
CommandRun runCommand(const std::string& arguments)
{
    std::string line = std::string(OSTRAND_COMMAND) + " " + arguments;
    CommandRun result{-1, ""};
    FILE* pipe = ::popen(line.c_str(), "r");
    if (pipe == nullptr) {
        return result;
    }
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) {
        result.out.append(buffer, n);
    }
    int status = ::pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}
#endif

int countLines(const std::string& text)
{
    int count = 0;
    for (char c : text) {
        count += c == '\n';
    }
    return count;
}

} // namespace ostrand_test
