// What a runner reads from the messages of its bus.
#pragma once

#include "Handles.h"

namespace Quorvis::VelStream {

/// Error text and debugging information of an error's or a warning's message.
struct ErrorReport {
    explicit ErrorReport(GstMessage* message)
    {
        GError* raw_error = nullptr;
        char* raw_debug = nullptr;
        if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_WARNING)
            gst_message_parse_warning(message, &raw_error, &raw_debug);
        else
            gst_message_parse_error(message, &raw_error, &raw_debug);
        error_.reset(raw_error);
        debug_.reset(raw_debug);
    }
    const char* text() const { return error_ ? error_->message : "none"; }
    bool has_debug() const { return debug_ != nullptr; }
    const char* debug() const { return debug_ ? debug_.get() : "none"; }

private:
    ErrorPtr error_;
    TextPtr debug_;
};

inline const char* source_name(GstMessage* message)
{
    const GstObject* source = GST_MESSAGE_SRC(message);
    return source && GST_OBJECT_NAME(source) ? GST_OBJECT_NAME(source) : "unknown";
}

} // namespace Quorvis::VelStream
