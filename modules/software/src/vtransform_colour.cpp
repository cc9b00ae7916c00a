#include "vtransform_colour.h"

#include <algorithm>
#include <cstring>

namespace velstream::software {

namespace {

/// Where the bytes of a pixel lie; alpha -1: none, the unused byte of an x format stands there too.
struct RgbLayout {
    GstVideoFormat format;
    int bytes, r, g, b, a;
    bool has_alpha;
};

constexpr RgbLayout kRgbLayouts[] = {
    {GST_VIDEO_FORMAT_RGB, 3, 0, 1, 2, -1, false}, {GST_VIDEO_FORMAT_BGR, 3, 2, 1, 0, -1, false},
    {GST_VIDEO_FORMAT_RGBA, 4, 0, 1, 2, 3, true},  {GST_VIDEO_FORMAT_RGBx, 4, 0, 1, 2, 3, false},
    {GST_VIDEO_FORMAT_BGRA, 4, 2, 1, 0, 3, true},  {GST_VIDEO_FORMAT_BGRx, 4, 2, 1, 0, 3, false},
    {GST_VIDEO_FORMAT_ARGB, 4, 1, 2, 3, 0, true},  {GST_VIDEO_FORMAT_xRGB, 4, 1, 2, 3, 0, false},
    {GST_VIDEO_FORMAT_ABGR, 4, 3, 2, 1, 0, true},  {GST_VIDEO_FORMAT_xBGR, 4, 3, 2, 1, 0, false},
};

const RgbLayout& layout_of(GstVideoFormat format)
{
    const auto* row = std::find_if(std::begin(kRgbLayouts), std::end(kRgbLayouts),
                                   [format](const RgbLayout& layout) { return layout.format == format; });
    return row == std::end(kRgbLayouts) ? kRgbLayouts[0] : *row;
}

/// The weights of the matrix; those of bt601 where it has none.
rows::Encoding encoding_of(const Colour& colour)
{
    rows::Encoding encoding{0.299, 0.114, colour.is_full_range};
    gst_video_color_matrix_get_Kr_Kb(colour.matrix, &encoding.kr, &encoding.kb);
    return encoding;
}

int half(int pixels)
{
    return (pixels + 1) / 2;
}

uint8_t* row_of(const Picture& picture, int plane, int y)
{
    return picture.data[plane] + static_cast<ptrdiff_t>(picture.stride[plane]) * y;
}

/// Some room behind the row: the loops work on whole pixel pairs.
void allocate_row(std::vector<uint8_t>& row, int bytes)
{
    row.resize(static_cast<std::size_t>(bytes) + 64);
}

void copy_rows(const Picture& in, const Picture& out, int plane, int bytes, int rows)
{
    libyuv::CopyPlane(in.data[plane], in.stride[plane], out.data[plane], out.stride[plane], bytes, rows);
}

void copy_picture(const Picture& in, const Picture& out)
{
    if (!is_yuv(in.format)) {
        copy_rows(in, out, 0, in.width * layout_of(in.format).bytes, in.height);
    } else if (in.format == GST_VIDEO_FORMAT_YUY2) {
        copy_rows(in, out, 0, 4 * half(in.width), in.height);
    } else {
        const int planes = in.format == GST_VIDEO_FORMAT_I420 ? 3 : 2;
        const int bytes = planes == 3 ? half(in.width) : 2 * half(in.width);
        copy_rows(in, out, 0, in.width, in.height);
        for (int plane = 1; plane < planes; ++plane)
            copy_rows(in, out, plane, bytes, half(in.height));
    }
}

/// The last sample again behind the last pixel, where the width is odd.
void repeat_last(std::vector<uint8_t>& row, int width)
{
    row[static_cast<std::size_t>(width)] = row[static_cast<std::size_t>(width) - 1];
}

void shuffle_pixels(const uint8_t* from, const RgbLayout& in, uint8_t* to, const RgbLayout& out, int width)
{
    std::array<uint8_t, 16> order{};
    for (int pixel = 0; pixel < 4; ++pixel) {
        uint8_t* entry = order.data() + 4 * pixel;
        entry[out.r] = static_cast<uint8_t>(4 * pixel + in.r);
        entry[out.g] = static_cast<uint8_t>(4 * pixel + in.g);
        entry[out.b] = static_cast<uint8_t>(4 * pixel + in.b);
        entry[out.a] = static_cast<uint8_t>(4 * pixel + in.a);
    }
    libyuv::ARGBShuffle(from, 0, to, 0, order.data(), width, 1);
    if (!in.has_alpha) rows::set_opaque(to, out.a, width);
}

/// The planes of a pixel's bytes in the order of memory; alpha's stays null.
std::array<uint8_t*, 4> planes_in_memory(const RgbLayout& layout, uint8_t* r, uint8_t* g, uint8_t* b)
{
    std::array<uint8_t*, 4> bytes{};
    bytes[static_cast<std::size_t>(layout.r)] = r;
    bytes[static_cast<std::size_t>(layout.g)] = g;
    bytes[static_cast<std::size_t>(layout.b)] = b;
    return bytes;
}

/// Packs pixels in the order B, G, R, x to 3 bytes each.
void pack_pixels(const uint8_t* bgra, uint8_t* to, const RgbLayout& out, int width)
{
    if (out.r == 0)
        libyuv::ARGBToRAW(bgra, 0, to, 0, width, 1);
    else
        libyuv::ARGBToRGB24(bgra, 0, to, 0, width, 1);
}

/// Splits pixels of 3 bytes into the planes of their bytes.
void split_pixels(const uint8_t* from, const std::array<uint8_t*, 4>& planes, int width)
{
    // libyuv 1904 (Debian 13) does a rest that fills no AVX2 register in a buffer on its stack that is half as long as
    // it must be.
    constexpr int kRegister = 32;
    const int whole = width - width % kRegister;
    if (whole > 0) libyuv::SplitRGBPlane(from, 0, planes[0], 0, planes[1], 0, planes[2], 0, whole, 1);
    for (int x = whole; x < width; ++x) {
        for (int byte = 0; byte < 3; ++byte)
            planes[static_cast<std::size_t>(byte)][x] = from[3 * x + byte];
    }
}

} // namespace

Picture picture_of(const GstVideoFrame& frame)
{
    Picture picture;
    picture.format = GST_VIDEO_FRAME_FORMAT(&frame);
    picture.width = GST_VIDEO_FRAME_WIDTH(&frame);
    picture.height = GST_VIDEO_FRAME_HEIGHT(&frame);
    for (guint plane = 0; plane < GST_VIDEO_FRAME_N_PLANES(&frame) && plane < picture.data.size(); ++plane) {
        picture.data[plane] = static_cast<uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, plane));
        picture.stride[plane] = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, plane);
    }
    return picture;
}

Picture part_of(const Picture& picture, int x, int y, int width, int height)
{
    Picture part = picture;
    part.width = width;
    part.height = height;
    if (!is_yuv(picture.format)) {
        part.data[0] = row_of(picture, 0, y) + x * layout_of(picture.format).bytes;
    } else if (picture.format == GST_VIDEO_FORMAT_YUY2) {
        part.data[0] = row_of(picture, 0, y) + 2 * x;
    } else {
        const bool is_planar = picture.format == GST_VIDEO_FORMAT_I420;
        part.data[0] = row_of(picture, 0, y) + x;
        part.data[1] = row_of(picture, 1, y / 2) + (is_planar ? x / 2 : x);
        if (is_planar) part.data[2] = row_of(picture, 2, y / 2) + x / 2;
    }
    return part;
}

Picture upside_down(const Picture& picture)
{
    Picture turned = picture;
    for (int plane = 0; plane < 3; ++plane) {
        if (!picture.data[plane]) continue;
        const int rows = plane == 0 ? picture.height : half(picture.height);
        turned.data[plane] = row_of(picture, plane, rows - 1);
        turned.stride[plane] = -picture.stride[plane];
    }
    return turned;
}

bool is_yuv420(GstVideoFormat format)
{
    return format == GST_VIDEO_FORMAT_NV12 || format == GST_VIDEO_FORMAT_NV21 || format == GST_VIDEO_FORMAT_I420;
}

bool is_yuv(GstVideoFormat format)
{
    return is_yuv420(format) || format == GST_VIDEO_FORMAT_YUY2;
}

int bytes_per_pixel(GstVideoFormat format)
{
    return layout_of(format).bytes;
}

int alpha_offset(GstVideoFormat format)
{
    return layout_of(format).a;
}

Colour colour_of(const GstVideoInfo& info)
{
    Colour colour;
    colour.matrix = info.colorimetry.matrix;
    colour.is_full_range = info.colorimetry.range == GST_VIDEO_COLOR_RANGE_0_255;
    colour.is_chroma_cosited = (GST_VIDEO_INFO_CHROMA_SITE(&info) & GST_VIDEO_CHROMA_SITE_H_COSITED) != 0;
    return colour;
}

bool is_same_encoding(const Colour& a, const Colour& b)
{
    return a.matrix == b.matrix && a.is_full_range == b.is_full_range;
}

void ColourConverter::configure(const Colour& in, const Colour& out, int max_width)
{
    in_ = in;
    out_ = out;
    to_rgb_ = rows::make_yuv_to_rgb(encoding_of(in));
    to_yuv_ = rows::make_rgb_to_yuv(encoding_of(out));
    recode_ = rows::make_yuv_to_yuv(encoding_of(in), encoding_of(out));
    for (ChromaRow& row : chroma_)
        allocate_row(row.samples, max_width);
    for (Planes& planes : planes_) {
        for (std::vector<uint8_t>* row : {&planes.r, &planes.g, &planes.b})
            allocate_row(*row, max_width);
    }
    for (Yuv& yuv : recoded_) {
        allocate_row(yuv.u, max_width);
        allocate_row(yuv.v, max_width);
    }
    for (std::vector<uint8_t>* row : {&luma_, &uv_, &u_, &v_})
        allocate_row(*row, max_width);
    allocate_row(pixels_, 4 * max_width);
    allocate_row(opaque_, max_width);
    std::fill(opaque_.begin(), opaque_.end(), uint8_t{255});
}

void ColourConverter::convert(const Picture& in, const Picture& out)
{
    for (ChromaRow& row : chroma_)
        row.index = -1;
    const bool has_same_colours = !is_yuv(in.format) || !is_yuv(out.format) || is_same_encoding(in_, out_);
    if (in.format == out.format && has_same_colours)
        copy_picture(in, out);
    else if (is_yuv(in.format) && is_yuv(out.format) && has_same_colours)
        yuv_to_yuv(in, out);
    else if (is_yuv(in.format) && is_yuv(out.format))
        recode_yuv(in, out);
    else if (is_yuv(out.format))
        rgb_to_yuv(in, out);
    else if (is_yuv(in.format))
        yuv_to_rgb(in, out);
    else
        rgb_to_rgb(in, out);
}

/// The luma of row `y`; behind an odd width there is one byte of any value.
const uint8_t* ColourConverter::luma_row(const Picture& in, int y)
{
    if (in.format != GST_VIDEO_FORMAT_YUY2) return row_of(in, 0, y);
    rows::split_yuy2(row_of(in, 0, y), luma_.data(), uv_.data(), half(in.width));
    return luma_.data();
}

/// One chroma row of a 4:2:0 picture, interleaved; two neighbouring rows stay valid together.
const uint8_t* ColourConverter::chroma_row(const Picture& in, int index)
{
    if (in.format == GST_VIDEO_FORMAT_NV12) return row_of(in, 1, index);
    ChromaRow& row = chroma_[static_cast<std::size_t>(index & 1)];
    if (row.index == index) return row.samples.data();
    row.index = index;
    if (in.format == GST_VIDEO_FORMAT_NV21)
        libyuv::SwapUVPlane(row_of(in, 1, index), 0, row.samples.data(), 0, half(in.width), 1);
    else
        libyuv::MergeUVPlane(row_of(in, 1, index), 0, row_of(in, 2, index), 0, row.samples.data(), 0, half(in.width),
                             1);
    return row.samples.data();
}

/// Interleaved chroma at the height of row `y`. Call luma_row() first: it leaves the chroma of YUY2.
const uint8_t* ColourConverter::chroma_of_row(const Picture& in, int y)
{
    if (in.format == GST_VIDEO_FORMAT_YUY2) return uv_.data();
    const int near = y / 2;
    const int far = std::clamp(y % 2 ? near + 1 : near - 1, 0, half(in.height) - 1);
    const uint8_t* near_row = chroma_row(in, near);
    if (near == far) return near_row;
    rows::blend_3_1(near_row, chroma_row(in, far), uv_.data(), 2 * half(in.width));
    return uv_.data();
}

/// Interleaved chroma of the two rows that share 4:2:0 chroma row `index`.
const uint8_t* ColourConverter::chroma_of_row_pair(const Picture& in, int index)
{
    if (in.format != GST_VIDEO_FORMAT_YUY2) return chroma_row(in, index);
    const int second = std::min(2 * index + 1, in.height - 1);
    rows::split_yuy2(row_of(in, 0, 2 * index), luma_.data(), chroma_[0].samples.data(), half(in.width));
    rows::split_yuy2(row_of(in, 0, second), luma_.data(), chroma_[1].samples.data(), half(in.width));
    rows::average(chroma_[0].samples.data(), chroma_[1].samples.data(), uv_.data(), 2 * half(in.width));
    return uv_.data();
}

/// Leaves the chroma of every pixel of row `y` in `u_` and `v_`.
void ColourConverter::read_yuv444(const Picture& in, int y, const uint8_t*& luma)
{
    luma = luma_row(in, y);
    rows::upsample(chroma_of_row(in, y), half(in.width), in_.is_chroma_cosited, u_.data(), v_.data());
}

void ColourConverter::write_rgb(const Picture& out, int y, const uint8_t* luma)
{
    const RgbLayout& layout = layout_of(out.format);
    Planes& planes = planes_[0];
    rows::to_rgb(luma, u_.data(), v_.data(), to_rgb_, planes.r.data(), planes.g.data(), planes.b.data(), out.width);
    uint8_t* to = row_of(out, 0, y);
    if (layout.bytes == 3) {
        // Faster by way of four bytes a pixel than straight to three.
        libyuv::MergeARGBPlane(planes.r.data(), 0, planes.g.data(), 0, planes.b.data(), 0, nullptr, 0, pixels_.data(),
                               0, out.width, 1);
        pack_pixels(pixels_.data(), to, layout, out.width);
        return;
    }
    const auto bytes = planes_in_memory(layout, planes.r.data(), planes.g.data(), planes.b.data());
    const uint8_t* first = layout.a == 0 ? opaque_.data() : bytes[0];
    const uint8_t* last = layout.a == 0 ? bytes[3] : opaque_.data();
    libyuv::MergeARGBPlane(bytes[2], 0, bytes[1], 0, first, 0, last, 0, to, 0, out.width, 1);
}

void ColourConverter::yuv_to_rgb(const Picture& in, const Picture& out)
{
    for (int y = 0; y < in.height; ++y) {
        const uint8_t* luma = nullptr;
        read_yuv444(in, y, luma);
        write_rgb(out, y, luma);
    }
}

void ColourConverter::write_chroma(const Picture& out, int index, const uint8_t* uv)
{
    const int pairs = half(out.width);
    uint8_t* to = row_of(out, 1, index);
    if (out.format == GST_VIDEO_FORMAT_NV12)
        std::memcpy(to, uv, static_cast<std::size_t>(2 * pairs));
    else if (out.format == GST_VIDEO_FORMAT_NV21)
        libyuv::SwapUVPlane(uv, 0, to, 0, pairs, 1);
    else
        libyuv::SplitUVPlane(uv, 0, to, 0, row_of(out, 2, index), 0, pairs, 1);
}

void ColourConverter::write_yuy2(const Picture& out, int y, const uint8_t* luma, const uint8_t* uv)
{
    if (out.width % 2) {
        std::memmove(luma_.data(), luma, static_cast<std::size_t>(out.width));
        repeat_last(luma_, out.width);
        luma = luma_.data();
    }
    rows::merge_yuy2(luma, uv, row_of(out, 0, y), half(out.width));
}

void ColourConverter::yuv_to_yuv(const Picture& in, const Picture& out)
{
    for (int y = 0; y < in.height; ++y) {
        const uint8_t* luma = luma_row(in, y);
        if (out.format == GST_VIDEO_FORMAT_YUY2)
            write_yuy2(out, y, luma, chroma_row(in, y / 2));
        else
            std::memcpy(row_of(out, 0, y), luma, static_cast<std::size_t>(in.width));
    }
    for (int index = 0; is_yuv420(out.format) && index < half(in.height); ++index)
        write_chroma(out, index, chroma_of_row_pair(in, index));
}

/// Red, green and blue of row `y` of an RGB picture, the last pixel repeated behind an odd width.
void ColourConverter::read_rgb(const Picture& in, int y, Planes& planes)
{
    const RgbLayout& layout = layout_of(in.format);
    auto bytes = planes_in_memory(layout, planes.r.data(), planes.g.data(), planes.b.data());
    const uint8_t* pixels = row_of(in, 0, y);
    if (layout.bytes == 3) {
        split_pixels(pixels, bytes, in.width);
    } else {
        bytes[static_cast<std::size_t>(layout.a)] = pixels_.data();
        libyuv::SplitARGBPlane(pixels, 0, bytes[2], 0, bytes[1], 0, bytes[0], 0, bytes[3], 0, in.width, 1);
    }
    for (std::vector<uint8_t>* row : {&planes.r, &planes.g, &planes.b})
        repeat_last(*row, in.width);
}

/// Interleaved chroma of the mean of two rows, or of one row given twice.
const uint8_t* ColourConverter::make_chroma(const Planes& first, const Planes& second, int width)
{
    const int pairs = half(width);
    const rows::RgbRows rgb{
        {first.r.data(), second.r.data()}, {first.g.data(), second.g.data()}, {first.b.data(), second.b.data()}};
    rows::chroma(rgb, to_yuv_, u_.data(), v_.data(), 2 * pairs);
    rows::downsample(u_.data(), v_.data(), pairs, out_.is_chroma_cosited, uv_.data());
    return uv_.data();
}

void ColourConverter::convert_row_pair(const Picture& in, const Picture& out, int y)
{
    const int second = std::min(y + 1, in.height - 1);
    read_rgb(in, y, planes_[0]);
    read_rgb(in, second, planes_[1]);
    rows::luma(planes_[0].r.data(), planes_[0].g.data(), planes_[0].b.data(), to_yuv_, row_of(out, 0, y), in.width);
    rows::luma(planes_[1].r.data(), planes_[1].g.data(), planes_[1].b.data(), to_yuv_, row_of(out, 0, second),
               in.width);
    write_chroma(out, y / 2, make_chroma(planes_[0], planes_[1], in.width));
}

void ColourConverter::rgb_to_yuv(const Picture& in, const Picture& out)
{
    if (out.format != GST_VIDEO_FORMAT_YUY2) {
        for (int y = 0; y < in.height; y += 2)
            convert_row_pair(in, out, y);
        return;
    }
    for (int y = 0; y < in.height; ++y) {
        Planes& planes = planes_[0];
        read_rgb(in, y, planes);
        rows::luma(planes.r.data(), planes.g.data(), planes.b.data(), to_yuv_, luma_.data(), in.width);
        write_yuy2(out, y, luma_.data(), make_chroma(planes, planes, in.width));
    }
}

/// Row `y` in the output's encoding. Samples keep their places: each goes to both of its pixels, and merge_recoded()
/// finds it there again.
void ColourConverter::recode_row(const Picture& in, int y, uint8_t* luma, Yuv& yuv)
{
    const uint8_t* from = luma_row(in, y);
    rows::repeat(is_yuv420(in.format) ? chroma_row(in, y / 2) : uv_.data(), half(in.width), u_.data(), v_.data());
    rows::to_yuv(from, u_.data(), v_.data(), recode_, luma, yuv.u.data(), yuv.v.data(), in.width);
    repeat_last(yuv.u, in.width);
    repeat_last(yuv.v, in.width);
}

/// Interleaved chroma of the mean of the two recoded rows.
const uint8_t* ColourConverter::merge_recoded(int width)
{
    const int pairs = half(width);
    rows::average(recoded_[0].u.data(), recoded_[1].u.data(), u_.data(), 2 * pairs);
    rows::average(recoded_[0].v.data(), recoded_[1].v.data(), v_.data(), 2 * pairs);
    rows::downsample(u_.data(), v_.data(), pairs, false, uv_.data());
    return uv_.data();
}

void ColourConverter::recode_yuv(const Picture& in, const Picture& out)
{
    if (out.format == GST_VIDEO_FORMAT_YUY2) {
        for (int y = 0; y < in.height; ++y) {
            recode_row(in, y, pixels_.data(), recoded_[0]);
            rows::downsample(recoded_[0].u.data(), recoded_[0].v.data(), half(in.width), false, uv_.data());
            write_yuy2(out, y, pixels_.data(), uv_.data());
        }
        return;
    }
    for (int y = 0; y < in.height; y += 2) {
        const int second = std::min(y + 1, in.height - 1);
        recode_row(in, y, row_of(out, 0, y), recoded_[0]);
        recode_row(in, second, row_of(out, 0, second), recoded_[1]);
        write_chroma(out, y / 2, merge_recoded(in.width));
    }
}

void ColourConverter::rgb_to_rgb(const Picture& in, const Picture& out)
{
    const RgbLayout& from = layout_of(in.format);
    const RgbLayout& to = layout_of(out.format);
    const RgbLayout& bgra = layout_of(GST_VIDEO_FORMAT_BGRA);
    for (int y = 0; y < in.height; ++y) {
        const uint8_t* pixels = row_of(in, 0, y);
        if (from.bytes == 4 && to.bytes == 4) {
            shuffle_pixels(pixels, from, row_of(out, 0, y), to, in.width);
            continue;
        }
        if (from.bytes == 4)
            shuffle_pixels(pixels, from, pixels_.data(), bgra, in.width);
        else if (from.r == 0)
            libyuv::RAWToARGB(pixels, 0, pixels_.data(), 0, in.width, 1);
        else
            libyuv::RGB24ToARGB(pixels, 0, pixels_.data(), 0, in.width, 1);
        if (to.bytes == 4)
            shuffle_pixels(pixels_.data(), bgra, row_of(out, 0, y), to, in.width);
        else
            pack_pixels(pixels_.data(), row_of(out, 0, y), to, in.width);
    }
}

} // namespace velstream::software
