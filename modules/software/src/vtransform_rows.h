// The inner loops of the colour conversion that libyuv has no function for: chroma between 4:2:0 and 4:4:4 at the right
// place, and RGB to YUV by any matrix. Every function handles one row and leaves what lies behind it alone.
#pragma once

#include <cstdint>

namespace velstream::software::rows {

/// RGB to one YUV matrix. Factors are of 65536, offsets of 256; see make_rgb_to_yuv().
struct RgbToYuv {
    uint16_t y_r, y_g, y_b, y_offset;
    uint16_t u_r, u_g, u_b; ///< r and g are taken away, b is added
    uint16_t v_r, v_g, v_b; ///< g and b are taken away, r is added
};

/// Derives the factors from the matrix's red and blue weights.
RgbToYuv make_rgb_to_yuv(double kr, double kb, bool is_full_range);

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

/// YUY2 to luma and interleaved chroma, and back; `pairs` times two pixels.
void split_yuy2(const uint8_t* yuy2, uint8_t* y, uint8_t* uv, int pairs);
void merge_yuy2(const uint8_t* y, const uint8_t* uv, uint8_t* yuy2, int pairs);

/// Sets one byte of every 4-byte pixel to 255.
void set_opaque(uint8_t* pixels, int offset, int width);

} // namespace velstream::software::rows
