#include "TimeStamps.h"

#include "Handles.h"

namespace Quorvis::VelStream {

namespace {

/// Used by the pad's streaming thread alone.
class RisingTimes {
public:
    void mend(GstPadProbeInfo* info)
    {
        auto* buffer = static_cast<GstBuffer*>(info->data);
        const GstClockTime time = time_of(buffer);
        if (time != GST_BUFFER_PTS(buffer)) {
            buffer = gst_buffer_make_writable(buffer);
            GST_BUFFER_PTS(buffer) = time;
            info->data = buffer;
        }
        next_ = time + GST_MSECOND;
    }

private:
    static constexpr GstClockTime kStep = 500 * GST_MSECOND; ///< back by more: the times that follow are set back too

    GstClockTime time_of(const GstBuffer* buffer)
    {
        if (!GST_BUFFER_PTS_IS_VALID(buffer)) return next_;
        const GstClockTime time = GST_BUFFER_PTS(buffer) + shift_;
        if (time + GST_MSECOND > next_) return time;
        if (time + kStep < next_) shift_ += next_ - time;
        return next_;
    }

    GstClockTime next_ = 0;  ///< right behind the last picture
    GstClockTime shift_ = 0; ///< of all pictures, by the steps back so far
};

GstPadProbeReturn mend_time(GstPad*, GstPadProbeInfo* info, gpointer times)
{
    static_cast<RisingTimes*>(times)->mend(info);
    return GST_PAD_PROBE_OK;
}

} // namespace

void make_times_rise(GstElement* element, const char* name)
{
    const PadPtr pad(element ? gst_element_get_static_pad(element, name) : nullptr);
    if (!pad) return;
    gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_BUFFER, mend_time, new RisingTimes,
                      [](gpointer times) { delete static_cast<RisingTimes*>(times); });
}

} // namespace Quorvis::VelStream
