#include "camera_frames.h"

#include <cstdio>
#include <cstdlib>

#include <jpeglib.h>

#include <algorithm>

namespace peers::camera {

namespace {

constexpr int kQuality = 90;
constexpr std::size_t kLumaRows = 16; // of one row of blocks in 4:2:0

/// One plane of the picture, and where the rows behind its end repeat the last.
struct Plane {
    const std::uint8_t* data;
    std::size_t stride;
    std::size_t rows;
    JSAMPROW row(std::size_t number) const { return const_cast<JSAMPROW>(data + stride * std::min(number, rows - 1)); }
};

/// A row as long as the encoder reads it: it takes whole blocks, and the last picture's row must not be read past its
/// end.
class PaddedRows {
public:
    explicit PaddedRows(std::size_t bytes) : bytes_(bytes), storage_(kLumaRows * bytes) {}
    JSAMPROW take(const Plane& plane, std::size_t number, std::size_t slot)
    {
        std::uint8_t* row = storage_.data() + slot * bytes_;
        std::copy_n(plane.row(number), plane.stride, row);
        std::fill(row + plane.stride, row + bytes_, row[plane.stride - 1]);
        return row;
    }

private:
    std::size_t bytes_;
    std::vector<std::uint8_t> storage_;
};

void set_up(jpeg_compress_struct& jpeg, const Mode& mode)
{
    jpeg.image_width = static_cast<JDIMENSION>(mode.width);
    jpeg.image_height = static_cast<JDIMENSION>(mode.height);
    jpeg.input_components = 3;
    jpeg.in_color_space = JCS_YCbCr;
    jpeg_set_defaults(&jpeg); // 4:2:0
    jpeg_set_quality(&jpeg, kQuality, TRUE);
    jpeg.raw_data_in = TRUE;
}

void write_rows(jpeg_compress_struct& jpeg, const Plane (&planes)[3], std::size_t padded_width)
{
    PaddedRows luma(padded_width);
    PaddedRows blue(padded_width / 2);
    PaddedRows red(padded_width / 2);
    JSAMPROW y[kLumaRows];
    JSAMPROW u[kLumaRows / 2];
    JSAMPROW v[kLumaRows / 2];
    JSAMPARRAY rows[3] = {y, u, v};
    while (jpeg.next_scanline < jpeg.image_height) {
        for (std::size_t i = 0; i < kLumaRows; ++i)
            y[i] = luma.take(planes[0], jpeg.next_scanline + i, i);
        for (std::size_t i = 0; i < kLumaRows / 2; ++i) {
            u[i] = blue.take(planes[1], jpeg.next_scanline / 2 + i, i);
            v[i] = red.take(planes[2], jpeg.next_scanline / 2 + i, i);
        }
        jpeg_write_raw_data(&jpeg, rows, kLumaRows);
    }
}

} // namespace

std::size_t frame_capacity(const Mode& mode)
{
    return static_cast<std::size_t>(mode.width) * static_cast<std::size_t>(mode.height) * 2;
}

FrameMaker::FrameMaker(const Mode& mode) : mode_(mode), painter_(mode.width, mode.height), picture_(painter_.size()) {}

const std::vector<std::uint8_t>& FrameMaker::make(int number)
{
    painter_.paint(number, picture_.data());
    if (mode_.format == Format::Jpeg)
        write_jpeg();
    else
        write_yuyv();
    return frame_;
}

void FrameMaker::write_jpeg()
{
    jpeg_compress_struct jpeg;
    jpeg_error_mgr errors;
    jpeg.err = jpeg_std_error(&errors);
    jpeg_create_compress(&jpeg);
    unsigned char* bytes = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&jpeg, &bytes, &size);
    set_up(jpeg, mode_);
    jpeg_start_compress(&jpeg, TRUE);

    const auto width = static_cast<std::size_t>(mode_.width);
    const auto height = static_cast<std::size_t>(mode_.height);
    const std::uint8_t* luma = picture_.data();
    const std::uint8_t* blue = luma + width * height;
    const std::uint8_t* red = blue + width * height / 4;
    const Plane planes[3] = {{luma, width, height}, {blue, width / 2, height / 2}, {red, width / 2, height / 2}};
    write_rows(jpeg, planes, (width + kLumaRows - 1) / kLumaRows * kLumaRows);

    jpeg_finish_compress(&jpeg);
    frame_.assign(bytes, bytes + size);
    jpeg_destroy_compress(&jpeg);
    std::free(bytes);
}

void FrameMaker::write_yuyv()
{
    const auto width = static_cast<std::size_t>(mode_.width);
    const auto height = static_cast<std::size_t>(mode_.height);
    const std::uint8_t* blue = picture_.data() + width * height;
    const std::uint8_t* red = blue + width * height / 4;
    frame_.resize(width * height * 2);
    std::uint8_t* out = frame_.data();
    for (std::size_t y = 0; y < height; ++y) {
        const std::uint8_t* luma = picture_.data() + y * width;
        const std::size_t chroma = y / 2 * (width / 2);
        for (std::size_t x = 0; x < width; x += 2) {
            *out++ = luma[x];
            *out++ = blue[chroma + x / 2];
            *out++ = luma[x + 1];
            *out++ = red[chroma + x / 2];
        }
    }
}

std::vector<std::uint8_t> frame(const Mode& mode, int number)
{
    return FrameMaker(mode).make(number);
}

} // namespace peers::camera
