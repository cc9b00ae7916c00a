// Property values of two or four whole numbers: positions, sizes, rectangles.
#pragma once

#include <gst/gst.h>

#include <array>

namespace velstream::software {

/**
 * The value type of `Count` numbers (2 or 4), a boxed std::array<int, Count>.
 *
 * As text it reads both "<1, 2>" and "1,2": an array property takes only the first, and a launch string drops the
 * second without a word. A GstValueArray of as many numbers may stand for it.
 */
template <std::size_t Count>
GType number_list_type();

template <std::size_t Count>
using NumberList = std::array<int, Count>;

/// Takes over the value's numbers. @return false: the value has none (bad text leads to that), `numbers` stay
template <std::size_t Count>
bool read_numbers(const GValue* value, NumberList<Count>& numbers)
{
    const auto* boxed = static_cast<const NumberList<Count>*>(g_value_get_boxed(value));
    if (boxed) numbers = *boxed;
    return boxed != nullptr;
}

} // namespace velstream::software
