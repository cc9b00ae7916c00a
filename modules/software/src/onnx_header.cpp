#include "onnx_header.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <limits>
#include <set>

namespace velstream::software {

namespace {

enum WireType : unsigned { kVarint = 0, kFixed64 = 1, kLengthDelimited = 2, kFixed32 = 5 };

struct Field {
    unsigned number = 0;
    uint64_t value = 0;     ///< of a varint
    std::string_view bytes; ///< of what has a length
};

/// Walks the fields of one protobuf message.
class Message {
public:
    explicit Message(std::string_view bytes) : rest_(bytes) {}

    /// None: the message is at its end, or damaged.
    std::optional<Field> next()
    {
        if (rest_.empty() || is_damaged_) return std::nullopt;
        const auto key = varint();
        if (!key) return std::nullopt;
        Field field;
        field.number = static_cast<unsigned>(*key >> 3);
        if (!read_value(static_cast<unsigned>(*key & 7), field)) is_damaged_ = true;
        if (field.number == 0) is_damaged_ = true;
        if (is_damaged_) return std::nullopt;
        return field;
    }
    bool is_damaged() const { return is_damaged_; }

private:
    bool read_value(unsigned wire_type, Field& field)
    {
        switch (wire_type) {
        case kVarint:
            field.value = varint().value_or(0);
            return !is_damaged_;
        case kFixed64:
            return take(8, field.bytes);
        case kFixed32:
            return take(4, field.bytes);
        case kLengthDelimited: {
            const auto length = varint();
            return length && take(*length, field.bytes);
        }
        default:
            return false;
        }
    }

    bool take(uint64_t length, std::string_view& bytes)
    {
        if (length > rest_.size()) return false;
        bytes = rest_.substr(0, length);
        rest_.remove_prefix(length);
        return true;
    }

    std::optional<uint64_t> varint()
    {
        uint64_t value = 0;
        for (unsigned shift = 0; shift < 64 && !rest_.empty(); shift += 7) {
            const auto byte = static_cast<uint8_t>(rest_.front());
            rest_.remove_prefix(1);
            value |= uint64_t{byte & 0x7FU} << shift;
            if (byte < 0x80) return value;
        }
        is_damaged_ = true;
        return std::nullopt;
    }

    std::string_view rest_;
    bool is_damaged_ = false;
};

/// Calls `visit` for each field. @return false: the message is damaged
template <typename Visit>
bool for_each_field(std::string_view bytes, Visit visit)
{
    Message message(bytes);
    while (const auto field = message.next())
        visit(*field);
    return !message.is_damaged();
}

/// TensorShapeProto.Dimension: a number, or a name for what is open.
int read_dimension(std::string_view bytes)
{
    uint64_t number = 0;
    for_each_field(bytes, [&number](const Field& field) {
        if (field.number == 1) number = field.value;
    });
    return number <= static_cast<uint64_t>(std::numeric_limits<int>::max()) ? static_cast<int>(number) : 0;
}

/// TypeProto.Tensor.
void read_tensor_type(std::string_view bytes, OnnxValue& value)
{
    for_each_field(bytes, [&value](const Field& field) {
        if (field.number == 1) value.type = static_cast<int>(field.value);
        if (field.number != 2) return;
        for_each_field(field.bytes, [&value](const Field& dimension) {
            if (dimension.number == 1) value.shape.push_back(read_dimension(dimension.bytes));
        });
    });
}

/// ValueInfoProto.
OnnxValue read_value_info(std::string_view bytes)
{
    OnnxValue value;
    for_each_field(bytes, [&value](const Field& field) {
        if (field.number == 1) value.name = std::string(field.bytes);
        if (field.number != 2) return;
        for_each_field(field.bytes, [&value](const Field& type) {
            if (type.number == 1) read_tensor_type(type.bytes, value);
        });
    });
    return value;
}

/// Bytes of one number of TensorProto.DataType; 0: of a type that is not checked.
std::size_t bytes_of(uint64_t type)
{
    constexpr std::size_t kBytes[] = {0, 4, 1, 1, 2, 2, 4, 8, 0, 1, 2, 8, 4, 8};
    return type < std::size(kBytes) ? kBytes[type] : 0;
}

struct Weights {
    std::string name;
    bool is_whole = true;
};

/// TensorProto. Numbers that are there raw are as many as the dimensions say.
Weights read_weights(std::string_view bytes)
{
    Weights weights;
    uint64_t count = 1;
    uint64_t type = 0;
    std::optional<std::size_t> size;
    weights.is_whole = for_each_field(bytes, [&](const Field& field) {
        if (field.number == 1 && field.bytes.empty())
            count = field.value > 0 && count > std::numeric_limits<uint32_t>::max() ? 0 : count * field.value;
        if (field.number == 2) type = field.value;
        if (field.number == 8) weights.name = std::string(field.bytes);
        if (field.number == 9) size = field.bytes.size();
    });
    const std::size_t number_size = bytes_of(type);
    if (size && number_size > 0 && *size != count * number_size) weights.is_whole = false;
    return weights;
}

/// NodeProto.
struct Node {
    std::vector<std::string> inputs, outputs;
    bool is_whole = true;
};

Node read_node(std::string_view bytes)
{
    Node node;
    node.is_whole = for_each_field(bytes, [&node](const Field& field) {
        if (field.number == 1) node.inputs.emplace_back(field.bytes);
        if (field.number == 2) node.outputs.emplace_back(field.bytes);
    });
    return node;
}

/// What has a name in a graph, and whether everything that is named is there. What reads models relies on that.
class Graph {
public:
    /// GraphProto.
    explicit Graph(std::string_view bytes)
    {
        is_whole_ = for_each_field(bytes, [this](const Field& field) { read(field); });
        std::erase_if(header_.inputs, [this](const OnnxValue& input) { return weights_.contains(input.name); });
        for (const OnnxValue& input : header_.inputs)
            known_.insert(input.name);
        known_.insert(weights_.begin(), weights_.end());
        for (const Node& node : nodes_)
            follow(node);
        for (const OnnxValue& output : header_.outputs)
            is_whole_ &= known_.contains(output.name);
    }

    std::optional<OnnxHeader> header() const
    {
        if (!is_whole_ || header_.inputs.empty() || header_.outputs.empty()) return std::nullopt;
        return header_;
    }

private:
    void read(const Field& field)
    {
        if (field.number == 1) nodes_.push_back(read_node(field.bytes));
        if (field.number == 11) header_.inputs.push_back(read_value_info(field.bytes));
        if (field.number == 12) header_.outputs.push_back(read_value_info(field.bytes));
        if (field.number != 5) return;
        const Weights weights = read_weights(field.bytes);
        is_whole_ &= weights.is_whole;
        weights_.insert(weights.name);
    }

    /// Nodes stand in the order in which they are run; an input without a name is left out on purpose.
    void follow(const Node& node)
    {
        is_whole_ &= node.is_whole && !node.outputs.empty();
        for (const std::string& input : node.inputs)
            is_whole_ &= input.empty() || known_.contains(input);
        known_.insert(node.outputs.begin(), node.outputs.end());
    }

    OnnxHeader header_;
    std::vector<Node> nodes_;
    std::set<std::string> weights_, known_;
    bool is_whole_ = true;
};

} // namespace

/// ModelProto.
std::optional<OnnxHeader> read_onnx_header(std::string_view bytes)
{
    std::optional<OnnxHeader> header;
    const bool is_whole = for_each_field(bytes, [&header](const Field& field) {
        if (field.number == 7) header = Graph(field.bytes).header();
    });
    return is_whole ? header : std::nullopt;
}

} // namespace velstream::software
