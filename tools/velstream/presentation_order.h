// The order in which the pictures of an H.265 byte stream are shown, which is not the one in which they are decoded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

struct _GstH265Parser;

namespace velstream::tool {

/// Reads access units one after the other.
class PictureOrder {
public:
    struct Picture {
        int count = 0;                ///< the picture order count
        bool starts_sequence = false; ///< every picture before it is shown before it
    };

    PictureOrder();
    ~PictureOrder();
    PictureOrder(const PictureOrder&) = delete;
    PictureOrder& operator=(const PictureOrder&) = delete;

    /// A unit that cannot be read is taken to follow the one before it.
    Picture read(std::span<const uint8_t> unit);

private:
    int count_of(unsigned nal_type, unsigned temporal_id, int lsb, int lsb_range);

    _GstH265Parser* parser_; ///< owned
    Picture last_;
    int reference_ = 0; ///< the count that the next one is relative to
    bool is_first_ = true;
};

/// The place of each picture among those of its sequence, from their counts.
std::vector<std::size_t> places_of(const std::vector<int>& counts);

} // namespace velstream::tool
