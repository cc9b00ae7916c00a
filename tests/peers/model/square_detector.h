// A tiny detector as an ONNX model: it finds bright squares of one size on a dark ground.
#pragma once

#include <string>

namespace velstream::test {

enum class ModelOutput {
    yolov8,   ///< <1,5,N>
    yolov5,   ///< <1,N,6>
    ssd,      ///< <1,1,N,7>
    raw_score ///< <1,1,H,W>: no boxes at all
};

struct SquareDetector {
    ModelOutput output = ModelOutput::yolov8;
    int width = 320, height = 180; ///< of the input
    int square = 24;               ///< side of the squares to be found, in pixels of the input
    bool takes_bytes = false;      ///< input <1,H,W,3> of UINT8 in place of <1,3,H,W> of FLOAT, 0 to 1
    bool has_open_batch = false;
    bool has_open_size = false;
    bool has_other_files = false;     ///< says that weights stand in a file of their own
    bool is_unknown_operator = false; ///< one that nobody can run
};

/// The bytes of an ONNX file. A square's box has a score of its brightness less that of what is around it.
std::string make_square_detector(const SquareDetector& detector);

void write_file(const std::string& path, const std::string& bytes);

} // namespace velstream::test
