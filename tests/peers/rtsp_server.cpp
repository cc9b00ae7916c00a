// An RTSP server for tests and for trying things out: plays a file or a camera, or records what is sent to it.
#include "media.h"
#include "peer_handles.h"
#include "play_factory.h"
#include "record_factory.h"

#include <CLI/CLI.hpp>
#include <gst/rtsp-server/rtsp-server.h>
#include <sys/prctl.h>

#include <csignal>
#include <cstdio>
#include <memory>
#include <string>

namespace {

struct Options {
    int port = 0;
    std::string mount = "/test";
    std::string file;
    std::string out;
    bool is_looped = false;
    bool is_live = false;
    bool has_sound_only = false;
    int close_after = 0; ///< seconds; 0 for never
    std::string later_size;
    int size_frames = 50;
    std::string size = "320x240";
    media::MediaSpec camera;
    media::MediaSpec later;
};

/// Closes a client's connection some time after it has started to play, without a word.
void on_play(GstRTSPClient* client, GstRTSPContext*, gpointer options)
{
    const auto close = [](gpointer played) -> gboolean {
        gst_rtsp_client_close(GST_RTSP_CLIENT(played));
        return G_SOURCE_REMOVE;
    };
    g_timeout_add_seconds_full(G_PRIORITY_DEFAULT, static_cast<guint>(static_cast<Options*>(options)->close_after),
                               close, g_object_ref(client), g_object_unref);
}

void on_player(GstRTSPServer*, GstRTSPClient* client, gpointer options)
{
    g_signal_connect(client, "play-request", G_CALLBACK(on_play), options);
}

gboolean forget_silent_clients(gpointer pool)
{
    gst_rtsp_session_pool_cleanup(GST_RTSP_SESSION_POOL(pool));
    return G_SOURCE_CONTINUE;
}

GstRTSPMediaFactory* make_factory(const CLI::App& record, Options& options)
{
    if (record.parsed()) return peers::make_record_factory(options.out);
    if (options.is_live) return peers::make_camera_factory(options.camera, options.later);
    std::string failure;
    GstRTSPMediaFactory* factory =
        peers::make_clip_factory(options.file, options.is_looped, options.has_sound_only, failure);
    if (!factory) std::fprintf(stderr, "velstream-rtsp-peer: %s: %s\n", options.file.c_str(), failure.c_str());
    return factory;
}

/// Serves until the process is ended.
int serve(GstRTSPMediaFactory* factory, bool is_recording, Options& options)
{
    const peers::ObjectPtr<GstRTSPServer> server(gst_rtsp_server_new());
    gst_rtsp_server_set_address(server.get(), "127.0.0.1");
    gst_rtsp_server_set_service(server.get(), std::to_string(options.port).c_str());
    const peers::ObjectPtr<GstRTSPThreadPool> threads(gst_rtsp_server_get_thread_pool(server.get()));
    gst_rtsp_thread_pool_set_max_threads(threads.get(), 4);
    if (is_recording) peers::watch_recorders(server.get());
    if (options.close_after > 0) g_signal_connect(server.get(), "client-connected", G_CALLBACK(on_player), &options);
    const peers::ObjectPtr<GstRTSPMountPoints> mounts(gst_rtsp_server_get_mount_points(server.get()));
    gst_rtsp_mount_points_add_factory(mounts.get(), options.mount.c_str(), factory); // takes the factory
    const peers::ObjectPtr<GstRTSPSessionPool> sessions(gst_rtsp_server_get_session_pool(server.get()));
    g_timeout_add_seconds(2, forget_silent_clients, sessions.get());

    if (gst_rtsp_server_attach(server.get(), nullptr) == 0) {
        std::fprintf(stderr, "velstream-rtsp-peer: port %d is not free\n", options.port);
        return 1;
    }
    std::printf("port=%d\n", gst_rtsp_server_get_bound_port(server.get()));
    std::fflush(stdout);
    const peers::MainLoopPtr loop(g_main_loop_new(nullptr, FALSE));
    g_main_loop_run(loop.get());
    return 0;
}

bool read_size(const std::string& text, media::MediaSpec& spec)
{
    return std::sscanf(text.c_str(), "%dx%d", &spec.width, &spec.height) == 2 && spec.width >= 320 &&
           spec.height >= 160 && spec.width % 2 == 0 && spec.height % 2 == 0;
}

} // namespace

int main(int argc, char** argv)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL); // never outlives the test that started it
    Options options;
    options.camera.fps = 25;
    options.camera.bitrate = 500;
    CLI::App app{"An RTSP server on 127.0.0.1. Its first line of output is port=N, once it can be reached."};
    app.require_subcommand(1);
    app.add_option("--port", options.port, "port; 0 takes a free one")->check(CLI::Range(0, 65535));
    app.add_option("--mount", options.mount, "path of the stream, /test");
    app.fallthrough();
    CLI::App* play = app.add_subcommand("play", "sends a file or a camera's picture");
    auto* file = play->add_option("--file", options.file, "MP4 file with H.264 or H.265, and AAC or no sound")
                     ->check(CLI::ExistingFile);
    play->add_flag("--loop", options.is_looped, "from the start again at the file's end");
    auto* live = play->add_flag("--live", options.is_live, "a camera's picture, without end")->excludes(file);
    play->add_option("--codec", options.camera.codec, "of the camera: h264 or h265")
        ->check(CLI::IsMember({"h264", "h265"}));
    play->add_option("--size", options.size, "of the camera's picture, WIDTHxHEIGHT, even, from 320x160 up");
    play->add_option("--fps", options.camera.fps, "of the camera")->check(CLI::PositiveNumber);
    play->add_option("--bitrate", options.camera.bitrate, "of the camera, kbit/s")->check(CLI::PositiveNumber);
    play->add_option("--then-size", options.later_size, "of the camera's picture from a later frame on");
    play->add_option("--size-frames", options.size_frames, "frames before --then-size, 50");
    play->add_flag("--sound-only", options.has_sound_only, "the file's sound without its video");
    play->add_option("--close-after", options.close_after, "seconds after which a player's connection is closed");
    CLI::App* record = app.add_subcommand("record", "takes what is sent and writes a file of it");
    record->add_option("--out", options.out, "file, .mp4 or .ts")->required();
    CLI11_PARSE(app, argc, argv);

    if (play->parsed() && file->empty() && live->empty()) {
        std::fprintf(stderr, "velstream-rtsp-peer: play needs --file or --live\n");
        return 2;
    }
    if (!read_size(options.size, options.camera)) {
        std::fprintf(stderr, "velstream-rtsp-peer: --size %s is not WIDTHxHEIGHT, even, from 320x160 up\n",
                     options.size.c_str());
        return 2;
    }
    options.later = options.camera;
    options.later.frames = -1;
    if (!options.later_size.empty()) {
        options.later.frames = options.size_frames;
        if (!read_size(options.later_size, options.later)) {
            std::fprintf(stderr, "velstream-rtsp-peer: --then-size %s is no size\n", options.later_size.c_str());
            return 2;
        }
    }
    gst_init(nullptr, nullptr);
    GstRTSPMediaFactory* factory = make_factory(*record, options);
    return factory ? serve(factory, record->parsed(), options) : 1;
}
