// A source whose read nothing wakes, as an RTMP client's: whoever closes its connection must not do so under the read.
#include "Elements.h"
#include "StreamBuildRegistry.h"
#include "StreamBuildScope.h"
#include "gst_handles.h"

#include <gst/base/gstpushsrc.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <thread>
#include <utility>

namespace velstream::testing {

namespace {

using velstream::handles::BusPtr;
using velstream::handles::ElementPtr;
using velstream::handles::MessagePtr;

int connection[2]; // the source's end, and the server's
std::atomic<bool> is_reading = false;
std::atomic<bool> is_silent = false;
std::atomic<int> buffers = 0;
std::atomic<int> closed_under_read = 0;

/// Data comes every 20 ms, or none for as long as the connection is open.
GstFlowReturn read(GstPushSrc*, GstBuffer** buffer)
{
    is_reading = true;
    char data = 0;
    if (is_silent)
        recv(connection[0], &data, sizeof data, 0);
    else
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    is_reading = false;
    if (is_silent) return GST_FLOW_EOS;
    *buffer = gst_buffer_new_allocate(nullptr, 16, nullptr);
    ++buffers;
    return GST_FLOW_OK;
}

gboolean close_connection(GstBaseSrc*)
{
    if (is_reading) ++closed_under_read;
    return TRUE;
}

gboolean do_nothing(GstBaseSrc*)
{
    return TRUE;
}

gboolean seek_nowhere(GstBaseSrc*, GstSegment*)
{
    return TRUE;
}

void init_class(gpointer source_class, gpointer)
{
    GST_PUSH_SRC_CLASS(source_class)->create = read;
    GST_BASE_SRC_CLASS(source_class)->start = do_nothing;
    GST_BASE_SRC_CLASS(source_class)->stop = do_nothing;
    GST_BASE_SRC_CLASS(source_class)->do_seek = seek_nowhere;
    GST_BASE_SRC_CLASS(source_class)->unlock = close_connection;
}

/// The RTMP client, with another connection.
GType reader_type()
{
    static const GType type = [] {
        const ElementPtr client(GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("rtmpsrc", nullptr))));
        const GType parent = G_OBJECT_TYPE(client.get());
        GTypeQuery sizes;
        g_type_query(parent, &sizes);
        return g_type_register_static_simple(parent, "TestReader", sizes.class_size, init_class, sizes.instance_size,
                                             nullptr, GTypeFlags{});
    }();
    return type;
}

class ReadingSource : public ::testing::Test {
protected:
    void SetUp() override
    {
        gst_init(nullptr, nullptr);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, connection), 0);
        reader_.emplace("rtmpsrc", reader_type());
        pipeline_.reset(gst_parse_launch("rtmpsrc ! fakesink", nullptr));
        gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING);
    }
    void TearDown() override
    {
        if (pipeline_) gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
        pipeline_.reset();
        close(connection[0]);
        close(connection[1]);
    }

    static void wait_for_reader()
    {
        while (!is_reading)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

    bool wait_for_end() const
    {
        const BusPtr bus(gst_element_get_bus(pipeline_.get()));
        const MessagePtr message(gst_bus_timed_pop_filtered(bus.get(), 60 * GST_SECOND,
                                                            GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
        return message && GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_EOS;
    }

    std::optional<ElementStandIn> reader_;
    ElementPtr pipeline_;
};

} // namespace

TEST_F(ReadingSource, IsEndedBetweenTwoReads)
{
    while (buffers < 3)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    Quorvis::VelStream::send_end_of_stream(pipeline_.get());
    EXPECT_TRUE(wait_for_end());
    gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
    EXPECT_EQ(closed_under_read, 0);
}

TEST_F(ReadingSource, ThatGetsNothingIsHungUp)
{
    is_silent = true;
    wait_for_reader();
    Quorvis::VelStream::send_end_of_stream(pipeline_.get());
    EXPECT_TRUE(wait_for_end());
    gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
    EXPECT_EQ(closed_under_read, 0);
}

TEST_F(ReadingSource, ThatGetsNothingIsHungUpBeforeItGoesDown)
{
    is_silent = true;
    wait_for_reader();
    EXPECT_TRUE(Quorvis::VelStream::take_down(std::move(pipeline_), std::chrono::minutes(1)));
    EXPECT_EQ(closed_under_read, 0);
}

} // namespace velstream::testing
