// A stop that comes while a live source is still starting, as a camera may be for a while.
#include "ConfigFile.h"
#include "LiveInput.h"
#include "RecordedLog.h"
#include "StreamBuild.h"
#include "gst_handles.h"

#include <gst/base/gstbasesrc.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <future>
#include <thread>
#include <unistd.h>

namespace velstream::testing {

namespace {

using velstream::handles::ElementPtr;
using velstream::handles::PadPtr;

/// A live source that starts when somebody opens the other end of its pipe.
class PipeInput : public Quorvis::VelStream::StreamInput {
public:
    PipeInput(std::string id, std::string path) : StreamInput("live", std::move(id)), path_(std::move(path)) {}

    GstElement* build() override
    {
        GstElement* bin = gst_parse_bin_from_description("filesrc name=pipe ! capsfilter caps=video/x-raw,format=NV12",
                                                         TRUE, nullptr);
        ElementPtr source(gst_bin_get_by_name(GST_BIN(bin), "pipe"));
        g_object_set(source.get(), "location", path_.c_str(), nullptr);
        gst_base_src_set_live(GST_BASE_SRC(source.get()), TRUE);
        source_.set_value(std::move(source));
        return bin;
    }

    ElementPtr take_source() { return source_.get_future().get(); }

private:
    std::string path_;
    std::promise<ElementPtr> source_;
};

void wait_until_starting(GstElement* source, const StreamCall& call)
{
    const PadPtr pad(gst_element_get_static_pad(source, "src"));
    while (GST_PAD_MODE(pad.get()) != GST_PAD_MODE_PUSH && !call.has_ended())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

} // namespace

TEST(StopOfAStartingSource, EndsTheCall)
{
    gst_init(nullptr, nullptr);
    const TemporaryFolder folder;
    const std::string path = folder.file("pipe");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const auto input = std::make_shared<PipeInput>("pipe", path);
    StreamCall call([input](FrameCallback& callback) {
        return Quorvis::VelStream::startStream(input.get(), nullptr, "pipe", callback);
    });
    const ElementPtr source = input->take_source();
    wait_until_starting(source.get(), call);
    std::thread writer([&] {
        wait_for_log("I send_eos: stopping single pipeline pipe");
        std::this_thread::sleep_for(std::chrono::milliseconds(300)); // the end of stream is on its way
        close(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    });
    EXPECT_TRUE(stop_ends_call(call, "pipe"));
    writer.join();
    EXPECT_EQ(call.frames(), 0);
}

} // namespace velstream::testing
