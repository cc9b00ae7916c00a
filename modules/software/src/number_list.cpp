#include "number_list.h"

#include <charconv>
#include <optional>
#include <string>
#include <string_view>

namespace velstream::software {

namespace {

std::string_view trimmed(std::string_view text)
{
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

/// One number, perhaps with its type in front as serialised values have it: "(int)5".
std::optional<int> parse_number(std::string_view text)
{
    text = trimmed(text);
    if (text.starts_with("(int)")) text = trimmed(text.substr(5));
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    return number;
}

template <std::size_t Count>
std::optional<NumberList<Count>> parse_list(std::string_view text)
{
    text = trimmed(text);
    if (text.starts_with('<') != text.ends_with('>')) return std::nullopt;
    if (text.starts_with('<')) text = text.substr(1, text.size() - 2);
    NumberList<Count> numbers{};
    for (std::size_t i = 0; i < Count; ++i) {
        const auto comma = text.find(',');
        if ((comma == std::string_view::npos) != (i + 1 == Count)) return std::nullopt;
        const std::optional<int> number = parse_number(text.substr(0, comma));
        if (!number) return std::nullopt;
        numbers[i] = *number;
        text = comma == std::string_view::npos ? std::string_view{} : text.substr(comma + 1);
    }
    return numbers;
}

template <std::size_t Count>
gpointer copy_list(gpointer list)
{
    return new NumberList<Count>(*static_cast<NumberList<Count>*>(list));
}

template <std::size_t Count>
void free_list(gpointer list)
{
    delete static_cast<NumberList<Count>*>(list);
}

template <std::size_t Count>
gboolean deserialize(GValue* value, const gchar* text)
{
    const std::optional<NumberList<Count>> numbers = text ? parse_list<Count>(text) : std::nullopt;
    if (!numbers) return FALSE;
    g_value_set_boxed(value, &*numbers);
    return TRUE;
}

template <std::size_t Count>
gchar* serialize(const GValue* value)
{
    NumberList<Count> numbers{};
    read_numbers(value, numbers);
    std::string text = "<";
    for (const int number : numbers)
        text += (text.size() > 1 ? ", " : "") + std::to_string(number);
    return g_strdup((text + ">").c_str());
}

template <std::size_t Count>
gint compare(const GValue* first, const GValue* second)
{
    NumberList<Count> a{};
    NumberList<Count> b{};
    read_numbers(first, a);
    read_numbers(second, b);
    return a == b ? GST_VALUE_EQUAL : GST_VALUE_UNORDERED;
}

template <std::size_t Count>
void from_text(const GValue* text, GValue* list)
{
    deserialize<Count>(list, g_value_get_string(text));
}

template <std::size_t Count>
void from_array(const GValue* array, GValue* list)
{
    if (gst_value_array_get_size(array) != Count) return;
    NumberList<Count> numbers{};
    for (guint i = 0; i < Count; ++i) {
        const GValue* item = gst_value_array_get_value(array, i);
        if (!G_VALUE_HOLDS_INT(item)) return;
        numbers[i] = g_value_get_int(item);
    }
    g_value_set_boxed(list, &numbers);
}

/// The transformation hands over an array that has its type and nothing else.
template <std::size_t Count>
void to_array(const GValue* list, GValue* array)
{
    NumberList<Count> numbers{};
    read_numbers(list, numbers);
    GValue made = G_VALUE_INIT;
    g_value_init(&made, GST_TYPE_ARRAY);
    for (const int number : numbers) {
        GValue item = G_VALUE_INIT;
        g_value_init(&item, G_TYPE_INT);
        g_value_set_int(&item, number);
        gst_value_array_append_and_take_value(&made, &item);
    }
    *array = made;
}

template <std::size_t Count>
GType register_type(const char* name)
{
    const GType type = g_boxed_type_register_static(name, copy_list<Count>, free_list<Count>);
    static GstValueTable table{}; // GStreamer keeps the pointer
    table.type = type;
    table.compare = compare<Count>;
    table.serialize = serialize<Count>;
    table.deserialize = deserialize<Count>;
    gst_value_register(&table);
    g_value_register_transform_func(G_TYPE_STRING, type, from_text<Count>);
    g_value_register_transform_func(GST_TYPE_ARRAY, type, from_array<Count>);
    g_value_register_transform_func(type, GST_TYPE_ARRAY, to_array<Count>);
    return type;
}

} // namespace

template <>
GType number_list_type<2>()
{
    static const GType type = register_type<2>("VelNumberPair");
    return type;
}

template <>
GType number_list_type<4>()
{
    static const GType type = register_type<4>("VelRectangle");
    return type;
}

} // namespace velstream::software
