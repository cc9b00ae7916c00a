#include "StreamBase.h"

#include "Handles.h"

#include <utility>

namespace Quorvis::VelStream {

namespace {

void add_ghost_pad(GstElement* bin, GstElement* elem, const char* name)
{
    const PadPtr target(gst_element_get_static_pad(elem, name));
    if (!target) return;
    GstPad* ghost = gst_ghost_pad_new(name, target.get());
    gst_pad_set_active(ghost, TRUE);
    gst_element_add_pad(bin, ghost);
}

} // namespace

StreamBase::StreamBase() : stream_id_("empty") {}

void StreamBase::createSinkPad(GstElement* bin, GstElement* elem)
{
    add_ghost_pad(bin, elem, "sink");
}

void StreamBase::createSrcPad(GstElement* bin, GstElement* elem)
{
    add_ghost_pad(bin, elem, "src");
}

void StreamBase::set_stream_id(std::string id)
{
    stream_id_ = std::move(id);
}

} // namespace Quorvis::VelStream
