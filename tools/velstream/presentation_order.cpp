#include "presentation_order.h"

#define GST_USE_UNSTABLE_API // the interface of the parsers' library is not declared final
#include <gst/codecparsers/gsth265parser.h>

#include <algorithm>
#include <numeric>

namespace velstream::tool {

namespace {

constexpr unsigned kFirstNonVcl = 32;

/// Pictures that others do not refer to, and those that lead a key frame, are no base for counting on.
bool is_counting_base(unsigned nal_type, unsigned temporal_id)
{
    const bool is_leading = nal_type >= GST_H265_NAL_SLICE_RADL_N && nal_type <= GST_H265_NAL_SLICE_RASL_R;
    const bool is_referred_to = nal_type > 14 || nal_type % 2 == 1;
    return temporal_id == 0 && !is_leading && is_referred_to;
}

} // namespace

PictureOrder::PictureOrder() : parser_(gst_h265_parser_new()) {}

PictureOrder::~PictureOrder()
{
    gst_h265_parser_free(parser_);
}

int PictureOrder::count_of(unsigned nal_type, unsigned temporal_id, int lsb, int lsb_range)
{
    const int reference_lsb = reference_ & (lsb_range - 1);
    int msb = reference_ - reference_lsb;
    if (lsb < reference_lsb && reference_lsb - lsb >= lsb_range / 2) msb += lsb_range;
    if (lsb > reference_lsb && lsb - reference_lsb > lsb_range / 2) msb -= lsb_range;
    if (last_.starts_sequence) msb = 0;
    if (is_counting_base(nal_type, temporal_id)) reference_ = msb + lsb;
    return msb + lsb;
}

PictureOrder::Picture PictureOrder::read(std::span<const uint8_t> unit)
{
    last_ = {last_.count + 1, false};
    GstH265NalUnit nal{};
    for (guint offset = 0;; offset = nal.offset + nal.size) {
        const auto found = gst_h265_parser_identify_nalu(parser_, unit.data(), offset, unit.size(), &nal);
        if (found != GST_H265_PARSER_OK && found != GST_H265_PARSER_NO_NAL_END) return last_;
        if (found == GST_H265_PARSER_NO_NAL_END) nal.size = static_cast<guint>(unit.size() - nal.offset);
        if (nal.type < kFirstNonVcl) break;
        gst_h265_parser_parse_nal(parser_, &nal);
    }
    GstH265SliceHdr slice{};
    if (gst_h265_parser_parse_slice_hdr(parser_, &nal, &slice) == GST_H265_PARSER_OK) {
        last_.starts_sequence = is_first_ || GST_H265_IS_NAL_TYPE_IDR(nal.type) || GST_H265_IS_NAL_TYPE_BLA(nal.type);
        const bool is_idr = GST_H265_IS_NAL_TYPE_IDR(nal.type);
        last_.count = count_of(nal.type, nal.temporal_id_plus1 - 1U, is_idr ? 0 : slice.pic_order_cnt_lsb,
                               1 << (slice.pps->sps->log2_max_pic_order_cnt_lsb_minus4 + 4));
        is_first_ = false;
    }
    gst_h265_slice_hdr_free(&slice);
    return last_;
}

std::vector<std::size_t> places_of(const std::vector<int>& counts)
{
    std::vector<std::size_t> order(counts.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) { return counts[a] < counts[b]; });
    std::vector<std::size_t> places(counts.size());
    for (std::size_t place = 0; place < order.size(); ++place)
        places[order[place]] = place;
    return places;
}

} // namespace velstream::tool
