// The inner loops of the colour conversion that libyuv has no function for: chroma between 4:2:0 and 4:4:4 at the right
// place, and RGB to YUV by any matrix. Every function handles one row and leaves what lies behind it alone.
#pragma once

#include <cstdint>

namespace velstream::software::rows {

/// A YUV encoding: the weights of red and blue in luma, and the range.
struct Encoding {
    double kr, kb;
    bool is_full_range;
};

/// RGB to one YUV encoding. Factors are of 65536, offsets of 256; the sums never leave 16 bits.
struct RgbToYuv {
    uint16_t y_r, y_g, y_b, y_offset;
    uint16_t u_r, u_g, u_b; ///< r and g are taken away, b is added
    uint16_t v_r, v_g, v_b; ///< g and b are taken away, r is added
};

RgbToYuv make_rgb_to_yuv(const Encoding& encoding);

/// One YUV encoding to RGB. Factors of chroma are of 8192, the one of luma of 16384, the offset of 32.
struct YuvToRgb {
    int16_t y, r_v, g_u, g_v, b_u, offset;
};
YuvToRgb make_yuv_to_rgb(const Encoding& encoding);

/// One YUV encoding to another, scaled like YuvToRgb. Nothing is cut off at the bounds of RGB on the way.
struct YuvToYuv {
    int16_t y_y, y_u, y_v, y_offset;
    int16_t u_u, u_v, v_u, v_v;
};
YuvToYuv make_yuv_to_yuv(const Encoding& in, const Encoding& out);

/// dst = (3 near + far) / 4, rounded.
void blend_3_1(const uint8_t* near, const uint8_t* far, uint8_t* dst, int bytes);
/// dst = (a + b) / 2, rounded up.
void average(const uint8_t* a, const uint8_t* b, uint8_t* dst, int bytes);

/**
 * Doubles `pairs` interleaved chroma samples to separate rows of 2 x pairs samples.
 * @param is_cosited  the samples lie on the even pixels (else between two pixels)
 * @param u, v        hold the first and the second of each pair
 */
void upsample(const uint8_t* uv, int pairs, bool is_cosited, uint8_t* u, uint8_t* v);

/// Gives both pixels of a pair its chroma sample.
void repeat(const uint8_t* uv, int pairs, uint8_t* u, uint8_t* v);

/// Halves rows of 2 x pairs samples to interleaved samples; the counterpart of upsample().
void downsample(const uint8_t* u, const uint8_t* v, int pairs, bool is_cosited, uint8_t* uv);

/// Luma of `width` pixels in three planes.
void luma(const uint8_t* r, const uint8_t* g, const uint8_t* b, const RgbToYuv& matrix, uint8_t* y, int width);

/// Both chroma values of every pixel; the pixel is the mean of the rows 0 and 1.
struct RgbRows {
    const uint8_t* r[2];
    const uint8_t* g[2];
    const uint8_t* b[2];
};
void chroma(const RgbRows& rgb, const RgbToYuv& matrix, uint8_t* u, uint8_t* v, int width);

/// YUV 4:4:4 to three planes.
void to_rgb(const uint8_t* y, const uint8_t* u, const uint8_t* v, const YuvToRgb& matrix, uint8_t* r, uint8_t* g,
            uint8_t* b, int width);
/// YUV 4:4:4 to YUV 4:4:4, not in place.
void to_yuv(const uint8_t* y, const uint8_t* u, const uint8_t* v, const YuvToYuv& matrix, uint8_t* out_y,
            uint8_t* out_u, uint8_t* out_v, int width);

/// YUY2 to luma and interleaved chroma, and back; `pairs` times two pixels.
void split_yuy2(const uint8_t* yuy2, uint8_t* y, uint8_t* uv, int pairs);
void merge_yuy2(const uint8_t* y, const uint8_t* uv, uint8_t* yuy2, int pairs);

/// Sets one byte of every 4-byte pixel to 255.
void set_opaque(uint8_t* pixels, int offset, int width);

} // namespace velstream::software::rows
