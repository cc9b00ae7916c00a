#include "drawing.h"

#include "configuration.h"

#include <png.h>

#include <algorithm>

namespace velstream::tool {

namespace {

constexpr uint8_t kClear = 255; // all that is above 240, in any channel, is clear to draw_picture()
constexpr uint8_t kBrightest = 240;
constexpr uint8_t kLeastAlpha = 128;
constexpr uint8_t kGrey = 128;

std::size_t row_bytes(int width)
{
    return static_cast<std::size_t>(width) * 3;
}

/// Frees what the decoder holds, also of a file that it gave up on.
struct PngReader {
    PngReader() { image.version = PNG_IMAGE_VERSION; }
    ~PngReader() { png_image_free(&image); }
    PngReader(const PngReader&) = delete;
    PngReader& operator=(const PngReader&) = delete;
    png_image image{};
};

/// A bright red is clear to draw_picture() as white is: a shade less, and it is drawn.
std::vector<uint8_t> opaque_parts(const std::vector<uint8_t>& rgba)
{
    std::vector<uint8_t> rgb;
    rgb.reserve(rgba.size() / 4 * 3);
    for (std::size_t i = 0; i < rgba.size(); i += 4) {
        const bool is_white = std::min({rgba[i], rgba[i + 1], rgba[i + 2]}) > kBrightest;
        const bool is_clear = is_white || rgba[i + 3] < kLeastAlpha;
        for (std::size_t channel = 0; channel < 3; ++channel)
            rgb.push_back(is_clear ? kClear : std::min(rgba[i + channel], kBrightest));
    }
    return rgb;
}

} // namespace

OverlayPicture read_overlay(const std::string& path)
{
    PngReader reader;
    if (png_image_begin_read_from_file(&reader.image, path.c_str()) != 0) {
        reader.image.format = PNG_FORMAT_RGBA;
        std::vector<uint8_t> rgba(PNG_IMAGE_SIZE(reader.image));
        if (png_image_finish_read(&reader.image, nullptr, rgba.data(), 0, nullptr) != 0)
            return {static_cast<int>(reader.image.width), static_cast<int>(reader.image.height), opaque_parts(rgba)};
    }
    throw UserError("Picture " + path + " cannot be read as PNG: " + reader.image.message + ".");
}

Drawing::Drawing(const DrawingOptions& options, bool owns_frame) : has_time_(options.has_time), owns_frame_(owns_frame)
{
    if (!options.picture.empty()) picture_ = read_overlay(options.picture);
}

void Drawing::draw(const Quorvis::VelStream::Image& image)
{
    // Rows may be padded; a picture that is as wide as they are finds them where they are.
    const int width = std::max(image.width, image.alignedWidth);
    if (width <= 0 || image.height <= 0) return;
    if (image.size < row_bytes(width) * static_cast<std::size_t>(image.height)) return;
    if (owns_frame_) std::fill_n(image.data, image.size, kGrey);
    if (!picture_.rgb.empty()) {
        fit_picture(width, image.height);
        draw_picture(image.data, fitted_.rgb.data(), width, image.height);
    }
    if (has_time_) draw_timestamp(image.data, width, image.height);
}

void Drawing::fit_picture(int width, int height)
{
    if (fitted_.width == width && fitted_.height == height) return;
    fitted_ = {width, height, {}};
    fitted_.rgb.assign(row_bytes(width) * static_cast<std::size_t>(height), kClear);
    const std::size_t bytes = row_bytes(std::min(width, picture_.width));
    const auto rows = static_cast<std::size_t>(std::min(height, picture_.height));
    for (std::size_t row = 0; row < rows; ++row)
        std::copy_n(&picture_.rgb[row * row_bytes(picture_.width)], bytes, &fitted_.rgb[row * row_bytes(width)]);
}

} // namespace velstream::tool
