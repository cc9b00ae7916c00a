#include "Platform.h"

namespace Quorvis::VelStream {

std::string_view platform()
{
    return VELSTREAM_PLATFORM;
}

} // namespace Quorvis::VelStream
