#include "Log.h"
#include "StreamBuild.h"
#include "velstream.h"

namespace Quorvis::VelStream {

namespace {

bool read_entry(const std::string& stream_id, StreamIns& ins)
{
    if (get_properties(stream_id, ins) == 0) return true;
    VEL_LOG_ERROR("There is no related stream information.");
    return false;
}

bool is_same_input(const StreamIns& first, const StreamIns& second)
{
    return first.inputAddr == second.inputAddr && first.inputType == second.inputType &&
           first.decodeType == second.decodeType;
}

} // namespace

int start_split_stream(std::string id_1, std::function<int8_t(const Image&)>& callback_1, std::string id_2,
                       std::function<int8_t(const Image&)>& callback_2)
{
    StreamIns first;
    StreamIns second;
    if (!read_entry(id_1, first) || !read_entry(id_2, second)) return -1;
    // Entries without a parent have the empty text for it, and pass.
    if (first.pStreamId != second.pStreamId || first.pStreamId == "empty_p") {
        VEL_LOG_ERROR("The input stream definition are not in the same source.");
        return -1;
    }
    if (!is_same_input(first, second)) {
        VEL_LOG_ERROR("The input stream definition are not the same.");
        return -1;
    }
    return startStream(first, callback_1, second, callback_2);
}

} // namespace Quorvis::VelStream
