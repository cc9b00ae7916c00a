// Builders that the library makes live as long as the process, in one reachable place.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

namespace Quorvis::VelStream {

template <typename Builder>
class BuilderList {
public:
    static void keep(Builder* builder)
    {
        static std::mutex mutex;
        // Never destroyed: a stream may still run while the process leaves main().
        static auto* builders = new std::vector<std::unique_ptr<Builder>>;
        const std::lock_guard lock(mutex);
        builders->emplace_back(builder);
    }
};

} // namespace Quorvis::VelStream
