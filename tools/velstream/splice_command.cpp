#include "splice_command.h"

#include "access_units.h"
#include "configuration.h"
#include "elements.h"
#include "presentation_order.h"
#include "progress_line.h"
#include "results.h"
#include "snapshots.h"
#include "velstream.h"

#include <json/json.h>
#include <libyuv.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <limits>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace velstream::tool {

namespace {

using Clock = std::chrono::steady_clock;
using Quorvis::VelStream::Image;

constexpr const char* kStreamId = "splice";
/// A decoder that has nothing to say for so long has nothing left.
constexpr std::chrono::seconds kSilence{10};
constexpr uint64_t kSnapshotsApart = 30; // frames
/// As many key frames push out what a decoder can hold back at most, the first of them included.
constexpr long kFlushUnits = 17;
constexpr long kSecond = 1000000000;
constexpr long kNever = std::numeric_limits<long>::max();

/// A file's bytes, as long as this object lives.
class MappedFile {
public:
    explicit MappedFile(const std::string& path)
    {
        const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat status {};
        if (file >= 0 && fstat(file, &status) == 0 && status.st_size > 0) {
            size_ = static_cast<std::size_t>(status.st_size);
            data_ = mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, file, 0);
        }
        const int error = errno;
        if (file >= 0) close(file);
        if (file >= 0 && size_ == 0) throw UserError("File " + path + " is empty.");
        if (data_ == MAP_FAILED) throw UserError("File " + path + " cannot be read: " + std::strerror(error) + ".");
    }
    ~MappedFile() { munmap(data_, size_); }
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;
    std::span<const uint8_t> bytes() const { return {static_cast<const uint8_t*>(data_), size_}; }

private:
    void* data_ = MAP_FAILED;
    std::size_t size_ = 0;
};

/// The frame in packed RGB, as a snapshot wants it. The matrix is what is usual for the height.
class RgbCopy {
public:
    explicit RgbCopy(const Image& nv12) : image_(nv12)
    {
        rgb_.resize(static_cast<std::size_t>(nv12.width) * static_cast<std::size_t>(nv12.height) * 3);
        const std::size_t luma =
            static_cast<std::size_t>(nv12.planeStride) * static_cast<std::size_t>((nv12.planeHeight + 1) / 2 * 2);
        // Red and blue, and with them the two chroma samples, change places in libyuv's "RGB24".
        libyuv::NV21ToRGB24Matrix(
            nv12.data, nv12.planeStride, nv12.data + luma, nv12.planeStride, rgb_.data(), nv12.width * 3,
            nv12.height >= 720 ? &libyuv::kYvuH709Constants : &libyuv::kYvuI601Constants, nv12.width, nv12.height);
        image_.data = rgb_.data();
        image_.size = rgb_.size();
    }
    const Image& image() const { return image_; }

private:
    Image image_;
    std::vector<uint8_t> rgb_;
};

/// What comes out of the decoder. Frames come on its threads, one at a time; all else is of the main thread.
class FrameCounter {
public:
    explicit FrameCounter(const SpliceOptions& options)
    {
        if (!options.snapshot_folder.empty())
            snapshots_.emplace(options.snapshot_folder, std::filesystem::path(options.file).stem().string());
    }

    void take(const Image& image)
    {
        const std::lock_guard lock(mutex_);
        changed_.notify_all();
        if (image.pts >= flush_pts_) {
            is_flushed_ = true;
            return;
        }
        width_ = image.width;
        height_ = image.height;
        last_ = Clock::now();
        if (frames_++ == 0) first_ = last_;
        if (snapshots_ && (frames_ - 1) % kSnapshotsApart == 0)
            snapshots_->offer(RgbCopy(image).image(), static_cast<int64_t>(frames_));
    }
    /// Frames from this time stamp on are the flush's own and are not counted.
    void expect_flush(long pts)
    {
        const std::lock_guard lock(mutex_);
        flush_pts_ = pts;
    }
    /// Waits until the flush, the time, or a frame. @return whether all frames are there.
    bool wait_for_flush(std::chrono::milliseconds time)
    {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, time, [&] { return is_flushed_; });
        return is_flushed_;
    }
    /// Waits for the pictures to be written.
    void finish() { snapshots_.reset(); }

    uint64_t frames() const
    {
        const std::lock_guard lock(mutex_);
        return frames_;
    }
    int width() const
    {
        const std::lock_guard lock(mutex_);
        return width_;
    }
    int height() const
    {
        const std::lock_guard lock(mutex_);
        return height_;
    }
    /// Frames a second between the first and the last one.
    double rate() const
    {
        const std::lock_guard lock(mutex_);
        const double span = std::chrono::duration<double>(last_ - first_).count();
        return frames_ > 1 && span > 0 ? static_cast<double>(frames_ - 1) / span : 0.0;
    }

private:
    std::optional<Snapshots> snapshots_; // offered to under the lock, reset once no frame can come
    mutable std::mutex mutex_;           // guards the following
    std::condition_variable changed_;
    long flush_pts_ = kNever;
    bool is_flushed_ = false;
    uint64_t frames_ = 0;
    int width_ = 0;
    int height_ = 0;
    Clock::time_point first_;
    Clock::time_point last_;
};

struct Counts {
    uint64_t units = 0;
    uint64_t dropped = 0; ///< before the first key frame with its parameter sets
    int failure = 0;      ///< the code of the push that ended the run, or 0
    double seconds = 0;
};

std::string describe(const Counts& counts, const FrameCounter& counter)
{
    char text[128];
    std::snprintf(text, sizeof text, "%llu units pushed, %llu frames, %dx%d, %.1f frames/s",
                  static_cast<unsigned long long>(counts.units), static_cast<unsigned long long>(counter.frames()),
                  counter.width(), counter.height(), counter.rate());
    return text;
}

int push(std::span<const uint8_t> unit, long pts)
{
    return Quorvis::VelStream::decode_put_frame_splice(unit.data(), unit.size(), kStreamId, pts, false);
}

/// Pushes units with the time stamps that their pictures are shown at.
class Pusher {
public:
    Pusher(int fps, Counts& counts, const FrameCounter& counter, ProgressLine& progress)
        : fps_(fps), counts_(counts), counter_(counter), progress_(progress)
    {
    }

    void push_all(std::span<const uint8_t> stream)
    {
        AccessUnitCutter cutter(stream);
        PictureOrder order;
        for (auto unit = cutter.next(); !unit.empty() && counts_.failure == 0; unit = cutter.next()) {
            const PictureOrder::Picture picture = order.read(unit);
            if (picture.starts_sequence) push_sequence();
            sequence_.push_back(unit);
            order_counts_.push_back(picture.count);
        }
        push_sequence();
    }
    /// The first unit that was accepted, a key frame; empty when none was.
    std::span<const uint8_t> first_key_unit() const { return first_; }

private:
    void push_sequence()
    {
        const uint64_t base = counts_.units;
        const std::vector<std::size_t> places = places_of(order_counts_);
        for (std::size_t i = 0; i < sequence_.size() && counts_.failure == 0; ++i)
            push_unit(sequence_[i], static_cast<long>(base + places[i]) * kSecond / fps_);
        sequence_.clear();
        order_counts_.clear();
    }

    void push_unit(std::span<const uint8_t> unit, long pts)
    {
        const int code = push(unit, pts);
        ++counts_.units;
        if (code == -6)
            ++counts_.dropped;
        else if (code != 0)
            counts_.failure = code;
        else if (first_.empty())
            first_ = unit;
        if (progress_.is_due()) progress_.show(describe(counts_, counter_));
    }

    int fps_;
    Counts& counts_;
    const FrameCounter& counter_;
    ProgressLine& progress_;
    std::vector<std::span<const uint8_t>> sequence_; ///< from a key frame that starts anew to before the next one
    std::vector<int> order_counts_;                  ///< of its pictures
    std::span<const uint8_t> first_;
};

/// A decoder that reorders keeps its last frames until key frames push them out. Waits for them.
void flush(std::span<const uint8_t> first_unit, int fps, const Counts& counts, FrameCounter& counter,
           ProgressLine& progress)
{
    const std::vector<uint8_t> key_unit = as_broken_link(first_unit);
    const long pts = static_cast<long>(counts.units) * kSecond / fps + 3600 * kSecond;
    counter.expect_flush(pts);
    for (long i = 0; i < kFlushUnits; ++i) {
        if (push(key_unit, pts + i * kSecond / fps) != 0) return;
    }
    auto last_change = Clock::now();
    uint64_t frames = counter.frames();
    while (!counter.wait_for_flush(ProgressLine::kInterval) && Clock::now() - last_change < kSilence) {
        if (progress.is_due()) progress.show(describe(counts, counter));
        if (counter.frames() != frames) last_change = Clock::now();
        frames = counter.frames();
    }
}

void print_result(FILE* results, const SpliceOptions& options, const Counts& counts, const FrameCounter& counter)
{
    if (!options.is_json) {
        std::fprintf(results, "%s: %llu units, %llu frames, %dx%d, %.1f frames/s, %.1f s\n", options.file.c_str(),
                     static_cast<unsigned long long>(counts.units), static_cast<unsigned long long>(counter.frames()),
                     counter.width(), counter.height(), counter.rate(), counts.seconds);
        return;
    }
    Json::Value value;
    value["file"] = options.file;
    value["units"] = static_cast<Json::UInt64>(counts.units);
    value["dropped"] = static_cast<Json::UInt64>(counts.dropped);
    value["frames"] = static_cast<Json::UInt64>(counter.frames());
    value["width"] = counter.width();
    value["height"] = counter.height();
    value["fps"] = counter.rate();
    value["seconds"] = counts.seconds;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    writer["precision"] = 6;
    std::fprintf(results, "%s\n", Json::writeString(writer, value).c_str());
}

/// @return the exit status.
int explain(const SpliceOptions& options, const Counts& counts, const FrameCounter& counter)
{
    if (counts.failure != 0) {
        std::fprintf(stderr,
                     "velstream: the decoder ended at unit %llu with code %d; the lines above name the cause.\n",
                     static_cast<unsigned long long>(counts.units), counts.failure);
        return 1;
    }
    if (counts.dropped == counts.units) {
        std::fprintf(stderr, "velstream: %s has no key frame with its parameter sets; is it an H.265 byte stream?\n",
                     options.file.c_str());
        return 1;
    }
    if (counts.dropped > 0)
        std::fprintf(stderr, "velstream: %llu units before the first key frame were dropped.\n",
                     static_cast<unsigned long long>(counts.dropped));
    const uint64_t pushed = counts.units - counts.dropped;
    if (counter.frames() < pushed)
        std::fprintf(stderr, "velstream: %llu units gave no frame.\n",
                     static_cast<unsigned long long>(pushed - counter.frames()));
    return counter.frames() > 0 ? 0 : 1;
}

} // namespace

int splice_file(const SpliceOptions& options)
{
    const MappedFile file(options.file);
    if (!options.snapshot_folder.empty()) prepare_snapshot_folder(options.snapshot_folder);
    FILE* results = take_standard_output();
    choose_elements(options.elements);

    FrameCounter counter(options);
    std::function<int8_t(const Image&)> callback = [&counter](const Image& image) -> int8_t {
        counter.take(image);
        return 0;
    };
    const auto start = Clock::now();
    if (const int code = Quorvis::VelStream::start_splice_stream(kStreamId, callback); code != 0) {
        std::fprintf(stderr, "velstream: the decoder did not start, code %d; the lines above name the cause.\n", code);
        return 1;
    }
    Counts counts;
    ProgressLine progress;
    Pusher pusher(options.fps, counts, counter, progress);
    pusher.push_all(file.bytes());
    const auto key_unit = pusher.first_key_unit();
    if (counts.failure == 0 && !key_unit.empty()) flush(key_unit, options.fps, counts, counter, progress);
    Quorvis::VelStream::stop_splice_stream(kStreamId);
    counts.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    progress.finish();
    counter.finish();
    print_result(results, options, counts, counter);
    std::fflush(results);
    return explain(options, counts, counter);
}

} // namespace velstream::tool
