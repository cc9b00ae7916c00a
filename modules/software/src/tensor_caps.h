// What caps say about tensors: "neural-network/tensors,type=FLOAT32,dimensions=<<1,3,640,640>>", one inner array for
// each.
#pragma once

#include "vtransform_geometry.h"

#include <gst/gst.h>

#include <optional>
#include <string>
#include <vector>

namespace velstream::software {

inline constexpr const char* kTensorMediaType = "neural-network/tensors";

enum class TensorType { uint8, int32, float32 };

using Shape = std::vector<int>;

struct Tensors {
    TensorType type = TensorType::uint8;
    std::vector<Shape> shapes; ///< at least one; every number is above 0
};

/// None: the first structure of `caps` does not name one type and the dimensions.
std::optional<Tensors> read_tensors(const GstCaps* caps);
void write_tensors(GstStructure* structure, const Tensors& tensors);

const char* name_of(TensorType type);
gsize bytes_per_number(TensorType type);
/// Bytes of one tensor; 0 where it is larger than any that is used.
gsize size_of(TensorType type, const Shape& shape);
/// "<<1,84,8400>>", as in caps.
std::string text_of(const std::vector<Shape>& shapes);

/**
 * Which part of a video a tensor shows, and where. It travels in the caps, so that boxes found in the tensor can be put
 * back on the video: "picture-size=<1920,1080>,picture-source=<0,0,1920,1080>,picture-tensor=<640,640>,
 * picture-place=<0,0,640,360>".
 */
struct TensorView {
    int video_width = 0, video_height = 0;
    Rectangle source; ///< of the video, in its pixels
    int tensor_width = 0, tensor_height = 0;
    Rectangle place; ///< of `source` in the tensor, in its pixels
};

/// None: the first structure of `caps` lacks one of the fields, or a size is 0.
std::optional<TensorView> read_view(const GstCaps* caps);
void write_view(GstStructure* structure, const TensorView& view);

} // namespace velstream::software
