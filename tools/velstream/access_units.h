// Cuts an H.265 byte stream into access units: the slices of one picture with what belongs to them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace velstream::tool {

class AccessUnitCutter {
public:
    /// @param stream  start codes included (Annex B); borrowed for the life of this object. What stands before the
    ///                first start code is left out.
    explicit AccessUnitCutter(std::span<const uint8_t> stream);

    /// The next unit, start codes included; empty at the end.
    std::span<const uint8_t> next();

private:
    std::span<const uint8_t> stream_;
    std::size_t begin_;  ///< of the next unit
    std::size_t header_; ///< of its first NAL unit; the stream's size at the end
};

/// A copy of a unit whose picture, if it is one for clean random access, is one behind a broken link. The first, the
/// key frame of an open group of pictures, goes on with the order of those before it; the second begins anew, so that a
/// decoder puts out what it holds. They differ in nothing but their type.
std::vector<uint8_t> as_broken_link(std::span<const uint8_t> unit);

} // namespace velstream::tool
