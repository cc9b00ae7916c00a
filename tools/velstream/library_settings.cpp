#include "library_settings.h"

#include "velstream.h"

#include <map>

namespace velstream::tool {

/// The text outlives every call: the library keeps the pointer.
void set_configuration(const std::string& path)
{
    static std::string kept;
    kept = path;
    Quorvis::VelStream::g_stream_conf_file = kept.c_str();
    Quorvis::VelStream::stream_conf_file = kept.c_str();
}

void apply_log_level(const std::string& name)
{
    using namespace Quorvis::VelStream;
    static const std::map<std::string, GSTLogLevel> levels{{"info", GST_LOG_LEVEL_ALL},
                                                           {"warning", GST_LOG_LEVEL_WARNING},
                                                           {"error", GST_LOG_LEVEL_ERROR},
                                                           {"none", GST_LOG_LEVEL_NONE}};
    set_log_level(levels.at(name));
}

} // namespace velstream::tool
