// What an ONNX file says about its inputs and outputs.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velstream::software {

/// Numbers of ONNX's TensorProto.DataType.
namespace onnx_type {
inline constexpr int kFloat = 1;
inline constexpr int kUint8 = 2;
inline constexpr int kInt32 = 6;
} // namespace onnx_type

struct OnnxValue {
    std::string name;
    int type = 0;           ///< of onnx_type; 0: not said
    std::vector<int> shape; ///< 0: left open
};

struct OnnxHeader {
    std::vector<OnnxValue> inputs; ///< without the weights, which old files list among them
    std::vector<OnnxValue> outputs;
    bool has_other_files = false; ///< weights stand in files of their own
};

/// None: `bytes` are not a whole ONNX model, or it has no input or output.
std::optional<OnnxHeader> read_onnx_header(std::string_view bytes);

} // namespace velstream::software
