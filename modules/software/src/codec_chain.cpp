#include "codec_chain.h"

namespace velstream::software {

namespace {

GstPad* add_ghost_pad(GstBin* bin, const char* name)
{
    GstPadTemplate* pad_template = gst_element_class_get_pad_template(GST_ELEMENT_GET_CLASS(bin), name);
    GstPad* pad = gst_ghost_pad_new_no_target_from_template(name, pad_template);
    gst_element_add_pad(GST_ELEMENT(bin), pad);
    return pad;
}

GstPadProbeReturn drop_end_of_stream(GstPad*, GstPadProbeInfo* info, gpointer)
{
    return GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_EOS ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK;
}

bool link_in_order(const std::vector<ElementPtr>& elements)
{
    for (std::size_t i = 1; i < elements.size(); ++i) {
        if (!gst_element_link(elements[i - 1].get(), elements[i].get())) return false;
    }
    return true;
}

} // namespace

CodecChain::CodecChain(GstBin* bin) : bin_(bin), sink_(add_ghost_pad(bin, "sink")), src_(add_ghost_pad(bin, "src")) {}

bool CodecChain::install(std::vector<ElementPtr> elements)
{
    remove();
    elements_ = std::move(elements);
    for (const ElementPtr& element : elements_)
        gst_bin_add(bin_, element.get());
    if (elements_.empty() || !link_in_order(elements_)) return false;
    const PadPtr first(gst_element_get_static_pad(elements_.front().get(), "sink"));
    const PadPtr last(gst_element_get_static_pad(elements_.back().get(), "src"));
    const bool is_targeted = gst_ghost_pad_set_target(GST_GHOST_PAD(src_), last.get()) &&
                             gst_ghost_pad_set_target(GST_GHOST_PAD(sink_), first.get());
    // On its own way out of NULL the bin takes its children along.
    if (GST_STATE(bin_) == GST_STATE_NULL) return is_targeted;
    for (auto element = elements_.rbegin(); element != elements_.rend(); ++element)
        gst_element_sync_state_with_parent(element->get());
    return is_targeted;
}

void CodecChain::drain()
{
    if (elements_.empty()) return;
    const PadPtr first(gst_element_get_static_pad(elements_.front().get(), "sink"));
    const PadPtr last(gst_element_get_static_pad(elements_.back().get(), "src"));
    const gulong probe =
        gst_pad_add_probe(last.get(), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, drop_end_of_stream, nullptr, nullptr);
    gst_pad_send_event(first.get(), gst_event_new_eos());
    gst_pad_remove_probe(last.get(), probe);
}

void CodecChain::remove()
{
    gst_ghost_pad_set_target(GST_GHOST_PAD(sink_), nullptr);
    gst_ghost_pad_set_target(GST_GHOST_PAD(src_), nullptr);
    for (const ElementPtr& element : elements_) {
        gst_element_set_state(element.get(), GST_STATE_NULL);
        gst_bin_remove(bin_, element.get());
    }
    elements_.clear();
}

} // namespace velstream::software
