// What "qtivoverlay" draws: read from its properties, and made into pictures.
#pragma once

#include "cairo_handles.h"
#include "vtransform_geometry.h"

#include <optional>
#include <string>
#include <vector>

namespace velstream::software {

struct OverlayImage {
    std::string path; ///< a PNG, or nothing but RGBA pixels
    int width = 0;    ///< of the pixels, where the file does not tell
    int height = 0;
    Rectangle destination; ///< of the frame; a width or height of 0: the picture's own
};

struct OverlayText {
    std::string contents; ///< UTF-8
    int font_size = 0;    ///< pixels
    int x = 0, y = 0;     ///< top left corner in the frame
    guint colour = 0;     ///< 0xRRGGBBAA
};

/**
 * Reads a list of structures: {(structure)"Image1,path=/a.png,resolution=<100,50>,destination=<10,10,100,50>;"}.
 * A field that is missing or of another type has its default. @return none: it is no list of structures
 */
std::optional<std::vector<OverlayImage>> read_images(const std::string& text);

/// The same for {(structure)"text1,contents=\"Cam\",fontsize=24,position=<20,20>,color=0xFF0000FF;"}.
std::optional<std::vector<OverlayText>> read_texts(const std::string& text);

/// A picture ready to be blended; its pixels are BGRA, multiplied by their alpha.
struct OverlayPicture {
    SurfacePtr surface;
    int x = 0, y = 0;

    Picture picture() const;
};

/// Loads and scales. Without a surface: `error` says why not.
OverlayPicture make_picture(const OverlayImage& image, std::string& error);

/// Without a surface: there is nothing to be seen.
OverlayPicture make_picture(const OverlayText& text);

} // namespace velstream::software
