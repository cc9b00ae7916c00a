#include "overlay_items.h"

#include "blend.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>

namespace velstream::software {

namespace {

/// More than any frame, less than what cairo can hold.
constexpr int kMaxSize = 16384;
constexpr int kDefaultFontSize = 24;

// ---- Reading
// --------------------------------------------------------------------------------------------------------------------

template <std::size_t Count>
std::array<int, Count> read_numbers(const GstStructure* structure, const char* field)
{
    std::array<int, Count> numbers{};
    const GValue* array = gst_structure_get_value(structure, field);
    if (!array || !GST_VALUE_HOLDS_ARRAY(array) || gst_value_array_get_size(array) != Count) return numbers;
    for (guint i = 0; i < Count; ++i) {
        const GValue* item = gst_value_array_get_value(array, i);
        if (G_VALUE_HOLDS_INT(item)) numbers[i] = g_value_get_int(item);
    }
    return numbers;
}

int read_number(const GstStructure* structure, const char* field, int fallback)
{
    int number = fallback;
    gst_structure_get_int(structure, field, &number);
    return number;
}

/// A text that looks like a number has become one, and an empty one 0.
std::string read_text(const GstStructure* structure, const char* field)
{
    const GValue* value = gst_structure_get_value(structure, field);
    if (!value) return "";
    if (G_VALUE_HOLDS_STRING(value)) return g_value_get_string(value) ? g_value_get_string(value) : "";
    if (G_VALUE_HOLDS_INT(value)) return g_value_get_int(value) == 0 ? "" : std::to_string(g_value_get_int(value));
    gchar* serialized = gst_value_serialize(value);
    std::string text = serialized ? serialized : "";
    g_free(serialized);
    return text;
}

/// 0xFF0000FF without a type is a negative number.
guint read_colour(const GstStructure* structure, const char* field)
{
    constexpr guint kOpaqueWhite = 0xFFFFFFFF;
    const GValue* value = gst_structure_get_value(structure, field);
    if (value && G_VALUE_HOLDS_INT(value)) return static_cast<guint>(g_value_get_int(value));
    if (value && G_VALUE_HOLDS_UINT(value)) return g_value_get_uint(value);
    if (value && G_VALUE_HOLDS_INT64(value)) return static_cast<guint>(g_value_get_int64(value));
    return kOpaqueWhite;
}

OverlayImage read_image(const GstStructure* structure)
{
    OverlayImage image;
    image.path = read_text(structure, "path");
    const auto resolution = read_numbers<2>(structure, "resolution");
    image.width = resolution[0];
    image.height = resolution[1];
    const auto destination = read_numbers<4>(structure, "destination");
    image.destination = {destination[0], destination[1], destination[2], destination[3]};
    return image;
}

OverlayText read_string(const GstStructure* structure)
{
    OverlayText text;
    text.contents = read_text(structure, "contents");
    text.font_size = read_number(structure, "fontsize", kDefaultFontSize);
    const auto position = read_numbers<2>(structure, "position");
    text.x = position[0];
    text.y = position[1];
    text.colour = read_colour(structure, "color");
    return text;
}

template <typename Item>
std::optional<std::vector<Item>> read_list(const std::string& text, Item (*read_item)(const GstStructure*))
{
    if (text.empty()) return std::vector<Item>{};
    GValue list = G_VALUE_INIT;
    g_value_init(&list, GST_TYPE_LIST);
    gchar* copy = g_utf8_make_valid(text.c_str(), -1); // the parser takes nothing else, and writes into its text
    std::optional<std::vector<Item>> items;
    if (gst_value_deserialize(&list, copy)) {
        items.emplace();
        for (guint i = 0; i < gst_value_list_get_size(&list); ++i) {
            const GValue* item = gst_value_list_get_value(&list, i);
            if (GST_VALUE_HOLDS_STRUCTURE(item) && gst_value_get_structure(item))
                items->push_back(read_item(gst_value_get_structure(item)));
        }
    }
    g_value_unset(&list);
    g_free(copy);
    return items;
}

// ---- Pictures
// -------------------------------------------------------------------------------------------------------------------

bool is_usable(const SurfacePtr& surface)
{
    return surface && cairo_surface_status(surface.get()) == CAIRO_STATUS_SUCCESS;
}

SurfacePtr make_surface(int width, int height)
{
    return SurfacePtr(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, std::clamp(width, 1, kMaxSize),
                                                 std::clamp(height, 1, kMaxSize)));
}

bool is_png(const std::string& bytes)
{
    return bytes.starts_with("\x89PNG\r\n\x1a\n");
}

struct Reader {
    const std::string& bytes;
    std::size_t offset = 0;
};

cairo_status_t read_bytes(void* closure, unsigned char* data, unsigned int length)
{
    auto* reader = static_cast<Reader*>(closure);
    if (reader->bytes.size() - reader->offset < length) return CAIRO_STATUS_READ_ERROR;
    std::memcpy(data, reader->bytes.data() + reader->offset, length);
    reader->offset += length;
    return CAIRO_STATUS_SUCCESS;
}

/// Colours are not multiplied by their alpha yet; red comes first.
SurfacePtr surface_of_pixels(const std::string& rgba, int width, int height)
{
    SurfacePtr surface = make_surface(width, height);
    if (!is_usable(surface)) return nullptr;
    auto* pixels = cairo_image_surface_get_data(surface.get());
    const int stride = cairo_image_surface_get_stride(surface.get());
    libyuv::ABGRToARGB(reinterpret_cast<const uint8_t*>(rgba.data()), 4 * width, pixels, stride, width, height);
    const Picture picture{GST_VIDEO_FORMAT_BGRA, width, height, {pixels}, {stride}};
    premultiply(picture, picture);
    cairo_surface_mark_dirty(surface.get());
    return surface;
}

bool has_size_of_pixels(const std::string& bytes, const OverlayImage& image)
{
    return image.width > 0 && image.height > 0 && image.width <= kMaxSize && image.height <= kMaxSize &&
           bytes.size() ==
               std::size_t{4} * static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.height);
}

/// None: there is no such file, it cannot be read, or it is larger than any picture.
std::optional<std::string> read_file(const std::string& path)
{
    constexpr std::uintmax_t kMaxBytes = 256U << 20;
    std::error_code failure;
    if (!std::filesystem::is_regular_file(path, failure)) return std::nullopt;
    if (std::filesystem::file_size(path, failure) > kMaxBytes || failure) return std::nullopt;
    gchar* data = nullptr;
    gsize size = 0;
    if (!g_file_get_contents(path.c_str(), &data, &size, nullptr)) return std::nullopt;
    std::string bytes(data, size);
    g_free(data);
    return bytes;
}

SurfacePtr load(const OverlayImage& image, std::string& error)
{
    const std::optional<std::string> contents = read_file(image.path);
    if (!contents) {
        error = "The picture \"" + image.path + "\" cannot be read.";
        return nullptr;
    }
    const std::string& bytes = *contents;
    SurfacePtr surface;
    if (is_png(bytes)) {
        Reader reader{bytes};
        surface.reset(cairo_image_surface_create_from_png_stream(read_bytes, &reader));
    } else if (has_size_of_pixels(bytes, image)) {
        surface = surface_of_pixels(bytes, image.width, image.height);
    }
    if (!is_usable(surface)) {
        error = "The file \"" + image.path + "\" is no PNG, and no " + std::to_string(image.width) + "x" +
                std::to_string(image.height) + " pixels of RGBA.";
        return nullptr;
    }
    return surface;
}

SurfacePtr scale(SurfacePtr surface, int width, int height)
{
    const int own_width = cairo_image_surface_get_width(surface.get());
    const int own_height = cairo_image_surface_get_height(surface.get());
    SurfacePtr scaled = make_surface(width, height);
    if (!is_usable(scaled)) return nullptr;
    const ContextPtr context(cairo_create(scaled.get()));
    cairo_scale(context.get(), static_cast<double>(width) / own_width, static_cast<double>(height) / own_height);
    cairo_set_source_surface(context.get(), surface.get(), 0, 0);
    // Pixels at the edges mix with their neighbours, not with what lies outside.
    cairo_pattern_set_extend(cairo_get_source(context.get()), CAIRO_EXTEND_PAD);
    cairo_pattern_set_filter(cairo_get_source(context.get()), CAIRO_FILTER_GOOD);
    cairo_paint(context.get());
    return scaled;
}

LayoutPtr make_layout(cairo_t* context, const OverlayText& text)
{
    LayoutPtr layout(pango_cairo_create_layout(context));
    const FontPtr font(pango_font_description_from_string("Sans"));
    pango_font_description_set_absolute_size(font.get(), static_cast<double>(text.font_size) * PANGO_SCALE);
    pango_layout_set_font_description(layout.get(), font.get());
    pango_layout_set_text(layout.get(), text.contents.c_str(), -1);
    return layout;
}

void set_colour(cairo_t* context, guint colour)
{
    const auto part = [colour](int shift) { return ((colour >> shift) & 0xFF) / 255.0; };
    cairo_set_source_rgba(context, part(24), part(16), part(8), part(0));
}

} // namespace

std::optional<std::vector<OverlayImage>> read_images(const std::string& text)
{
    return read_list(text, read_image);
}

std::optional<std::vector<OverlayText>> read_texts(const std::string& text)
{
    return read_list(text, read_string);
}

Picture OverlayPicture::picture() const
{
    cairo_surface_flush(surface.get());
    Picture picture{GST_VIDEO_FORMAT_BGRA,
                    cairo_image_surface_get_width(surface.get()),
                    cairo_image_surface_get_height(surface.get()),
                    {},
                    {}};
    picture.data[0] = cairo_image_surface_get_data(surface.get());
    picture.stride[0] = cairo_image_surface_get_stride(surface.get());
    return picture;
}

OverlayPicture make_picture(const OverlayImage& image, std::string& error)
{
    SurfacePtr surface = load(image, error);
    if (!surface) return {};
    const Rectangle& wanted = image.destination;
    const bool is_open = wanted.width <= 0 || wanted.height <= 0;
    const int width = std::min(is_open ? cairo_image_surface_get_width(surface.get()) : wanted.width, kMaxSize);
    const int height = std::min(is_open ? cairo_image_surface_get_height(surface.get()) : wanted.height, kMaxSize);
    // Also at its own size: a PNG without alpha leaves the fourth byte open.
    surface = scale(std::move(surface), width, height);
    if (!surface) error = "There is no memory for the picture \"" + image.path + "\".";
    return {std::move(surface), wanted.x, wanted.y};
}

OverlayPicture make_picture(const OverlayText& text)
{
    constexpr int kMaxFontSize = 2048;
    if (text.contents.empty() || text.font_size <= 0 || (text.colour & 0xFF) == 0) return {};
    OverlayText settled = text;
    settled.font_size = std::min(text.font_size, kMaxFontSize);
    const SurfacePtr probe = make_surface(1, 1);
    const ContextPtr measure(cairo_create(probe.get()));
    PangoRectangle ink{};
    PangoRectangle logical{};
    pango_layout_get_pixel_extents(make_layout(measure.get(), settled).get(), &ink, &logical);
    // Some letters reach out of their line.
    const int left = std::min(ink.x, logical.x);
    const int top = std::min(ink.y, logical.y);
    const int right = std::max(ink.x + ink.width, logical.x + logical.width);
    const int bottom = std::max(ink.y + ink.height, logical.y + logical.height);
    if (right <= left || bottom <= top) return {};
    SurfacePtr surface = make_surface(right - left, bottom - top);
    if (!is_usable(surface)) return {};
    const ContextPtr context(cairo_create(surface.get()));
    set_colour(context.get(), text.colour);
    cairo_move_to(context.get(), -left, -top);
    const LayoutPtr layout = make_layout(context.get(), settled);
    pango_cairo_show_layout(context.get(), layout.get());
    return {std::move(surface), text.x + left, text.y + top};
}

} // namespace velstream::software
