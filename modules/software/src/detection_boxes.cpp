#include "detection_boxes.h"

#include <opencv2/dnn.hpp>

#include <algorithm>
#include <cmath>

namespace velstream::software {

namespace {

constexpr const char* kSsd = "ssd";
constexpr const char* kYolov5 = "yolov5";
constexpr const char* kYolov8 = "yolov8";
constexpr const char* kModules[] = {kSsd, kYolov5, kYolov8};

struct Matrix {
    std::size_t rows = 0, columns = 0;
};

/// The last two dimensions, where nothing but ones stands before them.
std::optional<Matrix> matrix_of(const Shape& shape)
{
    if (shape.size() < 2) return std::nullopt;
    const auto before = shape.end() - 2;
    if (!std::all_of(shape.begin(), before, [](int number) { return number == 1; })) return std::nullopt;
    return Matrix{static_cast<std::size_t>(before[0]), static_cast<std::size_t>(before[1])};
}

/// Boxes of a model whose outputs have three dimensions: a map of four, as networks of other kinds give, is none.
std::optional<Matrix> box_matrix_of(const Shape& shape)
{
    return shape.size() <= 3 ? matrix_of(shape) : std::nullopt;
}

std::size_t count_of(const Shape& shape)
{
    std::size_t count = 1;
    for (const int number : shape)
        count *= static_cast<std::size_t>(number);
    return count;
}

constexpr std::size_t kCorners = 4;

} // namespace

std::string known_modules()
{
    std::string text;
    for (const char* module : kModules)
        text += (text.empty() ? "" : ", ") + std::string(module);
    return text;
}

bool is_known_module(const std::string& module)
{
    return std::find(std::begin(kModules), std::end(kModules), module) != std::end(kModules);
}

std::string BoxDecoder::configure(const std::string& module, const std::vector<Shape>& shapes, int width, int height)
{
    if (!is_known_module(module))
        return "The module \"" + module + "\" is not known; known are " + known_modules() + ".";
    width_ = static_cast<float>(width);
    height_ = static_cast<float>(height);
    const bool fits = module == kSsd ? fit_ssd(shapes) : module == kYolov5 ? fit_yolov5(shapes) : fit_yolov8(shapes);
    if (fits) return "";
    return "The model's output " + text_of(shapes) + " is not what the module \"" + module + "\" reads.";
}

/// Boxes are more than numbers of a box; where one of both is too few for a box, it is the boxes.
bool BoxDecoder::fit_yolov8(const std::vector<Shape>& shapes)
{
    if (shapes.size() == 3) {
        const auto boxes = box_matrix_of(shapes[0]);
        if (!boxes || boxes->columns != kCorners) return false;
        layout_ = Layout::boxes_scores_classes;
        count_ = boxes->rows;
        return count_of(shapes[1]) == count_ && count_of(shapes[2]) == count_;
    }
    const auto matrix = shapes.size() == 1 ? box_matrix_of(shapes[0]) : std::nullopt;
    if (!matrix || std::max(matrix->rows, matrix->columns) <= kCorners) return false;
    const bool has_rows_of_boxes =
        matrix->rows <= kCorners || (matrix->columns > kCorners && matrix->columns < matrix->rows);
    layout_ = has_rows_of_boxes ? Layout::rows : Layout::columns;
    count_ = has_rows_of_boxes ? matrix->rows : matrix->columns;
    numbers_ = has_rows_of_boxes ? matrix->columns : matrix->rows;
    return true;
}

/// More numbers than boxes are the other way round: what the module "yolov8" reads.
bool BoxDecoder::fit_yolov5(const std::vector<Shape>& shapes)
{
    const auto matrix = shapes.size() == 1 ? box_matrix_of(shapes[0]) : std::nullopt;
    if (!matrix || matrix->columns < kCorners + 2) return false;
    if (matrix->rows > kCorners && matrix->columns > matrix->rows) return false;
    layout_ = Layout::rows_with_objectness;
    count_ = matrix->rows;
    numbers_ = matrix->columns;
    return true;
}

bool BoxDecoder::fit_ssd(const std::vector<Shape>& shapes)
{
    constexpr std::size_t kRow = 7;
    const auto first = !shapes.empty() ? matrix_of(shapes[0]) : std::nullopt;
    if (shapes.size() == 1) {
        layout_ = Layout::ssd_rows;
        count_ = first ? first->rows : 0;
        numbers_ = kRow;
        return first && first->columns == kRow;
    }
    const auto second = shapes.size() == 2 ? matrix_of(shapes[1]) : std::nullopt;
    if (!first || !second || first->rows != second->rows) return false;
    boxes_index_ = first->columns == kCorners ? 0 : 1;
    const Matrix& boxes = boxes_index_ == 0 ? *first : *second;
    const Matrix& confidence = boxes_index_ == 0 ? *second : *first;
    layout_ = Layout::ssd_boxes_and_confidence;
    count_ = boxes.rows;
    numbers_ = confidence.columns;
    return boxes.columns == kCorners && confidence.columns >= 2;
}

const std::vector<DetectedBox>& BoxDecoder::decode(std::span<const float* const> tensors, float threshold)
{
    boxes_.clear();
    switch (layout_) {
    case Layout::columns:
        decode_columns(tensors[0], threshold);
        break;
    case Layout::rows:
        decode_rows(tensors[0], threshold, false);
        break;
    case Layout::rows_with_objectness:
        decode_rows(tensors[0], threshold, true);
        break;
    case Layout::boxes_scores_classes:
        decode_three(tensors, threshold);
        break;
    case Layout::ssd_rows:
        decode_ssd_rows(tensors[0], threshold);
        break;
    case Layout::ssd_boxes_and_confidence:
        decode_ssd_pair(tensors, threshold);
        break;
    }
    return boxes_;
}

/// Goes class by class, as the numbers lie in memory.
void BoxDecoder::decode_columns(const float* numbers, float threshold)
{
    best_.assign(count_, -1.0F);
    best_class_.assign(count_, 0);
    for (std::size_t row = kCorners; row < numbers_; ++row) {
        const float* scores = numbers + row * count_;
        for (std::size_t i = 0; i < count_; ++i) {
            if (!(scores[i] > best_[i])) continue;
            best_[i] = scores[i];
            best_class_[i] = static_cast<int>(row - kCorners);
        }
    }
    for (std::size_t i = 0; i < count_; ++i)
        if (best_[i] >= threshold)
            add_centred(numbers[i], numbers[count_ + i], numbers[2 * count_ + i], numbers[3 * count_ + i],
                        best_class_[i], best_[i]);
}

void BoxDecoder::decode_rows(const float* numbers, float threshold, bool has_objectness)
{
    const std::size_t first_class = kCorners + (has_objectness ? 1 : 0);
    for (std::size_t i = 0; i < count_; ++i) {
        const float* row = numbers + i * numbers_;
        const float objectness = has_objectness ? row[kCorners] : 1.0F;
        if (!(objectness >= threshold)) continue;
        const float* best = std::max_element(row + first_class, row + numbers_);
        const float score = objectness * *best;
        if (score >= threshold)
            add_centred(row[0], row[1], row[2], row[3], static_cast<int>(best - row - static_cast<int>(first_class)),
                        score);
    }
}

void BoxDecoder::decode_three(std::span<const float* const> tensors, float threshold)
{
    for (std::size_t i = 0; i < count_; ++i)
        if (tensors[1][i] >= threshold)
            add_corners(tensors[0] + kCorners * i, 1.0F, 1.0F, static_cast<int>(std::lround(tensors[2][i])),
                        tensors[1][i]);
}

/// A picture below 0 ends the list.
void BoxDecoder::decode_ssd_rows(const float* numbers, float threshold)
{
    for (std::size_t i = 0; i < count_; ++i) {
        const float* row = numbers + i * numbers_;
        if (row[0] < 0) return;
        if (row[2] >= threshold) add_corners(row + 3, width_, height_, static_cast<int>(std::lround(row[1])), row[2]);
    }
}

void BoxDecoder::decode_ssd_pair(std::span<const float* const> tensors, float threshold)
{
    const float* boxes = tensors[boxes_index_];
    const float* confidence = tensors[1 - boxes_index_];
    for (std::size_t i = 0; i < count_; ++i) {
        const float* row = confidence + i * numbers_;
        const float* best = std::max_element(row + 1, row + numbers_);
        if (*best >= threshold) add_corners(boxes + kCorners * i, width_, height_, static_cast<int>(best - row), *best);
    }
}

void BoxDecoder::add_centred(float x, float y, float width, float height, int label, float score)
{
    const float corners[] = {x - width / 2, y - height / 2, x + width / 2, y + height / 2};
    add_corners(corners, 1.0F, 1.0F, label, score);
}

/// What is no box is left out. What reaches out of the picture is cut off.
void BoxDecoder::add_corners(const float* corners, float scale_x, float scale_y, int label, float score)
{
    for (std::size_t i = 0; i < kCorners; ++i)
        if (!std::isfinite(corners[i])) return;
    const float left = std::clamp(corners[0] * scale_x, 0.0F, width_);
    const float top = std::clamp(corners[1] * scale_y, 0.0F, height_);
    const float right = std::clamp(corners[2] * scale_x, 0.0F, width_);
    const float bottom = std::clamp(corners[3] * scale_y, 0.0F, height_);
    if (right <= left || bottom <= top) return;
    boxes_.push_back({label, std::min(score, 1.0F), {left, top, right - left, bottom - top}});
}

/// Boxes of different classes are moved apart, so that they never overlap.
std::vector<DetectedBox> pick_best(const std::vector<DetectedBox>& boxes, std::size_t count)
{
    constexpr float kMaxOverlap = 0.45F;
    constexpr int kMaxCandidates = 2000;
    double span = 1.0;
    for (const DetectedBox& box : boxes)
        span = std::max({span, double{box.area.x} + box.area.width, double{box.area.y} + box.area.height});
    std::vector<cv::Rect2d> areas;
    std::vector<float> scores;
    for (const DetectedBox& box : boxes) {
        areas.emplace_back(box.area.x + 2 * span * box.label, box.area.y, box.area.width, box.area.height);
        scores.push_back(box.score);
    }
    std::vector<int> indices;
    cv::dnn::NMSBoxes(areas, scores, 0.0F, kMaxOverlap, indices, 1.0F, kMaxCandidates);
    std::vector<DetectedBox> best;
    for (std::size_t i = 0; i < indices.size() && i < count; ++i)
        best.push_back(boxes[static_cast<std::size_t>(indices[i])]);
    return best;
}

} // namespace velstream::software
