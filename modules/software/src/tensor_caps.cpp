#include "tensor_caps.h"

#include <array>
#include <limits>

namespace velstream::software {

namespace {

struct TypeRow {
    TensorType type;
    const char* name;
    gsize bytes;
};

constexpr TypeRow kTypes[] = {
    {TensorType::uint8, "UINT8", 1},
    {TensorType::int32, "INT32", 4},
    {TensorType::float32, "FLOAT32", 4},
};

constexpr int kMaxRank = 8;

std::optional<TensorType> type_of(const GstStructure* structure)
{
    const gchar* name = gst_structure_get_string(structure, "type");
    for (const TypeRow& row : kTypes)
        if (g_strcmp0(name, row.name) == 0) return row.type;
    return std::nullopt;
}

GValue make_array(const std::vector<int>& numbers)
{
    GValue array = G_VALUE_INIT;
    g_value_init(&array, GST_TYPE_ARRAY);
    for (const int number : numbers) {
        GValue item = G_VALUE_INIT;
        g_value_init(&item, G_TYPE_INT);
        g_value_set_int(&item, number);
        gst_value_array_append_and_take_value(&array, &item);
    }
    return array;
}

std::optional<std::vector<int>> numbers_of(const GValue* value)
{
    if (!value || !GST_VALUE_HOLDS_ARRAY(value)) return std::nullopt;
    std::vector<int> numbers;
    for (guint i = 0; i < gst_value_array_get_size(value); ++i) {
        const GValue* item = gst_value_array_get_value(value, i);
        if (!G_VALUE_HOLDS_INT(item)) return std::nullopt;
        numbers.push_back(g_value_get_int(item));
    }
    return numbers;
}

bool is_shape(const Shape& shape)
{
    if (shape.empty() || shape.size() > kMaxRank) return false;
    for (const int number : shape)
        if (number <= 0) return false;
    return true;
}

std::vector<Shape> read_shapes(const GstStructure* structure)
{
    const GValue* value = gst_structure_get_value(structure, "dimensions");
    std::vector<Shape> shapes;
    if (!value || !GST_VALUE_HOLDS_ARRAY(value)) return shapes;
    for (guint i = 0; i < gst_value_array_get_size(value); ++i) {
        const auto shape = numbers_of(gst_value_array_get_value(value, i));
        if (!shape || !is_shape(*shape)) return {};
        shapes.push_back(*shape);
    }
    return shapes;
}

void set_numbers(GstStructure* structure, const char* field, const std::vector<int>& numbers)
{
    GValue array = make_array(numbers);
    gst_structure_take_value(structure, field, &array);
}

template <std::size_t Count>
std::optional<std::array<int, Count>> get_numbers(const GstStructure* structure, const char* field)
{
    const auto numbers = numbers_of(gst_structure_get_value(structure, field));
    if (!numbers || numbers->size() != Count) return std::nullopt;
    std::array<int, Count> result{};
    for (std::size_t i = 0; i < Count; ++i)
        result[i] = (*numbers)[i];
    return result;
}

bool is_filled(const Rectangle& area)
{
    return area.width > 0 && area.height > 0;
}

} // namespace

const char* name_of(TensorType type)
{
    return kTypes[static_cast<std::size_t>(type)].name;
}

gsize bytes_per_number(TensorType type)
{
    return kTypes[static_cast<std::size_t>(type)].bytes;
}

gsize size_of(TensorType type, const Shape& shape)
{
    constexpr gsize kMaxBytes = std::numeric_limits<int>::max();
    gsize bytes = bytes_per_number(type);
    for (const int number : shape) {
        bytes *= static_cast<gsize>(number);
        if (bytes > kMaxBytes) return 0;
    }
    return bytes;
}

std::string text_of(const std::vector<Shape>& shapes)
{
    std::string text = "<";
    for (const Shape& shape : shapes) {
        text += text.size() > 1 ? ",<" : "<";
        for (std::size_t i = 0; i < shape.size(); ++i)
            text += (i > 0 ? "," : "") + std::to_string(shape[i]);
        text += ">";
    }
    return text + ">";
}

std::optional<Tensors> read_tensors(const GstCaps* caps)
{
    if (!caps || gst_caps_is_any(caps) || gst_caps_is_empty(caps)) return std::nullopt;
    const GstStructure* structure = gst_caps_get_structure(caps, 0);
    if (!gst_structure_has_name(structure, kTensorMediaType)) return std::nullopt;
    const auto type = type_of(structure);
    std::vector<Shape> shapes = read_shapes(structure);
    if (!type || shapes.empty()) return std::nullopt;
    return Tensors{*type, std::move(shapes)};
}

void write_tensors(GstStructure* structure, const Tensors& tensors)
{
    gst_structure_set(structure, "type", G_TYPE_STRING, name_of(tensors.type), nullptr);
    GValue list = G_VALUE_INIT;
    g_value_init(&list, GST_TYPE_ARRAY);
    for (const Shape& shape : tensors.shapes) {
        GValue item = make_array(shape);
        gst_value_array_append_and_take_value(&list, &item);
    }
    gst_structure_take_value(structure, "dimensions", &list);
}

std::optional<TensorView> read_view(const GstCaps* caps)
{
    if (!caps || gst_caps_is_any(caps) || gst_caps_is_empty(caps)) return std::nullopt;
    const GstStructure* structure = gst_caps_get_structure(caps, 0);
    const auto video = get_numbers<2>(structure, "picture-size");
    const auto source = get_numbers<4>(structure, "picture-source");
    const auto tensor = get_numbers<2>(structure, "picture-tensor");
    const auto place = get_numbers<4>(structure, "picture-place");
    if (!video || !source || !tensor || !place) return std::nullopt;
    TensorView view;
    view.video_width = (*video)[0];
    view.video_height = (*video)[1];
    view.source = {(*source)[0], (*source)[1], (*source)[2], (*source)[3]};
    view.tensor_width = (*tensor)[0];
    view.tensor_height = (*tensor)[1];
    view.place = {(*place)[0], (*place)[1], (*place)[2], (*place)[3]};
    const bool is_whole = view.video_width > 0 && view.video_height > 0 && view.tensor_width > 0 &&
                          view.tensor_height > 0 && is_filled(view.source) && is_filled(view.place);
    if (!is_whole) return std::nullopt;
    return view;
}

void write_view(GstStructure* structure, const TensorView& view)
{
    set_numbers(structure, "picture-size", {view.video_width, view.video_height});
    set_numbers(structure, "picture-source", {view.source.x, view.source.y, view.source.width, view.source.height});
    set_numbers(structure, "picture-tensor", {view.tensor_width, view.tensor_height});
    set_numbers(structure, "picture-place", {view.place.x, view.place.y, view.place.width, view.place.height});
}

} // namespace velstream::software
