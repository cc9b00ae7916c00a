// The inside of a codec bin: a chain of elements between the bin's ghost pads "sink" and "src" that can be replaced
// while data flows.
#pragma once

#include "software_handles.h"

#include <vector>

namespace velstream::software {

/**
 * Owns the elements between the two ghost pads. All calls come from the bin's state change or from the streaming thread
 * of its sink pad, which never overlap: the pads are inactive outside PAUSED and PLAYING.
 */
class CodecChain {
public:
    /// Makes the bin's two ghost pads from its class's pad templates; both handles are borrowed from the bin.
    explicit CodecChain(GstBin* bin);

    GstPad* sink() const { return sink_; }
    GstPad* src() const { return src_; }
    bool empty() const { return elements_.empty(); }
    /// The element at `index`, first to last; borrowed.
    GstElement* at(std::size_t index) const { return elements_.at(index).get(); }

    /**
     * Puts `elements` between the pads, in place of those that are there.
     * @param elements  first to last, none null
     * @return false: they do not link, and the pads lead nowhere
     */
    bool install(std::vector<ElementPtr> elements);

    /// Lets the elements give what they still hold; the end-of-stream event that makes them do so stays inside.
    void drain();

private:
    void remove();

    GstBin* bin_;
    GstPad* sink_;
    GstPad* src_;
    std::vector<ElementPtr> elements_;
};

} // namespace velstream::software
