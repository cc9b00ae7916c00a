#include "detection_mask.h"

#include "cairo_handles.h"

#include <algorithm>
#include <cstring>
#include <filesystem>

namespace velstream::software {

namespace {

struct RgbColour {
    double red, green, blue;
    bool is_bright; ///< black can be read on it
};

/// Far apart from each other and from most scenes.
constexpr RgbColour kColours[] = {
    {1.0, 0.2, 0.2, false}, {0.1, 0.9, 0.3, true}, {0.2, 0.4, 1.0, false}, {1.0, 0.8, 0.0, true},
    {0.9, 0.2, 0.9, false}, {0.0, 0.8, 0.9, true}, {1.0, 0.5, 0.0, true},  {0.6, 0.3, 0.9, false},
};

/// Red and blue change places where the picture's bytes do.
class Brush {
public:
    Brush(cairo_t* context, bool is_rgba) : context_(context), is_rgba_(is_rgba) {}

    void set(const RgbColour& colour) const { set(colour.red, colour.green, colour.blue); }
    void set(double red, double green, double blue) const
    {
        cairo_set_source_rgb(context_, is_rgba_ ? blue : red, green, is_rgba_ ? red : blue);
    }
    void fill(const Rectangle& area) const
    {
        cairo_rectangle(context_, area.x, area.y, area.width, area.height);
        cairo_fill(context_);
    }
    cairo_t* context() const { return context_; }

private:
    cairo_t* context_;
    bool is_rgba_;
};

int line_width(const Picture& mask)
{
    return std::max(2, mask.height / 270);
}

int font_size(const Picture& mask)
{
    return std::max(11, mask.height / 40);
}

LayoutPtr make_layout(cairo_t* context, const std::string& text, int size)
{
    LayoutPtr layout(pango_cairo_create_layout(context));
    const FontPtr font(pango_font_description_from_string("Sans"));
    pango_font_description_set_absolute_size(font.get(), static_cast<double>(size) * PANGO_SCALE);
    pango_layout_set_font_description(layout.get(), font.get());
    pango_layout_set_single_paragraph_mode(layout.get(), TRUE);
    pango_layout_set_text(layout.get(), text.c_str(), -1);
    return layout;
}

/// Inside of the area, so that its outer edge is the box.
void draw_frame(const Brush& brush, const Rectangle& area, int width)
{
    const int line = std::clamp(width, 1, std::max(1, std::min(area.width, area.height) / 2));
    brush.fill({area.x, area.y, area.width, line});
    brush.fill({area.x, area.y + area.height - line, area.width, line});
    brush.fill({area.x, area.y, line, area.height});
    brush.fill({area.x + area.width - line, area.y, line, area.height});
}

/// Above the box, or inside where there is no room; never out of the picture.
Rectangle place_label(const Picture& mask, const Rectangle& box, int width, int height)
{
    Rectangle area{box.x, box.y - height, std::min(width, mask.width), std::min(height, mask.height)};
    if (area.y < 0) area.y = box.y;
    area.x = std::clamp(area.x, 0, mask.width - area.width);
    area.y = std::clamp(area.y, 0, mask.height - area.height);
    return area;
}

void draw_label(const Brush& brush, const Picture& mask, const LabelledBox& box, const RgbColour& colour)
{
    constexpr int kMargin = 3;
    if (box.text.empty()) return;
    const LayoutPtr layout = make_layout(brush.context(), box.text, font_size(mask));
    int width = 0;
    int height = 0;
    pango_layout_get_pixel_size(layout.get(), &width, &height);
    const Rectangle area = place_label(mask, box.area, width + 2 * kMargin, height);
    brush.fill(area);
    cairo_save(brush.context());
    cairo_rectangle(brush.context(), area.x, area.y, area.width, area.height);
    cairo_clip(brush.context());
    if (colour.is_bright)
        brush.set(0, 0, 0);
    else
        brush.set(1, 1, 1);
    cairo_move_to(brush.context(), area.x + kMargin, area.y);
    pango_cairo_show_layout(brush.context(), layout.get());
    cairo_restore(brush.context());
}

void clear(const Picture& mask)
{
    for (int y = 0; y < mask.height; ++y)
        std::memset(mask.data[0] + static_cast<std::ptrdiff_t>(mask.stride[0]) * y, 0,
                    4 * static_cast<std::size_t>(mask.width));
}

} // namespace

void draw_mask(const Picture& mask, const std::vector<LabelledBox>& boxes)
{
    clear(mask);
    if (boxes.empty()) return;
    const SurfacePtr surface(cairo_image_surface_create_for_data(mask.data[0], CAIRO_FORMAT_ARGB32, mask.width,
                                                                 mask.height, mask.stride[0]));
    const ContextPtr context(cairo_create(surface.get()));
    cairo_set_antialias(context.get(), CAIRO_ANTIALIAS_NONE);
    cairo_font_options_t* options = cairo_font_options_create();
    cairo_font_options_set_antialias(options, CAIRO_ANTIALIAS_GRAY); // the same for both orders of colours
    cairo_set_font_options(context.get(), options);
    cairo_font_options_destroy(options);
    const Brush brush(context.get(), mask.format == GST_VIDEO_FORMAT_RGBA);
    for (auto box = boxes.rbegin(); box != boxes.rend(); ++box) {
        const RgbColour& colour = kColours[static_cast<std::size_t>(std::max(0, box->label)) % std::size(kColours)];
        brush.set(colour);
        draw_frame(brush, box->area, line_width(mask));
        draw_label(brush, mask, *box, colour);
    }
    cairo_surface_flush(surface.get());
}

std::optional<std::vector<std::string>> read_labels(const std::string& path)
{
    constexpr std::uintmax_t kMaxBytes = 16U << 20;
    std::error_code failure;
    if (!std::filesystem::is_regular_file(path, failure)) return std::nullopt;
    if (std::filesystem::file_size(path, failure) > kMaxBytes || failure) return std::nullopt;
    gchar* contents = nullptr;
    gsize size = 0;
    if (!g_file_get_contents(path.c_str(), &contents, &size, nullptr)) return std::nullopt;
    gchar* valid = g_utf8_make_valid(contents, static_cast<gssize>(size));
    g_free(contents);
    gchar** lines = g_strsplit(valid, "\n", -1);
    g_free(valid);
    std::vector<std::string> labels;
    for (gchar** line = lines; *line; ++line)
        labels.emplace_back(g_strstrip(*line));
    g_strfreev(lines);
    while (!labels.empty() && labels.back().empty())
        labels.pop_back();
    return labels;
}

} // namespace velstream::software
