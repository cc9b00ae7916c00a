#include "stream_session.h"

#include <exception>
#include <functional>
#include <utility>

namespace velstream::tool {

namespace {

double to_seconds(std::chrono::steady_clock::duration duration)
{
    return std::chrono::duration<double>(duration).count();
}

} // namespace

void Waker::wake()
{
    const std::lock_guard lock(mutex_);
    is_woken_ = true;
    woken_.notify_all();
}

void Waker::wait_for(std::chrono::milliseconds time)
{
    std::unique_lock lock(mutex_);
    woken_.wait_for(lock, time, [this] { return is_woken_; });
    is_woken_ = false;
}

StreamSession::StreamSession(std::string id, bool has_callback, uint64_t frame_limit,
                             const std::string& snapshot_folder, Waker& waker)
    : id_(std::move(id)), has_callback_(has_callback), frame_limit_(frame_limit), waker_(waker), start_(Clock::now())
{
    if (!snapshot_folder.empty()) snapshots_.emplace(snapshot_folder, id_);
}

StreamSession::~StreamSession()
{
    join();
}

void StreamSession::start()
{
    start_ = Clock::now();
    thread_ = std::thread([this] { run(); });
}

void StreamSession::start_split(StreamSession& first, StreamSession& second)
{
    first.start_ = second.start_ = Clock::now();
    first.thread_ = std::thread([&first, &second] { first.run_split(second); });
}

void StreamSession::join()
{
    if (thread_.joinable()) thread_.join();
    snapshots_.reset();
}

void StreamSession::mark_stopped()
{
    if (!is_ended_) is_stopped_ = true;
}

void StreamSession::run()
{
    Callback frames = callback();
    try {
        note_end(Quorvis::VelStream::start_stream(id_, frames), {});
    } catch (const std::exception& error) {
        note_end(-1, error.what());
    }
}

void StreamSession::run_split(StreamSession& second)
{
    Callback frames = callback();
    Callback other_frames = second.callback();
    int result = -1;
    std::string exception;
    try {
        result = Quorvis::VelStream::start_split_stream(id_, frames, second.id_, other_frames);
    } catch (const std::exception& error) {
        exception = error.what();
    }
    second.note_end(result, exception);
    note_end(result, exception);
}

StreamSession::Callback StreamSession::callback()
{
    return [this](const Quorvis::VelStream::Image& image) { return take(image); };
}

void StreamSession::note_end(int result, const std::string& exception)
{
    result_ = result;
    exception_ = exception;
    end_ = (Clock::now() - start_).count();
    is_ended_ = true;
    waker_.wake();
}

int8_t StreamSession::take(const Quorvis::VelStream::Image& image)
{
    if (drawing_) drawing_->draw(image);
    if (is_satisfied()) return 0;
    if (snapshots_) snapshots_->offer(image, static_cast<int64_t>(frames_) + 1);
    width_ = image.width;
    height_ = image.height;
    last_frame_ = (Clock::now() - start_).count();
    if (frames_ == 0) first_frame_ = last_frame_.load();
    ++frames_;
    if (is_satisfied()) waker_.wake();
    return 0;
}

double StreamSession::seconds() const
{
    return to_seconds(is_ended_ ? Clock::duration(end_) : Clock::now() - start_);
}

double StreamSession::silent_seconds() const
{
    return to_seconds(Clock::now() - start_ - Clock::duration(last_frame_));
}

double StreamSession::rate() const
{
    const double span = to_seconds(Clock::duration(last_frame_ - first_frame_));
    return frames_ > 1 && span > 0 ? static_cast<double>(frames_ - 1) / span : 0.0;
}

} // namespace velstream::tool
