// Makes a picture into a tensor: placed, scaled, its numbers normalised.
#pragma once

#include "tensor_caps.h"

#include <array>
#include <optional>
#include <vector>

namespace velstream::software {

/// Where a picture that has another shape than the tensor goes.
enum class Placement {
    top_left,   ///< whole, in its own proportions; black at the right or below
    centre,     ///< the same, black on both sides
    stretch,    ///< whole, filling the tensor
    centre_crop ///< filling the tensor in its own proportions; what is too much is cut off on both sides
};

/// How the numbers of a picture lie in a tensor of four dimensions.
struct TensorLayout {
    bool is_planar = false; ///< <1,C,H,W>; else <1,H,W,C>
    int channels = 3;       ///< 1 (grey) or 3
    int width = 0, height = 0;
};

/// None: the tensors are not one picture.
std::optional<TensorLayout> layout_of(const Tensors& tensors);

TensorView place_picture(int video_width, int video_height, const TensorLayout& layout, Placement placement);

struct Normalisation {
    std::array<double, 3> mean{0.0, 0.0, 0.0};
    std::array<double, 3> sigma{1.0 / 255.0, 1.0 / 255.0, 1.0 / 255.0};
};

/// For one thread at a time; keeps its scratch pictures between frames.
class TensorWriter {
public:
    /**
     * @param in         of the frames to come
     * @param tensors    one picture, by layout_of()
     * @param is_bgr     blue comes first
     * @param numbers    for FLOAT32: (channel - mean) x sigma; other types take the channels as they are
     */
    void configure(const GstVideoInfo& in, const Tensors& tensors, const TensorView& view, bool is_bgr,
                   const Normalisation& numbers);
    /// @param out  size_of() bytes
    void write(const GstVideoFrame& frame, uint8_t* out);

private:
    Picture unpack(const GstVideoFrame& frame);
    void write_numbers(const uint8_t* pixels, uint8_t* out) const;
    template <typename Number>
    void spread(const uint8_t* pixels, Number* out) const;

    TensorType type_ = TensorType::uint8;
    TensorLayout layout_;
    GstVideoFormat format_ = GST_VIDEO_FORMAT_UNKNOWN; ///< of the frames
    bool is_bgr_ = false;
    bool is_direct_ = false; ///< the tensor is the picture's own bytes
    FrameTransformer transformer_;
    std::vector<uint8_t> unpacked_, pixels_, grey_;
    std::array<std::array<float, 256>, 3> values_{}; ///< of each channel's bytes
};

} // namespace velstream::software
