#include "square_detector.h"

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <vector>

namespace velstream::test {

namespace {

// ---- Protobuf
// -------------------------------------------------------------------------------------------------------------------

class Message {
public:
    Message& number(unsigned field, uint64_t value)
    {
        key(field, 0);
        varint(value);
        return *this;
    }
    Message& text(unsigned field, const std::string& bytes)
    {
        key(field, 2);
        varint(bytes.size());
        bytes_ += bytes;
        return *this;
    }
    Message& message(unsigned field, const Message& other) { return text(field, other.bytes_); }
    const std::string& bytes() const { return bytes_; }

private:
    void key(unsigned field, unsigned wire_type) { varint(field << 3 | wire_type); }
    void varint(uint64_t value)
    {
        for (; value > 127; value >>= 7)
            bytes_.push_back(static_cast<char>(value | 128));
        bytes_.push_back(static_cast<char>(value));
    }

    std::string bytes_;
};

// ---- ONNX
// -----------------------------------------------------------------------------------------------------------------------

using Shape = std::vector<int64_t>;

constexpr int kFloat = 1;
constexpr int kUint8 = 2;
constexpr int kInt64 = 7;

Message tensor(const std::string& name, int type, const Shape& shape, const void* data, std::size_t size)
{
    Message tensor;
    for (const int64_t number : shape)
        tensor.number(1, static_cast<uint64_t>(number));
    tensor.number(2, static_cast<uint64_t>(type)).text(8, name);
    return tensor.text(9, std::string(static_cast<const char*>(data), size));
}

Message floats(const std::string& name, const Shape& shape, const std::vector<float>& numbers)
{
    return tensor(name, kFloat, shape, numbers.data(), numbers.size() * sizeof(float));
}

Message shape_tensor(const std::string& name, const Shape& numbers)
{
    return tensor(name, kInt64, {static_cast<int64_t>(numbers.size())}, numbers.data(),
                  numbers.size() * sizeof(int64_t));
}

Message attribute(const std::string& name, int64_t number)
{
    constexpr uint64_t kIntType = 2;
    return Message().text(1, name).number(3, static_cast<uint64_t>(number)).number(20, kIntType);
}

Message attribute(const std::string& name, const Shape& numbers)
{
    constexpr uint64_t kIntsType = 7;
    Message attribute;
    attribute.text(1, name);
    for (const int64_t number : numbers)
        attribute.number(8, static_cast<uint64_t>(number));
    return attribute.number(20, kIntsType);
}

Message node(const std::string& type, const std::vector<std::string>& inputs, const std::string& output,
             const std::vector<Message>& attributes = {})
{
    Message node;
    for (const std::string& input : inputs)
        node.text(1, input);
    node.text(2, output).text(3, "make_" + output).text(4, type);
    for (const Message& item : attributes)
        node.message(5, item);
    return node;
}

/// A number of 0 is left open.
Message value_info(const std::string& name, int type, const Shape& shape)
{
    Message dimensions;
    for (const int64_t number : shape) {
        Message dimension;
        number > 0 ? dimension.number(1, static_cast<uint64_t>(number)) : dimension.text(2, "open");
        dimensions.message(1, dimension);
    }
    const Message tensor_type = Message().number(1, static_cast<uint64_t>(type)).message(2, dimensions);
    return Message().text(1, name).message(2, Message().message(1, tensor_type));
}

// ---- The detector
// ---------------------------------------------------------------------------------------------------------------

class Graph {
public:
    explicit Graph(const SquareDetector& detector)
        : detector_(detector), columns_(detector.width - detector.square + 1),
          rows_(detector.height - detector.square + 1), count_(int64_t{columns_} * rows_)
    {
        graph_.text(2, "squares");
        add_input();
        add_scores();
        add_output();
    }

    std::string model() const
    {
        const Message opset = Message().text(1, "").number(2, 11);
        return Message().number(1, 6).text(2, "velstream-tests").message(7, graph_).message(8, opset).bytes();
    }

private:
    void add_node(const Message& item) { graph_.message(1, item); }
    void add_constant(const Message& item) { graph_.message(5, item); }

    void add_input()
    {
        const int64_t batch = detector_.has_open_batch ? 0 : 1;
        const int64_t width = detector_.has_open_size ? 0 : detector_.width;
        const int64_t height = detector_.has_open_size ? 0 : detector_.height;
        if (!detector_.takes_bytes) {
            graph_.message(11, value_info("image", kFloat, {batch, 3, height, width}));
            return;
        }
        graph_.message(11, value_info("bytes", kUint8, {batch, height, width, 3}));
        add_node(node("Cast", {"bytes"}, "numbers", {attribute("to", kFloat)}));
        add_node(node("Transpose", {"numbers"}, "planes", {attribute("perm", Shape{0, 3, 1, 2})}));
        add_constant(floats("scale", {1}, {1.0F / 255.0F}));
        add_node(node("Mul", {"planes", "scale"}, "image"));
    }

    /// The mean of the square less the mean of the ring around it, at every place: both from sums over squares, each of
    /// them a sum over columns of sums over rows.
    void add_scores()
    {
        const int ring = std::max(2, detector_.square / 6);
        const int side = detector_.square + 2 * ring;
        const auto inside = static_cast<float>(detector_.square * detector_.square);
        const auto outside = static_cast<float>(side * side) - inside;
        add_constant(floats("grey_weights", {1, 3, 1, 1}, std::vector<float>(3, 1.0F / 3.0F)));
        add_node(node(detector_.is_unknown_operator ? "Guess" : "Conv", {"image", "grey_weights"}, "grey",
                      {attribute("kernel_shape", Shape{1, 1})}));
        if (detector_.has_other_files) {
            const Message place = Message().text(1, "location").text(2, "weights.bin");
            add_constant(
                Message().number(1, 9).number(2, kFloat).text(8, "absent_weights").message(13, place).number(14, 1));
        }
        add_sum("inner", detector_.square, 0, 1.0F / inside + 1.0F / outside);
        add_sum("outer", side, ring, -1.0F / outside);
        add_node(node("Add", {"inner", "outer"}, "score_map"));
    }

    /// `factor` times the sum over a square, beyond whose picture everything is 0.
    void add_sum(const std::string& name, int side, int padding, float factor)
    {
        const auto ones = static_cast<std::size_t>(side);
        add_constant(floats(name + "_row_weights", {1, 1, 1, side}, std::vector<float>(ones, 1.0F)));
        add_constant(floats(name + "_column_weights", {1, 1, side, 1}, std::vector<float>(ones, factor)));
        add_node(node("Conv", {"grey", name + "_row_weights"}, name + "_rows",
                      {attribute("kernel_shape", Shape{1, side}), attribute("pads", Shape{0, padding, 0, padding})}));
        add_node(node("Conv", {name + "_rows", name + "_column_weights"}, name,
                      {attribute("kernel_shape", Shape{side, 1}), attribute("pads", Shape{padding, 0, padding, 0})}));
    }

    void add_output()
    {
        switch (detector_.output) {
        case ModelOutput::yolov8:
            reshape_scores({1, 1, count_});
            add_constant(floats("boxes", {1, 4, count_}, transposed(centred_boxes())));
            join({"boxes", "scores"}, 1, {1, 5, count_});
            break;
        case ModelOutput::yolov5:
            reshape_scores({1, count_, 1});
            add_constant(floats("boxes", {1, count_, 4}, centred_boxes()));
            add_constant(floats("ones", {1, count_, 1}, std::vector<float>(static_cast<std::size_t>(count_), 1.0F)));
            join({"boxes", "scores", "ones"}, 2, {1, count_, 6});
            break;
        case ModelOutput::ssd:
            reshape_scores({1, 1, count_, 1});
            add_constant(floats("ids", {1, 1, count_, 2}, picture_and_class()));
            add_constant(floats("boxes", {1, 1, count_, 4}, corners()));
            join({"ids", "scores", "boxes"}, 3, {1, 1, count_, 7});
            break;
        case ModelOutput::raw_score:
            graph_.message(12, value_info("score_map", kFloat, {1, 1, rows_, columns_}));
            break;
        }
    }

    void reshape_scores(const Shape& shape)
    {
        add_constant(shape_tensor("score_shape", shape));
        add_node(node("Reshape", {"score_map", "score_shape"}, "scores"));
    }

    void join(const std::vector<std::string>& parts, int64_t axis, const Shape& shape)
    {
        add_node(node("Concat", parts, "found", {attribute("axis", axis)}));
        graph_.message(12, value_info("found", kFloat, shape));
    }

    template <typename Write>
    std::vector<float> for_each_place(Write write) const
    {
        std::vector<float> numbers;
        for (int y = 0; y < rows_; ++y)
            for (int x = 0; x < columns_; ++x)
                for (const float number : write(static_cast<float>(x), static_cast<float>(y)))
                    numbers.push_back(number);
        return numbers;
    }

    std::vector<float> centred_boxes() const
    {
        const auto side = static_cast<float>(detector_.square);
        return for_each_place([side](float x, float y) {
            return std::vector<float>{x + side / 2, y + side / 2, side, side};
        });
    }

    std::vector<float> corners() const
    {
        const auto side = static_cast<float>(detector_.square);
        const auto width = static_cast<float>(detector_.width);
        const auto height = static_cast<float>(detector_.height);
        return for_each_place([=](float x, float y) {
            return std::vector<float>{x / width, y / height, (x + side) / width, (y + side) / height};
        });
    }

    std::vector<float> picture_and_class() const
    {
        return for_each_place([](float, float) { return std::vector<float>{0.0F, 1.0F}; });
    }

    static std::vector<float> transposed(const std::vector<float>& rows)
    {
        std::vector<float> columns;
        for (std::size_t column = 0; column < 4; ++column)
            for (std::size_t i = column; i < rows.size(); i += 4)
                columns.push_back(rows[i]);
        return columns;
    }

    const SquareDetector& detector_;
    int columns_, rows_; ///< places that a square can have
    int64_t count_;
    Message graph_;
};

} // namespace

std::string make_square_detector(const SquareDetector& detector)
{
    return Graph(detector).model();
}

void write_file(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

} // namespace velstream::test
