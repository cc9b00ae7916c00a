#include "stream_errors.h"

#include "gst_handles.h"

#include <gst/gst.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

namespace velstream::tool {

namespace {

using Clock = std::chrono::steady_clock;

/// One trouble makes several elements report, and the first one knows the cause, be it with a warning.
constexpr std::chrono::seconds kBurst{1};

// Written by whatever thread posts, read at a stream's end; they live as long as the process, as the hook does.
std::mutex& errors_mutex()
{
    static auto* mutex = new std::mutex;
    return *mutex;
}

struct StreamError {
    std::string text;
    Clock::time_point last; ///< when the last error of its burst came
};

std::map<std::string, StreamError>& errors()
{
    static auto* errors = new std::map<std::string, StreamError>;
    return *errors;
}

using ObjectPtr = handles::GstObjectPtr<GstObject>;

std::string name_of(GstObject* object)
{
    const handles::TextPtr name(gst_object_get_name(object));
    return name ? name.get() : "";
}

/// A stream's pipeline is named after it; an element may have one of its own inside.
std::string pipeline_name(GstObject* pipeline)
{
    ObjectPtr object(GST_OBJECT(gst_object_ref(pipeline)));
    while (ObjectPtr parent{gst_object_get_parent(object.get())})
        object = std::move(parent);
    return name_of(object.get());
}

std::string error_text(GstMessage* message)
{
    GError* error = nullptr;
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR)
        gst_message_parse_error(message, &error, nullptr);
    else
        gst_message_parse_warning(message, &error, nullptr);
    std::string text = error ? error->message : "unknown error";
    g_clear_error(&error);
    while (!text.empty() && (text.back() == '.' || text.back() == '\n'))
        text.pop_back();
    return text;
}

void note(GstElement* pipeline, GstMessage* message)
{
    if (!(GST_MESSAGE_TYPE(message) & (GST_MESSAGE_ERROR | GST_MESSAGE_WARNING)) || !GST_MESSAGE_SRC(message)) return;
    const std::string text = name_of(GST_MESSAGE_SRC(message)) + ": " + error_text(message);
    const std::string stream = pipeline_name(GST_OBJECT(pipeline));
    const std::lock_guard lock(errors_mutex());
    StreamError& error = errors()[stream];
    const auto now = Clock::now();
    if (error.text.empty() || now - error.last > kBurst) error.text = text;
    error.last = now;
}

gboolean (*post_message)(GstElement*, GstMessage*) = nullptr; // written before a stream starts

gboolean note_and_post(GstElement* pipeline, GstMessage* message)
{
    note(pipeline, message);
    return post_message(pipeline, message);
}

} // namespace

/// The runners own the buses, so the messages are seen where a pipeline puts them there. A tracer would see them too,
/// and would have GStreamer read the clock for every buffer, event and reference.
void watch_stream_errors()
{
    static auto* pipelines = GST_ELEMENT_CLASS(g_type_class_ref(GST_TYPE_PIPELINE)); // as long as the process
    if (post_message) return;
    post_message = pipelines->post_message;
    pipelines->post_message = note_and_post;
}

std::string stream_error(const std::string& stream_id)
{
    const std::lock_guard lock(errors_mutex());
    const auto found = errors().find(stream_id);
    return found == errors().end() ? "" : found->second.text;
}

std::string last_stream_error()
{
    const std::lock_guard lock(errors_mutex());
    const auto last = std::max_element(errors().begin(), errors().end(),
                                       [](const auto& a, const auto& b) { return a.second.last < b.second.last; });
    return last == errors().end() ? "" : last->second.text;
}

void forget_stream_errors()
{
    const std::lock_guard lock(errors_mutex());
    errors().clear();
}

} // namespace velstream::tool
