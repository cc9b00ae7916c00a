#include "StreamOutput.h"

#include "BuilderList.h"

namespace Quorvis::VelStream {

StreamOutput::~StreamOutput() = default;

void keep_builder(StreamOutput* builder)
{
    BuilderList<StreamOutput>::keep(builder);
}

} // namespace Quorvis::VelStream
