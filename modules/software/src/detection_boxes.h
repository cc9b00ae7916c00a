// From a detector's tensors to boxes, for each way that detectors write them.
#pragma once

#include "tensor_caps.h"

#include <opencv2/core/types.hpp>

#include <span>
#include <string>
#include <vector>

namespace velstream::software {

struct DetectedBox {
    int label = 0;
    float score = 0.0F; ///< 0 to 1
    cv::Rect2f area;    ///< in pixels of the tensor that the model was given
};

/// Reads the tensors of one model. For one thread at a time.
class BoxDecoder {
public:
    /**
     * @param module  how the model writes its boxes; one of known_modules()
     * @param width   of the picture in the model's input, in pixels; for models that count from 0 to 1
     * @return what is wrong: the module is not known, or the tensors are not as it expects. Empty: nothing.
     */
    std::string configure(const std::string& module, const std::vector<Shape>& shapes, int width, int height);

    /// All boxes of at least `threshold`, which overlap each other as the model found them.
    const std::vector<DetectedBox>& decode(std::span<const float* const> tensors, float threshold);

private:
    enum class Layout {
        columns,                 ///< x, y, width, height, then a score for each class: each a row of N numbers
        rows,                    ///< the same, N rows
        rows_with_objectness,    ///< N rows; a fifth number says how likely there is anything at all
        boxes_scores_classes,    ///< three tensors: corners, scores, classes
        ssd_rows,                ///< N rows: picture, class, score, corners from 0 to 1
        ssd_boxes_and_confidence ///< two tensors: corners from 0 to 1; a score for each class, 0 being none of them
    };

    bool fit_yolov8(const std::vector<Shape>& shapes);
    bool fit_yolov5(const std::vector<Shape>& shapes);
    bool fit_ssd(const std::vector<Shape>& shapes);
    void decode_columns(const float* numbers, float threshold);
    void decode_rows(const float* numbers, float threshold, bool has_objectness);
    void decode_three(std::span<const float* const> tensors, float threshold);
    void decode_ssd_rows(const float* numbers, float threshold);
    void decode_ssd_pair(std::span<const float* const> tensors, float threshold);
    void add_centred(float x, float y, float width, float height, int label, float score);
    void add_corners(const float* corners, float scale_x, float scale_y, int label, float score);

    Layout layout_ = Layout::columns;
    std::size_t count_ = 0;   ///< of boxes
    std::size_t numbers_ = 0; ///< of one box; of its classes, where these are a tensor of their own
    std::size_t boxes_index_ = 0;
    float width_ = 0, height_ = 0;
    std::vector<DetectedBox> boxes_;
    std::vector<float> best_;
    std::vector<int> best_class_;
};

/// "ssd, yolov5, yolov8".
std::string known_modules();
bool is_known_module(const std::string& module);

/// Of boxes of one class that cover the same thing only the best stays; the `count` best of all, best first.
std::vector<DetectedBox> pick_best(const std::vector<DetectedBox>& boxes, std::size_t count);

} // namespace velstream::software
