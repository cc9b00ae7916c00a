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
    bool is_elsewhere = false; ///< in a file of its own
};

/// Numbers of variable length, one after the other: each ends with a byte below 128.
std::size_t count_varints(const Field& field)
{
    if (field.bytes.empty()) return 1;
    return static_cast<std::size_t>(
        std::count_if(field.bytes.begin(), field.bytes.end(), [](char byte) { return (byte & 0x80) == 0; }));
}

/// How many numbers the fields of a TensorProto hold; those of one tensor all stand in one kind of field.
struct NumberCounts {
    std::size_t floats = 0, int32s = 0, int64s = 0, doubles = 0, uint64s = 0, raw_bytes = 0;

    void add(const Field& field)
    {
        if (field.number == 4) floats += field.bytes.size() / 4;
        if (field.number == 5) int32s += count_varints(field);
        if (field.number == 7) int64s += count_varints(field);
        if (field.number == 9) raw_bytes += field.bytes.size();
        if (field.number == 10) doubles += field.bytes.size() / 8;
        if (field.number == 11) uint64s += count_varints(field);
    }
    bool are(uint64_t count, uint64_t type) const
    {
        const std::size_t numbers = floats + int32s + int64s + doubles + uint64s;
        if (raw_bytes == 0) return numbers == count;
        return numbers == 0 && bytes_of(type) > 0 && raw_bytes == count * bytes_of(type);
    }
};

/// TensorProto. What reads models takes as many numbers as the dimensions say, whether they are there or not.
Weights read_weights(std::string_view bytes)
{
    constexpr uint64_t kMaxCount = uint64_t{1} << 40;
    constexpr uint64_t kString = 8;
    Weights weights;
    NumberCounts numbers;
    uint64_t count = 1;
    uint64_t type = 0;
    const bool is_message = for_each_field(bytes, [&](const Field& field) {
        if (field.number == 1 && field.value > kMaxCount) weights.is_whole = false;
        if (field.number == 1) count = count > kMaxCount ? count : count * std::min(field.value, kMaxCount);
        if (field.number == 2) type = field.value;
        if (field.number == 8) weights.name = std::string(field.bytes);
        if (field.number == 13) weights.is_elsewhere = true;
        numbers.add(field);
    });
    weights.is_whole &=
        is_message && count <= kMaxCount && (weights.is_elsewhere || type == kString || numbers.are(count, type));
    return weights;
}

/// NodeProto.
struct Node {
    std::vector<std::string> inputs, outputs;
    bool is_whole = true;
    bool is_elsewhere = false;
};

/// AttributeProto.
void read_attribute(std::string_view bytes, Node& node)
{
    const bool is_message = for_each_field(bytes, [&node](const Field& field) {
        if (field.number != 5) return;
        const Weights weights = read_weights(field.bytes);
        node.is_whole &= weights.is_whole;
        node.is_elsewhere |= weights.is_elsewhere;
    });
    node.is_whole &= is_message;
}

Node read_node(std::string_view bytes)
{
    Node node;
    const bool is_message = for_each_field(bytes, [&node](const Field& field) {
        if (field.number == 1) node.inputs.emplace_back(field.bytes);
        if (field.number == 2) node.outputs.emplace_back(field.bytes);
        if (field.number == 5) read_attribute(field.bytes, node);
    });
    node.is_whole &= is_message;
    return node;
}

/// What has a name in a graph, and whether everything that is named is there. What reads models relies on that.
class Graph {
public:
    /// GraphProto.
    explicit Graph(std::string_view bytes)
    {
        const bool is_message = for_each_field(bytes, [this](const Field& field) { read(field); });
        is_whole_ &= is_message;
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
        header_.has_other_files |= weights.is_elsewhere;
        weights_.insert(weights.name);
    }

    /// Nodes stand in the order in which they are run; an input without a name is left out on purpose.
    void follow(const Node& node)
    {
        is_whole_ &= node.is_whole && !node.outputs.empty();
        header_.has_other_files |= node.is_elsewhere;
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
