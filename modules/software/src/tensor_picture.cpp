#include "tensor_picture.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>

namespace velstream::software {

namespace {

bool is_channel_count(int number)
{
    return number == 1 || number == 3;
}

/// `length` times `numerator` / `denominator`, rounded, inside 1 to `limit`.
int scaled(int length, int numerator, int denominator, int limit)
{
    const gint64 value = (gint64{length} * numerator + denominator / 2) / denominator;
    return static_cast<int>(std::clamp<gint64>(value, 1, limit));
}

/// The largest rectangle of the proportions of `width` x `height` inside of the bounds.
Rectangle fit(int width, int height, int max_width, int max_height)
{
    if (gint64{max_width} * height <= gint64{max_height} * width)
        return {0, 0, max_width, scaled(height, max_width, width, max_height)};
    return {0, 0, scaled(width, max_height, height, max_width), max_height};
}

Rectangle centred(Rectangle area, int width, int height)
{
    area.x = (width - area.width) / 2;
    area.y = (height - area.height) / 2;
    return area;
}

GstVideoInfo plain_info(GstVideoFormat format, int width, int height)
{
    GstVideoInfo info;
    gst_video_info_set_format(&info, format, static_cast<guint>(width), static_cast<guint>(height));
    return info;
}

/// What the transformer reads in place of a format that it does not know; the others are read as they are.
GstVideoFormat readable_format(GstVideoFormat format)
{
    if (format == GST_VIDEO_FORMAT_GRAY8) return GST_VIDEO_FORMAT_RGB;
    if (format == GST_VIDEO_FORMAT_UYVY) return GST_VIDEO_FORMAT_YUY2;
    return format;
}

GstVideoInfo readable_info(const GstVideoInfo& in)
{
    const GstVideoFormat format = readable_format(GST_VIDEO_INFO_FORMAT(&in));
    if (format == GST_VIDEO_INFO_FORMAT(&in)) return in;
    GstVideoInfo info = plain_info(format, GST_VIDEO_INFO_WIDTH(&in), GST_VIDEO_INFO_HEIGHT(&in));
    if (is_yuv(format)) {
        info.colorimetry = in.colorimetry;
        info.chroma_site = in.chroma_site;
    }
    return info;
}

Picture picture_in(std::vector<uint8_t>& memory, GstVideoFormat format, int width, int height, int stride)
{
    memory.resize(static_cast<std::size_t>(stride) * static_cast<std::size_t>(height));
    Picture picture{format, width, height, {}, {}};
    picture.data[0] = memory.data();
    picture.stride[0] = stride;
    return picture;
}

} // namespace

std::optional<TensorLayout> layout_of(const Tensors& tensors)
{
    if (tensors.shapes.size() != 1) return std::nullopt;
    const Shape& shape = tensors.shapes.front();
    if (shape.size() != 4 || shape[0] != 1 || size_of(tensors.type, shape) == 0) return std::nullopt;
    if (is_channel_count(shape[3])) return TensorLayout{false, shape[3], shape[2], shape[1]};
    if (is_channel_count(shape[1])) return TensorLayout{true, shape[1], shape[3], shape[2]};
    return std::nullopt;
}

TensorView place_picture(int video_width, int video_height, const TensorLayout& layout, Placement placement)
{
    TensorView view{video_width,  video_height,  {0, 0, video_width, video_height},
                    layout.width, layout.height, {0, 0, layout.width, layout.height}};
    switch (placement) {
    case Placement::top_left:
        view.place = fit(video_width, video_height, layout.width, layout.height);
        break;
    case Placement::centre:
        view.place = centred(fit(video_width, video_height, layout.width, layout.height), layout.width, layout.height);
        break;
    case Placement::centre_crop:
        view.source = centred(fit(layout.width, layout.height, video_width, video_height), video_width, video_height);
        break;
    case Placement::stretch:
        break;
    }
    return view;
}

void TensorWriter::configure(const GstVideoInfo& in, const Tensors& tensors, const TensorView& view, bool is_bgr,
                             const Normalisation& numbers)
{
    type_ = tensors.type;
    layout_ = layout_of(tensors).value_or(TensorLayout{});
    format_ = GST_VIDEO_INFO_FORMAT(&in);
    is_bgr_ = is_bgr;
    is_direct_ = type_ == TensorType::uint8 && !layout_.is_planar && layout_.channels == 3;
    for (std::size_t channel = 0; channel < values_.size(); ++channel)
        for (std::size_t byte = 0; byte < 256; ++byte)
            values_[channel][byte] =
                static_cast<float>((static_cast<double>(byte) - numbers.mean[channel]) * numbers.sigma[channel]);
    Geometry geometry;
    geometry.crop = view.source;
    geometry.destination = view.place;
    const GstVideoFormat order = is_bgr ? GST_VIDEO_FORMAT_BGR : GST_VIDEO_FORMAT_RGB;
    transformer_.configure(readable_info(in), plain_info(order, layout_.width, layout_.height), geometry);
}

Picture TensorWriter::unpack(const GstVideoFrame& frame)
{
    if (readable_format(format_) == format_) return picture_of(frame);
    const int width = GST_VIDEO_FRAME_WIDTH(&frame);
    const int height = GST_VIDEO_FRAME_HEIGHT(&frame);
    auto* data = static_cast<uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
    const auto stride = static_cast<std::size_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0));
    if (format_ == GST_VIDEO_FORMAT_GRAY8) {
        const Picture rgb = picture_in(unpacked_, GST_VIDEO_FORMAT_RGB, width, height, 3 * width);
        cv::Mat out(height, width, CV_8UC3, rgb.data[0]);
        cv::cvtColor(cv::Mat(height, width, CV_8UC1, data, stride), out, cv::COLOR_GRAY2RGB);
        return rgb;
    }
    const int pairs = (width + 1) / 2;
    const Picture yuy2 = picture_in(unpacked_, GST_VIDEO_FORMAT_YUY2, width, height, 4 * pairs);
    constexpr uint8_t kSwapped[16] = {1, 0, 3, 2, 5, 4, 7, 6, 9, 8, 11, 10, 13, 12, 15, 14};
    libyuv::ARGBShuffle(data, static_cast<int>(stride), yuy2.data[0], yuy2.stride[0], kSwapped, pairs, height);
    return yuy2;
}

template <typename Number>
void TensorWriter::spread(const uint8_t* pixels, Number* out) const
{
    const auto count = static_cast<std::size_t>(layout_.width) * static_cast<std::size_t>(layout_.height);
    const auto channels = static_cast<std::size_t>(layout_.channels);
    for (std::size_t channel = 0; channel < channels; ++channel) {
        const uint8_t* in = pixels + channel;
        Number* place = layout_.is_planar ? out + channel * count : out + channel;
        const std::size_t step = layout_.is_planar ? 1 : channels;
        for (std::size_t i = 0; i < count; ++i) {
            const uint8_t byte = in[i * channels];
            if constexpr (std::is_same_v<Number, float>)
                place[i * step] = values_[channel][byte];
            else
                place[i * step] = static_cast<Number>(byte);
        }
    }
}

void TensorWriter::write_numbers(const uint8_t* pixels, uint8_t* out) const
{
    switch (type_) {
    case TensorType::uint8:
        spread(pixels, out);
        break;
    case TensorType::int32:
        spread(pixels, reinterpret_cast<gint32*>(out));
        break;
    case TensorType::float32:
        spread(pixels, reinterpret_cast<float*>(out));
        break;
    }
}

void TensorWriter::write(const GstVideoFrame& frame, uint8_t* out)
{
    const GstVideoFormat order = is_bgr_ ? GST_VIDEO_FORMAT_BGR : GST_VIDEO_FORMAT_RGB;
    const int stride = 3 * layout_.width;
    Picture pixels{order, layout_.width, layout_.height, {}, {}};
    if (is_direct_) {
        pixels.data[0] = out;
        pixels.stride[0] = stride;
    } else {
        pixels = picture_in(pixels_, order, layout_.width, layout_.height, stride);
    }
    transformer_.run(unpack(frame), pixels);
    if (is_direct_) return;
    if (layout_.channels == 3) {
        write_numbers(pixels.data[0], out);
        return;
    }
    grey_.resize(pixels_.size() / 3);
    cv::Mat grey(layout_.height, layout_.width, CV_8UC1, grey_.data());
    cv::cvtColor(cv::Mat(layout_.height, layout_.width, CV_8UC3, pixels_.data()), grey,
                 is_bgr_ ? cv::COLOR_BGR2GRAY : cv::COLOR_RGB2GRAY);
    write_numbers(grey_.data(), out);
}

} // namespace velstream::software
