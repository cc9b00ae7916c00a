// Draws what was detected: a picture that is transparent but for frames and labels.
#pragma once

#include "vtransform_geometry.h"

#include <optional>
#include <string>
#include <vector>

namespace velstream::software {

struct LabelledBox {
    Rectangle area; ///< in pixels of the picture
    int label = 0;  ///< chooses the colour
    std::string text;
};

/**
 * @param mask   BGRA or RGBA; overwritten. Every pixel becomes opaque or wholly transparent, so that it does not matter
 *               whether its reader takes colours as multiplied by their alpha
 * @param boxes  the first one is drawn on top
 */
void draw_mask(const Picture& mask, const std::vector<LabelledBox>& boxes);

/// One name a line; the first line is class 0. None: the file cannot be read.
std::optional<std::vector<std::string>> read_labels(const std::string& path);

} // namespace velstream::software
