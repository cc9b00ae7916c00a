// A splice stream that a test starts, and what its callback gets.
#pragma once

#include "AccessUnits.h"
#include "velstream.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace velstream::testing {

/// For what must happen at all, on a machine that is busy.
inline constexpr std::chrono::seconds kSplicePatience{60};

struct Frame {
    Quorvis::VelStream::Image image; ///< `data` is not to be used
    Bytes nv12;                      ///< width x height bytes of Y, then half as much chroma; rows without padding
};

/// Frames as they come, kept for the test.
class FrameLog {
public:
    /// A callback that keeps every frame. `before` runs first, outside the lock.
    Quorvis::VelStream::FrameCallback callback(std::function<void()> before = {});
    /// @return false after the bound.
    bool wait_for(std::size_t count, std::chrono::milliseconds bound = kSplicePatience) const;
    std::size_t size() const;
    std::vector<Frame> frames() const;

private:
    mutable std::mutex mutex_; // guards the following
    mutable std::condition_variable changed_;
    std::vector<Frame> frames_;
};

/// Starts a stream; stops it at the latest when it goes out of scope.
class SpliceStream {
public:
    SpliceStream(std::string id, Quorvis::VelStream::FrameCallback callback);
    ~SpliceStream();
    SpliceStream(const SpliceStream&) = delete;
    SpliceStream& operator=(const SpliceStream&) = delete;

    int start_result() const { return start_result_; }
    int push(const Bytes& unit, long pts = -1, bool is_key_frame = false) const;
    int push(const AccessUnit& unit) const { return push(unit.bytes, unit.pts); }
    int stop() const;
    const std::string& id() const { return id_; }

private:
    std::string id_;
    int start_result_;
};

/// Waits until a condition holds that no event tells of. @return false after the bound.
bool wait_until(const std::function<bool()>& condition, std::chrono::milliseconds bound = kSplicePatience);

/// What is written to std::cout and std::cerr while an object of this class lives.
class StandardStreams {
public:
    StandardStreams();
    ~StandardStreams();
    StandardStreams(const StandardStreams&) = delete;
    StandardStreams& operator=(const StandardStreams&) = delete;
    std::string out() const;
    std::string error() const;

private:
    class Capture;
    std::unique_ptr<Capture> out_;
    std::unique_ptr<Capture> error_;
};

} // namespace velstream::testing
