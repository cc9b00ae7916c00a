// Writes a generated MP4 file or byte stream.
#include "media.h"

#include <CLI/CLI.hpp>

#include <cstdio>

int main(int argc, char** argv)
{
    media::MediaSpec spec;
    std::string size = "1280x720";
    std::string path;
    bool is_audio_only = false;
    CLI::App app{"Writes a moving picture with each frame's number in it."};
    app.add_option("--codec", spec.codec, "h264 or h265")->check(CLI::IsMember({"h264", "h265"}));
    app.add_option("--size", size, "WIDTHxHEIGHT in pixels, both even");
    app.add_option("--fps", spec.fps, "frames a second")->check(CLI::PositiveNumber);
    app.add_option("--frames", spec.frames, "number of frames")->check(CLI::PositiveNumber);
    app.add_option("--bframes", spec.b_frames, "B frames between two others")->check(CLI::Range(0, 16));
    app.add_option("--key-interval", spec.key_interval, "frames between key frames")->check(CLI::PositiveNumber);
    app.add_option("--bitrate", spec.bitrate, "kbit/s")->check(CLI::PositiveNumber);
    app.add_option("--video-tracks", spec.video_tracks, "number of video tracks")->check(CLI::Range(1, 4));
    app.add_flag("--audio", spec.has_audio, "with an AAC track");
    app.add_flag("--audio-only", is_audio_only, "an AAC track and no video");
    app.add_flag("--noise", spec.has_noise, "noise in every frame");
    app.add_option("file", path, "what to write: .mp4, .h264 or .h265")->required();
    CLI11_PARSE(app, argc, argv);

    if (std::sscanf(size.c_str(), "%dx%d", &spec.width, &spec.height) != 2 || spec.width < 320 || spec.height < 160 ||
        spec.width % 2 != 0 || spec.height % 2 != 0) {
        std::fprintf(stderr, "velstream-make-media: --size %s is not WIDTHxHEIGHT, even, from 320x160 up\n",
                     size.c_str());
        return 2;
    }
    if (is_audio_only) {
        spec.has_video = false;
        spec.has_audio = true;
    }
    const std::string failure = media::make_media(spec, path);
    if (failure.empty()) return 0;
    std::fprintf(stderr, "velstream-make-media: %s: %s\n", path.c_str(), failure.c_str());
    return 1;
}
