#include "results.h"

#include <unistd.h>

namespace velstream::tool {

FILE* take_standard_output()
{
    std::fflush(stdout);
    const int results = dup(STDOUT_FILENO);
    dup2(STDERR_FILENO, STDOUT_FILENO);
    FILE* file = results >= 0 ? fdopen(results, "w") : nullptr;
    return file ? file : stdout;
}

} // namespace velstream::tool
