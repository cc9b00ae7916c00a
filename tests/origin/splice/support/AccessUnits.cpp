#include "AccessUnits.h"

#include "Handles.h"
#include "VideoFiles.h"

#include <gst/app/gstappsink.h>
#include <gtest/gtest.h>

namespace velstream::testing {

using namespace Quorvis::VelStream;

namespace {

AccessUnit copy_unit(GstBuffer* buffer)
{
    const MappedBuffer map(buffer, GST_MAP_READ);
    return {Bytes(map.data(), map.data() + map.size()), static_cast<long>(GST_BUFFER_PTS(buffer))};
}

} // namespace

std::vector<AccessUnit> read_access_units(const std::string& path)
{
    gst_init(nullptr, nullptr);
    const std::string text = "filesrc location=" + path +
                             " ! qtdemux ! h265parse config-interval=-1 ! "
                             "video/x-h265,stream-format=byte-stream,alignment=au ! appsink name=out sync=false";
    const ElementPtr pipeline = share(gst_parse_launch(text.c_str(), nullptr));
    const ElementPtr out(gst_bin_get_by_name(GST_BIN(pipeline.get()), "out"));
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    std::vector<AccessUnit> units;
    while (const SamplePtr sample{gst_app_sink_try_pull_sample(GST_APP_SINK(out.get()), 60 * GST_SECOND)})
        units.push_back(copy_unit(gst_sample_get_buffer(sample.get())));
    gst_element_set_state(pipeline.get(), GST_STATE_NULL);
    return units;
}

std::vector<AccessUnit> make_access_units(const ClipSpec& spec, const std::string& path)
{
    media::MediaSpec media;
    media.codec = "h265";
    media.width = spec.width;
    media.height = spec.height;
    media.frames = spec.frames;
    media.b_frames = spec.b_frames;
    media.has_noise = spec.has_noise;
    make_video(media, path);
    std::vector<AccessUnit> units = read_access_units(path);
    EXPECT_EQ(units.size(), static_cast<std::size_t>(spec.frames));
    return units;
}

Bytes nal_unit(unsigned type)
{
    return {0, 0, 1, static_cast<std::uint8_t>(type << 1U), 1, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF, 0x80};
}

Bytes nal_units(std::initializer_list<unsigned> types)
{
    Bytes all;
    for (const unsigned type : types) {
        const Bytes one = nal_unit(type);
        all.insert(all.end(), one.begin(), one.end());
    }
    return all;
}

} // namespace velstream::testing
