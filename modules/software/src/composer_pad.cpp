#include "composer_pad.h"

#include "number_list.h"
#include "video_properties.h"

namespace velstream::software {

namespace {

enum Property : guint { kPosition = 1, kDimensions, kCrop, kAlpha, kZorder, kRotate, kFlipHorizontal, kFlipVertical };

struct VelComposerPad {
    GstAggregatorPad parent;
    ComposerInput* input; ///< owned
};

struct VelComposerPadClass {
    GstAggregatorPadClass parent_class;
};

GType vel_composer_pad_get_type();
G_DEFINE_TYPE(VelComposerPad, vel_composer_pad, GST_TYPE_AGGREGATOR_PAD)

GstClockTime running_time(GstAggregatorPad* pad, GstClockTime time)
{
    GST_OBJECT_LOCK(pad);
    const guint64 result = gst_segment_to_running_time(&pad->segment, GST_FORMAT_TIME, time);
    GST_OBJECT_UNLOCK(pad);
    return result;
}

/// None: neither the frame nor its caps tell.
GstClockTime duration_of(GstBuffer* buffer, const GstVideoInfo& info)
{
    if (GST_BUFFER_DURATION_IS_VALID(buffer)) return GST_BUFFER_DURATION(buffer);
    if (GST_VIDEO_INFO_FPS_N(&info) <= 0) return GST_CLOCK_TIME_NONE;
    return gst_util_uint64_scale_int(GST_SECOND, GST_VIDEO_INFO_FPS_D(&info), GST_VIDEO_INFO_FPS_N(&info));
}

bool is_gap(GstBuffer* buffer)
{
    return gst_buffer_get_size(buffer) == 0;
}

template <std::size_t Count>
void write_numbers(GValue* value, const NumberList<Count>& numbers)
{
    g_value_set_boxed(value, &numbers);
}

void store_property(ComposerInput& input, guint id, const GValue* value)
{
    TileLayout& layout = input.layout;
    NumberList<2> pair{};
    NumberList<4> four{};
    switch (id) {
    case kPosition:
        if (!read_numbers(value, pair)) return;
        layout.area.x = pair[0];
        layout.area.y = pair[1];
        return;
    case kDimensions:
        if (!read_numbers(value, pair)) return;
        layout.area.width = pair[0];
        layout.area.height = pair[1];
        return;
    case kCrop:
        if (read_numbers(value, four)) layout.crop = {four[0], four[1], four[2], four[3]};
        return;
    case kAlpha:
        layout.alpha = g_value_get_double(value);
        return;
    case kZorder:
        input.zorder = g_value_get_uint(value);
        return;
    case kRotate:
        layout.rotation = static_cast<Rotation>(g_value_get_enum(value));
        return;
    case kFlipHorizontal:
        layout.is_flipped_horizontally = g_value_get_boolean(value);
        return;
    case kFlipVertical:
        layout.is_flipped_vertically = g_value_get_boolean(value);
        return;
    default:
        return;
    }
}

void set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    if (G_VALUE_HOLDS_BOXED(value) && !g_value_get_boxed(value))
        GST_WARNING_OBJECT(object, "the value of %s is no list of its numbers; it stays as it was", pspec->name);
    GST_OBJECT_LOCK(object);
    store_property(input_of(object), id, value);
    GST_OBJECT_UNLOCK(object);
}

void get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    GST_OBJECT_LOCK(object);
    const TileLayout layout = input_of(object).layout;
    const guint zorder = input_of(object).zorder;
    GST_OBJECT_UNLOCK(object);
    switch (id) {
    case kPosition:
        write_numbers<2>(value, {layout.area.x, layout.area.y});
        break;
    case kDimensions:
        write_numbers<2>(value, {layout.area.width, layout.area.height});
        break;
    case kCrop:
        write_numbers<4>(value, {layout.crop.x, layout.crop.y, layout.crop.width, layout.crop.height});
        break;
    case kAlpha:
        g_value_set_double(value, layout.alpha);
        break;
    case kZorder:
        g_value_set_uint(value, zorder);
        break;
    case kRotate:
        g_value_set_enum(value, static_cast<int>(layout.rotation));
        break;
    case kFlipHorizontal:
        g_value_set_boolean(value, layout.is_flipped_horizontally);
        break;
    case kFlipVertical:
        g_value_set_boolean(value, layout.is_flipped_vertically);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
    }
}

void finalize(GObject* object)
{
    delete reinterpret_cast<VelComposerPad*>(object)->input;
    G_OBJECT_CLASS(vel_composer_pad_parent_class)->finalize(object);
}

GstFlowReturn flush(GstAggregatorPad* pad, GstAggregator*)
{
    input_of(pad).drop_frame();
    return GST_FLOW_OK;
}

void vel_composer_pad_init(VelComposerPad* self)
{
    self->input = new ComposerInput;
}

void install_properties(GObjectClass* klass)
{
    constexpr auto flags =
        static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING);
    constexpr auto controllable = static_cast<GParamFlags>(flags | GST_PARAM_CONTROLLABLE);
    const auto install = [klass](guint id, GParamSpec* spec) { g_object_class_install_property(klass, id, spec); };
    install(kPosition, g_param_spec_boxed("position", "Position", "Top left corner on the canvas ('<X, Y>')",
                                          number_list_type<2>(), flags));
    install(kDimensions, g_param_spec_boxed("dimensions", "Dimensions",
                                            "Size on the canvas ('<WIDTH, HEIGHT>', a zero: the canvas's)",
                                            number_list_type<2>(), flags));
    install(kCrop, g_param_spec_boxed("crop", "Crop", "Part of the input to take ('<X, Y, WIDTH, HEIGHT>', zeros: all)",
                                      number_list_type<4>(), flags));
    install(kAlpha,
            g_param_spec_double("alpha", "Alpha", "How much covers what is below", 0.0, 1.0, 1.0, controllable));
    install(kZorder,
            g_param_spec_uint("zorder", "Z order", "Pads with higher numbers lie above", 0, G_MAXUINT, 0, flags));
    install(kRotate, g_param_spec_enum("rotate", "Rotate", "Turn of the picture", rotation_type(),
                                       static_cast<int>(Rotation::none), flags));
    install(kFlipHorizontal, g_param_spec_boolean("flip-horizontal", "Flip horizontally", "Exchange left and right",
                                                  FALSE, controllable));
    install(kFlipVertical,
            g_param_spec_boolean("flip-vertical", "Flip vertically", "Exchange top and bottom", FALSE, controllable));
}

void vel_composer_pad_class_init(VelComposerPadClass* klass)
{
    GObjectClass* object_class = G_OBJECT_CLASS(klass);
    object_class->set_property = set_property;
    object_class->get_property = get_property;
    object_class->finalize = finalize;
    install_properties(object_class);
    GST_AGGREGATOR_PAD_CLASS(klass)->flush = flush;
}

} // namespace

GType composer_pad_type()
{
    return vel_composer_pad_get_type();
}

ComposerInput& input_of(gpointer pad)
{
    return *static_cast<VelComposerPad*>(pad)->input;
}

void ComposerInput::reset()
{
    drop_frame();
    next_info_.reset();
    tile_layout_.reset();
}

/// The frame in front of the queue is the one to be seen; an empty one (a gap) only says that the last one stays.
void ComposerInput::take(GstAggregatorPad* pad, GstClockTime start)
{
    BufferPtr buffer(gst_aggregator_pad_pop_buffer(pad));
    if (!buffer || !next_info_) return;
    const GstClockTime duration = duration_of(buffer.get(), *next_info_);
    end_ = GST_CLOCK_TIME_IS_VALID(start) && GST_CLOCK_TIME_IS_VALID(duration) ? start + duration : GST_CLOCK_TIME_NONE;
    if (is_gap(buffer.get())) return;
    frame_ = std::move(buffer);
    info_ = *next_info_;
    is_unseen_ = true;
}

/// A frame of unknown length is seen once where no other follows.
bool ComposerInput::is_over(const CanvasTime& time) const
{
    if (!frame_) return true;
    return GST_CLOCK_TIME_IS_VALID(end_) ? end_ <= time.start && !is_unseen_ : !is_unseen_;
}

InputState ComposerInput::advance(GstAggregatorPad* pad, const CanvasTime& time)
{
    while (const BufferPtr next{gst_aggregator_pad_peek_buffer(pad)}) {
        if (!GST_BUFFER_PTS_IS_VALID(next.get())) {
            take(pad, GST_CLOCK_TIME_NONE);
            return InputState::ready;
        }
        const GstClockTime start = running_time(pad, GST_BUFFER_PTS(next.get()));
        if (!GST_CLOCK_TIME_IS_VALID(start)) {
            gst_aggregator_pad_drop_buffer(pad); // outside of the segment
            continue;
        }
        if (start >= time.end) return InputState::ready;
        take(pad, start);
    }
    if (gst_aggregator_pad_is_eos(pad)) {
        if (!is_over(time)) return InputState::ready;
        drop_frame();
        return InputState::ended;
    }
    const bool lasts = GST_CLOCK_TIME_IS_VALID(end_) && end_ >= time.end;
    return lasts ? InputState::ready : InputState::wanting;
}

ComposerTile& ComposerInput::tile(const GstVideoInfo& canvas, guint canvas_number, const TileLayout& wanted)
{
    is_unseen_ = false;
    if (tile_layout_ != wanted || tile_canvas_ != canvas_number || !gst_video_info_is_equal(&tile_info_, &info_)) {
        tile_.configure(info_, canvas, wanted);
        tile_layout_ = wanted;
        tile_canvas_ = canvas_number;
        tile_info_ = info_;
    }
    return tile_;
}

} // namespace velstream::software
