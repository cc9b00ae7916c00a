// Tensors and models for the tests of the elements that detect things.
#pragma once

#include "square_detector.h"
#include "temporary_folder.h"
#include "video_frames.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace velstream::test {

/// With a folder of its own for models and labels.
class ModelTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { gst_init(nullptr, nullptr); }

    std::string file(const std::string& name, const std::string& bytes) const
    {
        const std::string path = folder_ + "/" + name;
        write_file(path, bytes);
        return path;
    }
    std::string model(const SquareDetector& detector) const
    {
        return file("model.onnx", make_square_detector(detector));
    }

    const velstream::testing::TemporaryFolder own_folder_;
    const std::string folder_ = own_folder_.path();
};

/// One memory for each tensor.
inline BufferPtr make_tensors(const std::vector<std::vector<float>>& tensors)
{
    BufferPtr buffer(gst_buffer_new());
    for (const auto& numbers : tensors) {
        GstMemory* memory = gst_allocator_alloc(nullptr, numbers.size() * sizeof(float), nullptr);
        GstMapInfo map;
        gst_memory_map(memory, &map, GST_MAP_WRITE);
        std::memcpy(map.data, numbers.data(), map.size);
        gst_memory_unmap(memory, &map);
        gst_buffer_append_memory(buffer.get(), memory);
    }
    return buffer;
}

template <typename Number>
std::vector<Number> numbers_of(GstBuffer* buffer)
{
    GstMapInfo map;
    gst_buffer_map(buffer, &map, GST_MAP_READ);
    std::vector<Number> numbers(map.size / sizeof(Number));
    std::memcpy(numbers.data(), map.data, numbers.size() * sizeof(Number));
    gst_buffer_unmap(buffer, &map);
    return numbers;
}

/// What ended a pipeline: the text of its error, "EOS", or that it did not end at all.
struct Ending {
    std::string text;
    std::vector<std::string> warnings;
};

inline Ending run_to_end(const std::string& launch)
{
    Ending ending{"nothing", {}};
    GstElement* pipeline = gst_parse_launch(launch.c_str(), nullptr);
    GstBus* bus = gst_element_get_bus(pipeline);
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    constexpr auto kKinds = static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR | GST_MESSAGE_WARNING);
    while (GstMessage* message = gst_bus_timed_pop_filtered(bus, 60 * GST_SECOND, kKinds)) {
        GError* error = nullptr;
        if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_WARNING) {
            gst_message_parse_warning(message, &error, nullptr);
            ending.warnings.emplace_back(error->message);
        } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
            gst_message_parse_error(message, &error, nullptr);
            ending.text = error->message;
        } else {
            ending.text = "EOS";
        }
        const bool is_over = GST_MESSAGE_TYPE(message) != GST_MESSAGE_WARNING;
        g_clear_error(&error);
        gst_message_unref(message);
        if (is_over) break;
    }
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(bus);
    gst_object_unref(pipeline);
    return ending;
}

} // namespace velstream::test
