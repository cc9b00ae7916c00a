#include "camera_device.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <set>
#include <utility>

namespace peers::camera {

namespace {

constexpr std::size_t kPage = 4096;
constexpr std::size_t kMostBuffers = 32;

std::uint32_t fourcc(Format format)
{
    return format == Format::Jpeg ? V4L2_PIX_FMT_MJPEG : V4L2_PIX_FMT_YUYV;
}

template <std::size_t N>
void write_text(std::uint8_t (&out)[N], const char* text)
{
    std::snprintf(reinterpret_cast<char*>(out), N, "%s", text);
}

void describe(const Mode& mode, v4l2_pix_format& out)
{
    out = {};
    out.width = static_cast<std::uint32_t>(mode.width);
    out.height = static_cast<std::uint32_t>(mode.height);
    out.pixelformat = fourcc(mode.format);
    out.field = V4L2_FIELD_NONE;
    out.bytesperline = mode.format == Format::Yuyv ? out.width * 2 : 0;
    out.sizeimage = static_cast<std::uint32_t>(frame_capacity(mode));
    out.colorspace = mode.format == Format::Jpeg ? V4L2_COLORSPACE_JPEG : V4L2_COLORSPACE_SMPTE170M;
}

// The library's own functions must not be answered by the camera.
int close_descriptor(int descriptor)
{
    return static_cast<int>(syscall(SYS_close, descriptor));
}

} // namespace

Device::Device(Spec spec)
    : spec_(std::move(spec)), frames_ready_(eventfd(0, EFD_SEMAPHORE | EFD_CLOEXEC | EFD_NONBLOCK)),
      memory_(memfd_create("velstream-camera", MFD_CLOEXEC)), mode_(spec_.modes.at(0))
{
}

Device::~Device()
{
    release();
    close_descriptor(frames_ready_);
    close_descriptor(memory_);
}

void Device::unplug()
{
    {
        const std::lock_guard lock(mutex_);
        is_unplugged_ = true;
    }
    changed_.notify_all();
    eventfd_write(frames_ready_, 1U << 20U); // whoever polls is to ask and to be told
}

int Device::open(int flags)
{
    if (is_unplugged_) {
        errno = ENODEV;
        return -1;
    }
    is_nonblocking_ = (flags & O_NONBLOCK) != 0;
    return fcntl(frames_ready_, F_DUPFD_CLOEXEC, 0);
}

void Device::release()
{
    stop_streaming();
    const std::lock_guard lock(mutex_);
    free_buffers();
}

int Device::control(unsigned long request, void* argument)
{
    if (is_unplugged_) return ENODEV;
    switch (request) {
    case VIDIOC_QUERYCAP:
        return query_capabilities(*static_cast<v4l2_capability*>(argument));
    case VIDIOC_ENUMINPUT:
        return enumerate_input(*static_cast<v4l2_input*>(argument));
    case VIDIOC_G_INPUT:
        *static_cast<int*>(argument) = 0;
        return 0;
    case VIDIOC_S_INPUT:
        return *static_cast<int*>(argument) == 0 ? 0 : EINVAL;
    case VIDIOC_ENUM_FMT:
        return enumerate_format(*static_cast<v4l2_fmtdesc*>(argument));
    case VIDIOC_ENUM_FRAMESIZES:
        return enumerate_size(*static_cast<v4l2_frmsizeenum*>(argument));
    case VIDIOC_ENUM_FRAMEINTERVALS:
        return enumerate_interval(*static_cast<v4l2_frmivalenum*>(argument));
    case VIDIOC_G_PARM:
    case VIDIOC_S_PARM:
        return describe_parameters(*static_cast<v4l2_streamparm*>(argument));
    case VIDIOC_G_FMT:
        return get_format(*static_cast<v4l2_format*>(argument));
    case VIDIOC_TRY_FMT:
        return set_format(*static_cast<v4l2_format*>(argument), true);
    case VIDIOC_S_FMT:
        return set_format(*static_cast<v4l2_format*>(argument), false);
    case VIDIOC_REQBUFS:
        return request_buffers(*static_cast<v4l2_requestbuffers*>(argument));
    case VIDIOC_QUERYBUF:
        return query_buffer(*static_cast<v4l2_buffer*>(argument));
    case VIDIOC_QBUF:
        return queue_buffer(*static_cast<v4l2_buffer*>(argument));
    case VIDIOC_DQBUF:
        return dequeue_buffer(*static_cast<v4l2_buffer*>(argument));
    case VIDIOC_STREAMON:
        return stream_on();
    case VIDIOC_STREAMOFF:
        return stream_off();
    case VIDIOC_QUERYCTRL:
    case VIDIOC_G_CTRL:
    case VIDIOC_S_CTRL:
        return EINVAL; // no such control
    default:
        return ENOTTY; // not a request of this camera's
    }
}

int Device::query_capabilities(v4l2_capability& out) const
{
    out = {};
    write_text(out.driver, "velstream");
    write_text(out.card, "Emulated camera");
    write_text(out.bus_info, "usb-emulated-1");
    out.version = 0x060000;
    out.device_caps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING | V4L2_CAP_EXT_PIX_FORMAT;
    out.capabilities = out.device_caps | V4L2_CAP_DEVICE_CAPS;
    return 0;
}

int Device::enumerate_input(v4l2_input& out) const
{
    if (out.index != 0) return EINVAL;
    out = {};
    write_text(out.name, "Camera 1");
    out.type = V4L2_INPUT_TYPE_CAMERA;
    return 0;
}

int Device::enumerate_format(v4l2_fmtdesc& out) const
{
    if (out.type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
    std::vector<Format> formats;
    for (const Mode& mode : spec_.modes) {
        if (std::find(formats.begin(), formats.end(), mode.format) == formats.end()) formats.push_back(mode.format);
    }
    if (out.index >= formats.size()) return EINVAL;
    const Format format = formats[out.index];
    out.flags = format == Format::Jpeg ? V4L2_FMT_FLAG_COMPRESSED : 0;
    out.pixelformat = fourcc(format);
    write_text(out.description, format == Format::Jpeg ? "Motion-JPEG" : "YUYV 4:2:2");
    return 0;
}

int Device::enumerate_size(v4l2_frmsizeenum& out) const
{
    std::uint32_t index = 0;
    for (const Mode& mode : spec_.modes) {
        if (fourcc(mode.format) != out.pixel_format || index++ != out.index) continue;
        out.type = V4L2_FRMSIZE_TYPE_DISCRETE;
        out.discrete = {static_cast<std::uint32_t>(mode.width), static_cast<std::uint32_t>(mode.height)};
        return 0;
    }
    return EINVAL;
}

int Device::enumerate_interval(v4l2_frmivalenum& out) const
{
    if (out.index != 0) return EINVAL;
    out.type = V4L2_FRMIVAL_TYPE_DISCRETE;
    out.discrete = {1, static_cast<std::uint32_t>(spec_.fps)};
    return 0;
}

int Device::describe_parameters(v4l2_streamparm& out) const
{
    if (out.type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
    out.parm.capture = {};
    out.parm.capture.capability = V4L2_CAP_TIMEPERFRAME;
    out.parm.capture.timeperframe = {1, static_cast<std::uint32_t>(spec_.fps)};
    out.parm.capture.readbuffers = 4;
    return 0;
}

/// As drivers do: the wanted format, or the first; of its sizes the one whose area is nearest.
const Mode& Device::nearest_mode(const v4l2_pix_format& wanted) const
{
    const auto distance = [&wanted](const Mode& mode) {
        const std::int64_t area = std::int64_t{mode.width} * mode.height;
        const std::int64_t other_area = std::int64_t{wanted.width} * wanted.height;
        const bool is_other_format = fourcc(mode.format) != wanted.pixelformat;
        return std::pair(is_other_format, std::llabs(area - other_area));
    };
    return *std::min_element(spec_.modes.begin(), spec_.modes.end(),
                             [&](const Mode& a, const Mode& b) { return distance(a) < distance(b); });
}

int Device::get_format(v4l2_format& format)
{
    if (format.type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
    const std::lock_guard lock(mutex_);
    describe(mode_, format.fmt.pix);
    return 0;
}

int Device::set_format(v4l2_format& format, bool is_trial)
{
    if (format.type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
    const Mode& mode = nearest_mode(format.fmt.pix);
    const std::lock_guard lock(mutex_);
    if (!is_trial) {
        if (!buffers_.empty()) return EBUSY;
        mode_ = mode;
    }
    describe(mode, format.fmt.pix);
    return 0;
}

int Device::request_buffers(v4l2_requestbuffers& request)
{
    if (request.type != V4L2_BUF_TYPE_VIDEO_CAPTURE || request.memory != V4L2_MEMORY_MMAP) return EINVAL;
    if (request.count == 0) {
        stop_streaming();
        const std::lock_guard lock(mutex_);
        free_buffers();
    } else {
        const std::lock_guard lock(mutex_);
        if (!buffers_.empty()) return EBUSY;
        request.count = static_cast<std::uint32_t>(std::clamp<std::size_t>(request.count, 2, kMostBuffers));
        if (!allocate(request.count)) return ENOMEM;
    }
    request.capabilities = V4L2_BUF_CAP_SUPPORTS_MMAP;
    return 0;
}

bool Device::allocate(std::size_t count)
{
    buffer_size_ = (frame_capacity(mode_) + kPage - 1) / kPage * kPage;
    if (ftruncate(memory_, static_cast<off_t>(count * buffer_size_)) != 0) return false;
    void* start = mmap(nullptr, count * buffer_size_, PROT_READ | PROT_WRITE, MAP_SHARED, memory_, 0);
    if (start == MAP_FAILED) return false;
    for (std::size_t index = 0; index < count; ++index) {
        Buffer buffer;
        buffer.data = static_cast<std::uint8_t*>(start) + index * buffer_size_;
        buffer.state.index = static_cast<std::uint32_t>(index);
        buffer.state.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buffer.state.memory = V4L2_MEMORY_MMAP;
        buffer.state.flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC;
        buffer.state.length = static_cast<std::uint32_t>(frame_capacity(mode_));
        buffer.state.m.offset = static_cast<std::uint32_t>(index * buffer_size_);
        buffers_.push_back(buffer);
    }
    return true;
}

void Device::free_buffers()
{
    if (!buffers_.empty()) munmap(buffers_[0].data, buffers_.size() * buffer_size_);
    buffers_.clear();
}

int Device::query_buffer(v4l2_buffer& out)
{
    const std::lock_guard lock(mutex_);
    if (out.type != V4L2_BUF_TYPE_VIDEO_CAPTURE || out.index >= buffers_.size()) return EINVAL;
    out = buffers_[out.index].state;
    return 0;
}

int Device::queue_buffer(v4l2_buffer& out)
{
    const std::lock_guard lock(mutex_);
    if (out.type != V4L2_BUF_TYPE_VIDEO_CAPTURE || out.index >= buffers_.size()) return EINVAL;
    v4l2_buffer& state = buffers_[out.index].state;
    if (state.flags & (V4L2_BUF_FLAG_QUEUED | V4L2_BUF_FLAG_DONE)) return EINVAL;
    state.flags |= V4L2_BUF_FLAG_QUEUED;
    queued_.push_back(out.index);
    out = state;
    return 0;
}

/// Blocks as the call of a driver does, unless the device was opened to not block.
int Device::wait_for_frame()
{
    eventfd_t one = 0;
    while (eventfd_read(frames_ready_, &one) != 0) {
        if (is_nonblocking_) return EAGAIN;
        {
            const std::lock_guard lock(mutex_);
            if (!is_streaming_) return EINVAL;
        }
        pollfd ready{frames_ready_, POLLIN, 0};
        poll(&ready, 1, 100);
    }
    return 0;
}

int Device::dequeue_buffer(v4l2_buffer& out)
{
    if (out.type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
    if (const int error = wait_for_frame()) return error;
    if (is_unplugged_) return ENODEV;
    const std::lock_guard lock(mutex_);
    if (done_.empty()) return EINVAL;
    v4l2_buffer& state = buffers_[done_.front()].state;
    done_.pop_front();
    state.flags &= ~static_cast<std::uint32_t>(V4L2_BUF_FLAG_DONE);
    out = state;
    ++delivered_;
    return 0;
}

int Device::stream_on()
{
    const std::lock_guard lock(mutex_);
    if (buffers_.empty()) return EINVAL;
    if (is_streaming_) return 0;
    is_streaming_ = true;
    sensor_ = std::thread([this] { run(); });
    return 0;
}

int Device::stream_off()
{
    stop_streaming();
    return 0;
}

void Device::stop_streaming()
{
    std::thread ended;
    {
        const std::lock_guard lock(mutex_);
        is_streaming_ = false;
        ended = std::exchange(sensor_, std::thread());
    }
    changed_.notify_all();
    if (ended.joinable()) ended.join();
    const std::lock_guard lock(mutex_);
    queued_.clear();
    done_.clear();
    for (Buffer& buffer : buffers_)
        buffer.state.flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC;
    eventfd_t one = 0;
    while (!is_unplugged_ && eventfd_read(frames_ready_, &one) == 0)
        ;
}

/// The sensor's own clock: a frame that finds no buffer is lost, and its number with it.
void Device::run()
{
    const auto interval = std::chrono::nanoseconds(std::chrono::seconds(1)) / spec_.fps;
    auto due = std::chrono::steady_clock::now();
    FrameMaker maker(mode_);
    std::unique_lock lock(mutex_);
    while (is_streaming_ && !is_unplugged_) {
        // A machine that is busy gets its frames late, not all at once.
        due = std::max(due + interval, std::chrono::steady_clock::now());
        changed_.wait_until(lock, due, [this] { return !is_streaming_ || is_unplugged_; });
        if (!is_streaming_ || is_unplugged_) return;
        const int number = next_frame_++;
        if (queued_.empty() || is_silent_) continue;
        lock.unlock();
        deliver(maker, number);
        lock.lock();
    }
}

void Device::deliver(FrameMaker& maker, int number)
{
    const std::vector<std::uint8_t>& bytes = maker.make(number);
    const std::lock_guard lock(mutex_);
    if (!is_streaming_ || queued_.empty()) return;
    Buffer& buffer = buffers_[queued_.front()];
    std::memcpy(buffer.data, bytes.data(), std::min(bytes.size(), frame_capacity(mode_)));
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    buffer.state.bytesused = static_cast<std::uint32_t>(bytes.size());
    buffer.state.sequence = static_cast<std::uint32_t>(number);
    buffer.state.timestamp = {now.tv_sec, now.tv_nsec / 1000};
    buffer.state.field = V4L2_FIELD_NONE;
    buffer.state.flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC | V4L2_BUF_FLAG_DONE;
    done_.push_back(queued_.front());
    queued_.pop_front();
    eventfd_write(frames_ready_, 1);
}

} // namespace peers::camera
