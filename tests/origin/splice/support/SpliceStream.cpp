#include "SpliceStream.h"

#include <iostream>
#include <streambuf>
#include <thread>
#include <utility>

namespace velstream::testing {

using namespace Quorvis::VelStream;

namespace {

void append_rows(Bytes& out, const std::uint8_t* rows, int stride, int width, int height)
{
    for (int row = 0; row < height; ++row)
        out.insert(out.end(), rows + static_cast<std::ptrdiff_t>(row) * stride,
                   rows + static_cast<std::ptrdiff_t>(row) * stride + width);
}

Frame copy_frame(const Image& image)
{
    Frame frame{image, {}};
    frame.image.data = nullptr;
    append_rows(frame.nv12, image.data, image.planeStride, image.width, image.height);
    const std::uint8_t* chroma =
        image.data + static_cast<std::ptrdiff_t>(image.planeStride) * ((image.planeHeight + 1) / 2 * 2);
    append_rows(frame.nv12, chroma, image.planeStride, image.width, image.height / 2);
    return frame;
}

} // namespace

FrameCallback FrameLog::callback(std::function<void()> before)
{
    return [this, before = std::move(before)](const Image& image) -> int8_t {
        if (before) before();
        Frame frame = copy_frame(image);
        const std::lock_guard lock(mutex_);
        frames_.push_back(std::move(frame));
        changed_.notify_all();
        return 0;
    };
}

bool FrameLog::wait_for(std::size_t count, std::chrono::milliseconds bound) const
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, bound, [&] { return frames_.size() >= count; });
}

std::size_t FrameLog::size() const
{
    const std::lock_guard lock(mutex_);
    return frames_.size();
}

std::vector<Frame> FrameLog::frames() const
{
    const std::lock_guard lock(mutex_);
    return frames_;
}

SpliceStream::SpliceStream(std::string id, FrameCallback callback)
    : id_(std::move(id)), start_result_(start_splice_stream(id_, callback))
{
}

SpliceStream::~SpliceStream()
{
    stop_splice_stream(id_);
}

int SpliceStream::push(const Bytes& unit, long pts, bool is_key_frame) const
{
    return decode_put_frame_splice(unit.data(), unit.size(), id_, pts, is_key_frame);
}

int SpliceStream::stop() const
{
    return stop_splice_stream(id_);
}

bool wait_until(const std::function<bool()>& condition, std::chrono::milliseconds bound)
{
    const auto deadline = std::chrono::steady_clock::now() + bound;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

/// Several threads write at the same time.
class StandardStreams::Capture : public std::streambuf {
public:
    explicit Capture(std::ostream& stream) : stream_(stream), former_(stream.rdbuf(this)) {}
    ~Capture() override { stream_.rdbuf(former_); }
    std::string text() const
    {
        const std::lock_guard lock(mutex_);
        return text_;
    }

protected:
    std::streamsize xsputn(const char* text, std::streamsize size) override
    {
        const std::lock_guard lock(mutex_);
        text_.append(text, static_cast<std::size_t>(size));
        return size;
    }
    int_type overflow(int_type c) override
    {
        const std::lock_guard lock(mutex_);
        text_ += traits_type::to_char_type(c);
        return c;
    }

private:
    std::ostream& stream_;
    std::streambuf* former_;
    mutable std::mutex mutex_;
    std::string text_;
};

StandardStreams::StandardStreams()
    : out_(std::make_unique<Capture>(std::cout)), error_(std::make_unique<Capture>(std::cerr))
{
}

StandardStreams::~StandardStreams() = default;

std::string StandardStreams::out() const
{
    return out_->text();
}

std::string StandardStreams::error() const
{
    return error_->text();
}

} // namespace velstream::testing
