#include "vtransform_rows.h"

#include <bit>
#include <cmath>
#include <cstring>

// The loops are written for the compiler to vectorise; on x86-64 it also makes a version for AVX2 and picks it at load
// time.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && !defined(__SANITIZE_ADDRESS__) &&               \
    !defined(__SANITIZE_THREAD__)
#define VEL_VECTOR_LOOP __attribute__((target_clones("avx2", "default")))
#else
#define VEL_VECTOR_LOOP
#endif

namespace velstream::software::rows {

namespace {

static_assert(std::endian::native == std::endian::little, "two samples at a time are read as one little-endian word");

/// Two neighbouring bytes, the first in the low half.
inline uint16_t load_pair(const uint8_t* from)
{
    uint16_t value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

inline void store_pair(uint8_t* to, unsigned value)
{
    const auto word = static_cast<uint16_t>(value);
    std::memcpy(to, &word, sizeof word);
}

/// Product of an 8.8 number and a factor of 65536, again 8.8.
inline uint16_t scale(uint16_t value, uint16_t factor)
{
    return static_cast<uint16_t>((static_cast<uint32_t>(value) * factor) >> 16);
}

inline uint8_t blend_bytes(unsigned near, unsigned far)
{
    return static_cast<uint8_t>((3 * near + far + 2) >> 2);
}
inline uint8_t average_bytes(unsigned a, unsigned b)
{
    return static_cast<uint8_t>((a + b + 1) >> 1);
}

/// Fraction of the signed sums: 1/32 leaves room for every overshoot in 16 bits.
constexpr int kOneBits = 5;
constexpr int kOne = 1 << kOneBits;
/// Half a step, and what two products lose on average by being cut off.
constexpr int kRounding = kOne / 2 + 1;
/// RGB is rounded down, as GStreamer's converter does, but for a margin that lets white be 255.
constexpr int kRgbRounding = kOne / 8;

/// What one step of full-range R, G, B, or of a colour difference B - Y and R - Y, is in the encoding.
struct Scales {
    double y, u, v, black;
};

Scales scales_of(const Encoding& encoding)
{
    const double chroma_range = encoding.is_full_range ? 1.0 : 224.0 / 255.0;
    return {encoding.is_full_range ? 1.0 : 219.0 / 255.0, chroma_range / (2.0 * (1.0 - encoding.kb)),
            chroma_range / (2.0 * (1.0 - encoding.kr)), encoding.is_full_range ? 0.0 : 16.0};
}

int16_t luma_factor(double value)
{
    return static_cast<int16_t>(std::lround(value * 16384.0));
}
int16_t chroma_factor(double value)
{
    return static_cast<int16_t>(std::lround(value * 8192.0));
}

/// Products in 1/32 of a luma sample, and of a chroma sample around 128.
inline int16_t times_luma(uint8_t y, int16_t factor)
{
    return static_cast<int16_t>((static_cast<int16_t>(y << 7) * static_cast<int32_t>(factor)) >> 16);
}

inline int16_t times_chroma(uint8_t c, int16_t factor)
{
    const auto centred = static_cast<int16_t>((c << 8) ^ 0x8000);
    return static_cast<int16_t>((centred * static_cast<int32_t>(factor)) >> 16);
}

inline uint8_t to_byte(int16_t sum)
{
    const auto value = static_cast<int16_t>(sum >> kOneBits);
    const auto floored = static_cast<int16_t>(value < 0 ? 0 : value);
    return static_cast<uint8_t>(floored > 255 ? 255 : floored);
}

VEL_VECTOR_LOOP void upsample_cosited(const uint8_t* __restrict uv, int pairs, uint8_t* __restrict u,
                                      uint8_t* __restrict v)
{
    for (int i = 0; i < pairs - 1; ++i) {
        const uint16_t here = load_pair(uv + 2 * i);
        const uint16_t next = load_pair(uv + 2 * i + 2);
        const uint16_t mid_u = static_cast<uint16_t>(((here & 0xff) + (next & 0xff) + 1) >> 1);
        const uint16_t mid_v = static_cast<uint16_t>(((here >> 8) + (next >> 8) + 1) >> 1);
        store_pair(u + 2 * i, static_cast<uint16_t>((here & 0xff) | (mid_u << 8)));
        store_pair(v + 2 * i, static_cast<uint16_t>((here >> 8) | (mid_v << 8)));
    }
}

VEL_VECTOR_LOOP void upsample_centred(const uint8_t* __restrict uv, int pairs, uint8_t* __restrict u,
                                      uint8_t* __restrict v)
{
    for (int i = 1; i < pairs - 1; ++i) {
        const uint16_t before = load_pair(uv + 2 * i - 2);
        const uint16_t here = load_pair(uv + 2 * i);
        const uint16_t next = load_pair(uv + 2 * i + 2);
        const uint16_t u3 = static_cast<uint16_t>(3 * (here & 0xff) + 2);
        const uint16_t v3 = static_cast<uint16_t>(3 * (here >> 8) + 2);
        const uint16_t left_u = static_cast<uint16_t>((u3 + (before & 0xff)) >> 2);
        const uint16_t left_v = static_cast<uint16_t>((v3 + (before >> 8)) >> 2);
        const uint16_t right_u = static_cast<uint16_t>((u3 + (next & 0xff)) >> 2);
        const uint16_t right_v = static_cast<uint16_t>((v3 + (next >> 8)) >> 2);
        store_pair(u + 2 * i, static_cast<uint16_t>(left_u | (right_u << 8)));
        store_pair(v + 2 * i, static_cast<uint16_t>(left_v | (right_v << 8)));
    }
}

/// The two pixels of a pair at the edge of the picture, where a neighbour is missing and stands for itself.
void upsample_edge(const uint8_t* uv, int pairs, int i, bool is_cosited, uint8_t* u, uint8_t* v)
{
    const int before = i > 0 ? i - 1 : 0;
    const int next = i < pairs - 1 ? i + 1 : i;
    for (int c = 0; c < 2; ++c) {
        uint8_t* out = c == 0 ? u : v;
        const uint8_t here = uv[2 * i + c];
        out[2 * i] = is_cosited ? here : blend_bytes(here, uv[2 * before + c]);
        out[2 * i + 1] = is_cosited ? average_bytes(here, uv[2 * next + c]) : blend_bytes(here, uv[2 * next + c]);
    }
}

VEL_VECTOR_LOOP void downsample_cosited(const uint8_t* __restrict u, const uint8_t* __restrict v, int pairs,
                                        uint8_t* __restrict uv)
{
    for (int i = 1; i < pairs; ++i) {
        const uint16_t u_here = load_pair(u + 2 * i);
        const uint16_t v_here = load_pair(v + 2 * i);
        const uint16_t u_before = static_cast<uint16_t>(load_pair(u + 2 * i - 2) >> 8);
        const uint16_t v_before = static_cast<uint16_t>(load_pair(v + 2 * i - 2) >> 8);
        const uint16_t out_u = static_cast<uint16_t>((u_before + 2 * (u_here & 0xff) + (u_here >> 8) + 2) >> 2);
        const uint16_t out_v = static_cast<uint16_t>((v_before + 2 * (v_here & 0xff) + (v_here >> 8) + 2) >> 2);
        store_pair(uv + 2 * i, static_cast<uint16_t>(out_u | (out_v << 8)));
    }
}

VEL_VECTOR_LOOP void downsample_centred(const uint8_t* __restrict u, const uint8_t* __restrict v, int pairs,
                                        uint8_t* __restrict uv)
{
    for (int i = 0; i < pairs; ++i) {
        const uint16_t u_here = load_pair(u + 2 * i);
        const uint16_t v_here = load_pair(v + 2 * i);
        const uint16_t out_u = static_cast<uint16_t>(((u_here & 0xff) + (u_here >> 8) + 1) >> 1);
        const uint16_t out_v = static_cast<uint16_t>(((v_here & 0xff) + (v_here >> 8) + 1) >> 1);
        store_pair(uv + 2 * i, static_cast<uint16_t>(out_u | (out_v << 8)));
    }
}

} // namespace

RgbToYuv make_rgb_to_yuv(const Encoding& encoding)
{
    const auto factor = [](double value) { return static_cast<uint16_t>(std::lround(value * 65536.0)); };
    const Scales scales = scales_of(encoding);
    const double kr = encoding.kr;
    const double kb = encoding.kb;
    const double kg = 1.0 - kr - kb;
    RgbToYuv matrix{};
    matrix.y_r = factor(kr * scales.y);
    matrix.y_g = factor(kg * scales.y);
    matrix.y_b = factor(kb * scales.y);
    matrix.y_offset = static_cast<uint16_t>(scales.black * 256 + 128);
    matrix.u_r = factor(kr * scales.u);
    matrix.u_g = factor(kg * scales.u);
    matrix.u_b = factor((1.0 - kb) * scales.u);
    matrix.v_r = factor((1.0 - kr) * scales.v);
    matrix.v_g = factor(kg * scales.v);
    matrix.v_b = factor(kb * scales.v);
    return matrix;
}

YuvToRgb make_yuv_to_rgb(const Encoding& encoding)
{
    const Scales scales = scales_of(encoding);
    const double kg = 1.0 - encoding.kr - encoding.kb;
    YuvToRgb matrix{};
    matrix.y = luma_factor(1.0 / scales.y);
    matrix.r_v = chroma_factor(1.0 / scales.v);
    matrix.g_u = chroma_factor(-encoding.kb / (kg * scales.u));
    matrix.g_v = chroma_factor(-encoding.kr / (kg * scales.v));
    matrix.b_u = chroma_factor(1.0 / scales.u);
    matrix.offset = static_cast<int16_t>(std::lround(-scales.black * kOne / scales.y) + kRgbRounding);
    return matrix;
}

YuvToYuv make_yuv_to_yuv(const Encoding& in, const Encoding& out)
{
    const Scales from = scales_of(in);
    const Scales to = scales_of(out);
    const double in_kg = 1.0 - in.kr - in.kb;
    const double out_kg = 1.0 - out.kr - out.kb;
    // How far red, green and blue move with one step of chroma, and luma with them.
    const double r_v = 1.0 / from.v;
    const double b_u = 1.0 / from.u;
    const double g_v = -in.kr / (in_kg * from.v);
    const double g_u = -in.kb / (in_kg * from.u);
    const double y_u = out_kg * g_u + out.kb * b_u;
    const double y_v = out.kr * r_v + out_kg * g_v;
    YuvToYuv matrix{};
    matrix.y_y = luma_factor(to.y / from.y);
    matrix.y_u = chroma_factor(to.y * y_u);
    matrix.y_v = chroma_factor(to.y * y_v);
    matrix.y_offset = static_cast<int16_t>(std::lround((to.black - from.black * to.y / from.y) * kOne) + kRounding);
    matrix.u_u = chroma_factor(to.u * (b_u - y_u));
    matrix.u_v = chroma_factor(-to.u * y_v);
    matrix.v_u = chroma_factor(-to.v * y_u);
    matrix.v_v = chroma_factor(to.v * (r_v - y_v));
    return matrix;
}

VEL_VECTOR_LOOP void blend_3_1(const uint8_t* __restrict near, const uint8_t* __restrict far, uint8_t* __restrict dst,
                               int bytes)
{
    for (int i = 0; i < bytes; ++i)
        dst[i] = blend_bytes(near[i], far[i]);
}

VEL_VECTOR_LOOP void average(const uint8_t* __restrict a, const uint8_t* __restrict b, uint8_t* __restrict dst,
                             int bytes)
{
    for (int i = 0; i < bytes; ++i)
        dst[i] = average_bytes(a[i], b[i]);
}

void upsample(const uint8_t* uv, int pairs, bool is_cosited, uint8_t* u, uint8_t* v)
{
    if (is_cosited) {
        upsample_cosited(uv, pairs, u, v);
    } else {
        upsample_centred(uv, pairs, u, v);
        upsample_edge(uv, pairs, 0, is_cosited, u, v);
    }
    upsample_edge(uv, pairs, pairs - 1, is_cosited, u, v);
}

VEL_VECTOR_LOOP void repeat(const uint8_t* __restrict uv, int pairs, uint8_t* __restrict u, uint8_t* __restrict v)
{
    for (int i = 0; i < pairs; ++i) {
        const uint16_t here = load_pair(uv + 2 * i);
        store_pair(u + 2 * i, static_cast<uint16_t>((here & 0xff) * 257));
        store_pair(v + 2 * i, static_cast<uint16_t>((here >> 8) * 257));
    }
}

void downsample(const uint8_t* u, const uint8_t* v, int pairs, bool is_cosited, uint8_t* uv)
{
    if (!is_cosited) {
        downsample_centred(u, v, pairs, uv);
        return;
    }
    downsample_cosited(u, v, pairs, uv);
    uv[0] = blend_bytes(u[0], u[1]);
    uv[1] = blend_bytes(v[0], v[1]);
}

VEL_VECTOR_LOOP void luma(const uint8_t* __restrict r, const uint8_t* __restrict g, const uint8_t* __restrict b,
                          const RgbToYuv& matrix, uint8_t* __restrict y, int width)
{
    const RgbToYuv m = matrix;
    for (int i = 0; i < width; ++i) {
        const uint16_t red = scale(static_cast<uint16_t>(r[i] << 8), m.y_r);
        const uint16_t green = scale(static_cast<uint16_t>(g[i] << 8), m.y_g);
        const uint16_t blue = scale(static_cast<uint16_t>(b[i] << 8), m.y_b);
        y[i] = static_cast<uint8_t>(static_cast<uint16_t>(red + green + blue + m.y_offset) >> 8);
    }
}

VEL_VECTOR_LOOP void chroma(const RgbRows& rgb, const RgbToYuv& matrix, uint8_t* __restrict u, uint8_t* __restrict v,
                            int width)
{
    const RgbToYuv m = matrix;
    const RgbRows in = rgb;
    // 128 and a rounding that cannot carry full-range blue or red past the 16 bits.
    constexpr uint16_t kOffset = 128 * 256 + 127;
    for (int i = 0; i < width; ++i) {
        const auto r = static_cast<uint16_t>((in.r[0][i] + in.r[1][i]) << 7);
        const auto g = static_cast<uint16_t>((in.g[0][i] + in.g[1][i]) << 7);
        const auto b = static_cast<uint16_t>((in.b[0][i] + in.b[1][i]) << 7);
        const auto sum_u = static_cast<uint16_t>(kOffset + scale(b, m.u_b) - scale(r, m.u_r) - scale(g, m.u_g));
        const auto sum_v = static_cast<uint16_t>(kOffset + scale(r, m.v_r) - scale(g, m.v_g) - scale(b, m.v_b));
        u[i] = static_cast<uint8_t>(sum_u >> 8);
        v[i] = static_cast<uint8_t>(sum_v >> 8);
    }
}

VEL_VECTOR_LOOP void to_rgb(const uint8_t* __restrict y, const uint8_t* __restrict u, const uint8_t* __restrict v,
                            const YuvToRgb& matrix, uint8_t* __restrict r, uint8_t* __restrict g, uint8_t* __restrict b,
                            int width)
{
    const YuvToRgb m = matrix;
    for (int i = 0; i < width; ++i) {
        const auto luma_sum = static_cast<int16_t>(times_luma(y[i], m.y) + m.offset);
        r[i] = to_byte(static_cast<int16_t>(luma_sum + times_chroma(v[i], m.r_v)));
        g[i] = to_byte(static_cast<int16_t>(luma_sum + times_chroma(u[i], m.g_u) + times_chroma(v[i], m.g_v)));
        b[i] = to_byte(static_cast<int16_t>(luma_sum + times_chroma(u[i], m.b_u)));
    }
}

VEL_VECTOR_LOOP void to_yuv(const uint8_t* __restrict y, const uint8_t* __restrict u, const uint8_t* __restrict v,
                            const YuvToYuv& matrix, uint8_t* __restrict out_y, uint8_t* __restrict out_u,
                            uint8_t* __restrict out_v, int width)
{
    const YuvToYuv m = matrix;
    constexpr int16_t kCentre = 128 * kOne + kRounding;
    for (int i = 0; i < width; ++i) {
        out_y[i] = to_byte(static_cast<int16_t>(times_luma(y[i], m.y_y) + times_chroma(u[i], m.y_u) +
                                                times_chroma(v[i], m.y_v) + m.y_offset));
        out_u[i] = to_byte(static_cast<int16_t>(times_chroma(u[i], m.u_u) + times_chroma(v[i], m.u_v) + kCentre));
        out_v[i] = to_byte(static_cast<int16_t>(times_chroma(u[i], m.v_u) + times_chroma(v[i], m.v_v) + kCentre));
    }
}

VEL_VECTOR_LOOP void split_yuy2(const uint8_t* __restrict yuy2, uint8_t* __restrict y, uint8_t* __restrict uv,
                                int pairs)
{
    for (int i = 0; i < 2 * pairs; ++i) {
        const uint16_t word = load_pair(yuy2 + 2 * i);
        y[i] = static_cast<uint8_t>(word & 0xff);
        uv[i] = static_cast<uint8_t>(word >> 8);
    }
}

VEL_VECTOR_LOOP void merge_yuy2(const uint8_t* __restrict y, const uint8_t* __restrict uv, uint8_t* __restrict yuy2,
                                int pairs)
{
    for (int i = 0; i < 2 * pairs; ++i)
        store_pair(yuy2 + 2 * i, static_cast<unsigned>(y[i] | (uv[i] << 8)));
}

VEL_VECTOR_LOOP void set_opaque(uint8_t* pixels, int offset, int width)
{
    for (int i = 0; i < width; ++i)
        pixels[4 * i + offset] = 255;
}

} // namespace velstream::software::rows
