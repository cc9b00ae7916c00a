// The camera's side of the V4L2 interface: what a driver does behind open, ioctl, mmap and poll.
#pragma once

#include "camera_frames.h"
#include "fake_camera.h"

#include <linux/videodev2.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace peers::camera {

/// One camera from plugging in to the last close. Every descriptor that it hands out is one of an eventfd whose count
/// is the number of frames that wait, so that polling it is real.
class Device {
public:
    explicit Device(Spec spec);
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    const Spec& spec() const { return spec_; }
    std::uint64_t delivered_frames() const { return delivered_; }
    bool is_unplugged() const { return is_unplugged_; }
    void unplug();
    void fall_silent() { is_silent_ = true; }

    /// A new descriptor of this camera; -1 with errno.
    int open(int flags);
    /// The last descriptor is closed.
    void release();
    /// 0 or a positive errno.
    int control(unsigned long request, void* argument);
    /// Memory of the buffers, for mmap.
    int memory() const { return memory_; }

private:
    struct Buffer {
        v4l2_buffer state{};
        std::uint8_t* data = nullptr;
    };

    int query_capabilities(v4l2_capability& out) const;
    int enumerate_input(v4l2_input& out) const;
    int enumerate_format(v4l2_fmtdesc& out) const;
    int enumerate_size(v4l2_frmsizeenum& out) const;
    int enumerate_interval(v4l2_frmivalenum& out) const;
    int describe_parameters(v4l2_streamparm& out) const;
    const Mode& nearest_mode(const v4l2_pix_format& wanted) const;
    int set_format(v4l2_format& format, bool is_trial);
    int get_format(v4l2_format& format);
    int request_buffers(v4l2_requestbuffers& request);
    int query_buffer(v4l2_buffer& out);
    int queue_buffer(v4l2_buffer& out);
    int dequeue_buffer(v4l2_buffer& out);
    int wait_for_frame();
    int stream_on();
    int stream_off();

    bool allocate(std::size_t count);
    void free_buffers();
    void stop_streaming();
    void run();
    void deliver(FrameMaker& maker, int number);

    const Spec spec_;
    const int frames_ready_; ///< eventfd, counts `done_`
    const int memory_;       ///< memfd
    std::atomic<bool> is_unplugged_{false};
    std::atomic<bool> is_silent_{false};
    std::atomic<bool> is_nonblocking_{false};
    std::atomic<std::uint64_t> delivered_{0};

    std::mutex mutex_; // guards all below
    std::condition_variable changed_;
    Mode mode_;
    std::size_t buffer_size_ = 0;
    std::vector<Buffer> buffers_;
    std::deque<std::uint32_t> queued_;
    std::deque<std::uint32_t> done_;
    bool is_streaming_ = false;
    int next_frame_ = 0; ///< numbers go on over the life of the camera
    std::thread sensor_;
};

} // namespace peers::camera
