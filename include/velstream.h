/**
 * velstream-gst: live video streams through GStreamer, every decoded RGB frame in the application's callback.
 *
 * One JSON file describes the streams; an application names a stream by its id. Every call that starts a stream
 * blocks its caller until the stream ends, so an application runs each stream on a thread of its own and stops it
 * from another thread with gstreamer_pipeline_shutdown(). Only pushed H.265 decoding runs on a thread of the
 * library's: its start returns once the decoder plays.
 *
 * Results are 0 for success and -1 for failure; pushed H.265 decoding has -2 to -8 for failures too. The library
 * throws nothing of its own; exceptions of the standard library and of jsoncpp (a configuration file that is not JSON,
 * a value of the wrong JSON type) pass through unchanged.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

namespace cv {
class Mat; // OpenCV's matrix: only who calls the functions with matrices includes <opencv2/core.hpp>
}

namespace Quorvis::VelStream {

/// Where a stream's frames go beside the callback. Mapped from `StreamIns::outputType`.
enum StreamType {
    STREAM_TYPE_NONE = 0,    ///< No display: frames go to the callback only.
    STREAM_TYPE_WAYLAND = 1, ///< "wayland": on the Wayland display.
    STREAM_TYPE_RTSP = 2,    ///< "rtsp": pushed to an RTSP server.
    STREAM_TYPE_RTMP = 3,    ///< "rtmp": not reachable through the start functions; they return -1 for it.
    STREAM_TYPE_MP4 = 4,     ///< "mp4": written to an MP4 file.
};

/// What a composition does with its canvas. Values 0 to 3 are accepted and start nothing.
enum ScenarioType : int {
    SCENARIO_FILE = 4, ///< Saved to file only.
    SCENARIO_COMPOSE_ONLY =
        5, ///< The bare canvas, without overlays, push and detection; into the file, if one is given.
    SCENARIO_FILE_AND_RTSP = 6, ///< File and RTSP push.
    SCENARIO_RTSP = 7,          ///< RTSP push.
};

/// Kinds of task that describe a composition.
enum TaskType : int {
    TASK_ADD_INPUT = 0,       ///< Adds a sub-stream input.
    TASK_ADD_OUTPUT = 1,      ///< Adds an encoded output.
    TASK_RTSP = 2,            ///< An RTSP declaration: validated, then refused.
    InferenceCB = 3,          ///< A callback kind: nothing to add.
    TASK_SET_MAIN_OUTPUT = 4, ///< Sets the main output.
    CustomCB = 5,             ///< A callback kind: nothing to add.
    TASK_SET_MODEL = 6,       ///< Sets the detection model.
};

/// Levels for set_log_level(). A line is written when its own level (0 information, 1 warning, 2 error) is not below
/// the level that results; above 2 nothing is written.
enum GSTLogLevel {
    GST_LOG_LEVEL_ALL = 0,     ///< Passed on as 0: information, warnings and errors.
    GST_LOG_LEVEL_WARNING = 1, ///< Passed on as 1: warnings and errors.
    GST_LOG_LEVEL_ERROR = 2,   ///< Passed on as 2: errors only.
    GST_LOG_LEVEL_NONE = 3,    ///< Passed on as 5: nothing.
    GST_LOG_LEVEL_SILENT = 4,  ///< Passed on as 4: nothing.
};

/// One stream, as the application describes it or as the configuration file does.
struct StreamIns {
    StreamIns();
    StreamIns(const StreamIns&) = default;
    StreamIns(StreamIns&&) = default;
    StreamIns& operator=(const StreamIns&) = default;
    StreamIns& operator=(StreamIns&&) = default;
    ~StreamIns();

    std::string streamsId;  ///< Stream id; default "empty".
    std::string pStreamId;  ///< Id of the parent stream that a derived stream re-encodes; default "empty_p".
    int32_t width;          ///< Frame width in pixels; default 0.
    int32_t height;         ///< Frame height in pixels; default 0.
    std::string inputType;  ///< "file", "rtsp", "rtmp", "usbcam" or "splice".
    std::string inputAddr;  ///< Input file path, URL or device.
    std::string outputType; ///< "wayland", "rtsp", "rtmp" or "mp4"; anything else: no display.
    std::string outputAddr; ///< Push URL or output file path.
    std::string decodeType; ///< "H264" (default) or "H265", upper case, compared exactly.
    std::string encodeType; ///< "H264" (default) or "H265", upper case, compared exactly.
    bool audio;             ///< Audio pass-through; default false.
    bool saveMp4;           ///< Re-encodes the parent's frames into an MP4 file; default false.
    bool networkPush;       ///< Re-encodes the parent's frames and pushes them; default false.
    std::string outputFile; ///< File of the MP4-saving output; default "/tmp/saved_output.mp4".
    int32_t fps;            ///< Output frame rate of the network push, frames a second; default 0.
    bool manualRebuild;     ///< True (default): a pipeline that ended is left for the application to restart.
                            ///< False: it is rebuilt in place.
    bool rollingsave;       ///< Rolling segment recording; default false.
    int32_t reserved;       ///< Not read and not copied by the library; default -1.
};

/**
 * One frame, as a callback gets it. Valid only during the callback: `data` points into the mapped GStreamer buffer and
 * may be read and written in place. It may only be read in pushed H.265 decoding and in a pipeline that was rebuilt
 * ("manualRebuild" false). A re-encoder's points to the process's shared frame, which the callback is to fill.
 */
struct Image {
    Image();
    Image(const Image&) = default;
    Image(Image&&) = default;
    Image& operator=(const Image&) = default;
    Image& operator=(Image&&) = default;
    ~Image();

    std::string streamId;      ///< Id of the stream that produced the frame; empty for a re-encoder.
    uint8_t* data = nullptr;   ///< Packed RGB, 3 bytes a pixel, `height` rows of 3 x `width` bytes, or of more where
                               ///< rows are padded; NV12 in pushed H.265 decoding.
    int32_t reserved0 = 0;     ///< Not written by the library.
    int32_t reserved1 = 0;     ///< Not written by the library.
    int32_t reserved2 = 0;     ///< Not written by the library.
    int32_t width = 0;         ///< Frame width in pixels.
    int32_t height = 0;        ///< Frame height in pixels.
    int32_t alignedWidth = 0;  ///< Pixels in a buffer row. Set by files, RTSP and RTMP without "audio" on the "v4l2"
                               ///< and "ub2404" platforms, by split streams on all; `width` in pushed H.265 decoding.
                               ///< Else 0.
    int32_t alignedHeight = 0; ///< `height` where `alignedWidth` is set, else 0.
    uint64_t size = 0;         ///< Bytes at `data`.
    double fps = 0.0;          ///< Measured frames a second, refreshed at most once a second; 0 before that and in
                               ///< pushed H.265 decoding. A re-encoder's is the encoder's rate.
    int32_t format = 0;        ///< Always 0.
    int64_t frameIndex = 0;    ///< Frames seen since the stream was started; the first frame has 1. 0 for a re-encoder
                               ///< and in pushed H.265 decoding.
    std::string timestamp;     ///< Presentation time "h:mm:ss.nnnnnnnnn"; set by files, RTSP and RTMP without
                               ///< "audio" on "v4l2" and "ub2404", by split streams on all. Else empty.
    int32_t planeStride = 0;   ///< Bytes in a row of the first plane; pushed H.265 decoding only.
    int32_t planeHeight = 0;   ///< Rows of the first plane; pushed H.265 decoding only.
    int64_t pts = 0;           ///< Presentation time in ns, -1 for none; pushed H.265 decoding only.
    std::string extra;         ///< Pixel format name of `data`; empty means packed RGB.
};

/// An application's frame callback. It runs on a streaming thread, a re-encoder's on the thread of the start call, one
/// call at a time a stream, and holds the stream up while it runs. The result is ignored.
using FrameCallback = std::function<int8_t(const Image&)>;

/// Path of the configuration file that the entry points read, afresh at every call. The text that it points to must
/// outlive every call; set it before the first stream starts.
extern const char* g_stream_conf_file;
/// The same for the pipeline builders: set both.
extern const char* stream_conf_file;

/**
 * Starts a stream that the configuration file describes and blocks until it ends. For the input type "splice" it is
 * start_splice_stream(): it does not block, and has its results.
 * @param stream_id  the "streamsId" of the entry.
 * @param callback   called with every frame, but not by a rolling recording. Copied; borrowed for the call by a
 *                   re-encoder; moved from for "splice", as start_splice_stream() does.
 * @return 0 ended normally, with "audio" and "rollingsave" also by an error, which is logged; -1 not found, not
 *         startable, or ended with a failure. On "6490" and "8550" the end of a file, RTSP or RTMP stream that is not
 *         rebuilt is -1 too, and so a stop may be.
 */
int start_stream(std::string stream_id, std::function<int8_t(const Image&)>& callback);

/// Starts a stream that the caller describes, without reading its entry, and blocks until it ends ("splice" does not).
/// Callback and results as start_stream().
int start(StreamIns& ins, std::function<int8_t(const Image&)>& callback);

/**
 * Fills `ins` from the configuration file.
 * @return 0 found; -1 the file cannot be opened, the id is not in it, or a mandatory key is missing. Fields that were
 *         read before a failure stay filled.
 */
int get_properties(std::string stream_id, StreamIns& ins);

/// Stops the stream with this id, or every stream for "all_stream" (all but pushed H.265 decoding, whose streams end by
/// their own ids). Callable from any thread; the stream's start call returns within a second of this call's return.
/// Called from the stream's own frame callback it returns at once, and the stream ends after the callback. An unknown
/// id and a second stop are harmless. A stop ends every re-encoder of the process too, and on the "ub2404" platform
/// every ordinary stream from a file, RTSP or RTMP; later ones end as soon as they start.
/// An id whose entry is of type "splice" is stopped as by stop_splice_stream(), which waits for the callback that is
/// running, and ends no other stream: never stop it from another stream's callback.
void gstreamer_pipeline_shutdown(std::string stream_id);

/**
 * Starts a stream from an MP4 file and blocks until it ends.
 * @param input_addr   path of the file.
 * @param callback     called with every frame.
 * @param type         where the frames go beside the callback.
 * @param output_addr  push URL or output file path; read for the types that have one.
 * @param width,height size of the display window or of the output, in pixels; 0 takes the video's own.
 * @param stream_id    names the pipeline; "empty" takes a fallback name.
 * @return 0 ended normally; -1 not built, not supported, or ended with a failure.
 */
int start_stream_input_file(std::string input_addr, std::function<int8_t(const Image&)> callback, StreamType type,
                            std::string output_addr, int width, int height, std::string stream_id);
/// The same from an RTSP source; `input_addr` is its URL.
int start_stream_input_rtsp(std::string input_addr, std::function<int8_t(const Image&)> callback, StreamType type,
                            std::string output_addr, int width, int height, std::string stream_id);
/// The same from an RTMP source; `input_addr` is its URL.
int start_stream_input_rtmp(std::string input_addr, std::function<int8_t(const Image&)> callback, StreamType type,
                            std::string output_addr, int width, int height, std::string stream_id);
/**
 * Starts a stream from a USB camera and blocks until it ends.
 * @param ins        of it: `inputAddr`, the device node; `width` and `height`, a size that the camera offers as JPEG;
 *                   `outputAddr`, push URL or output file path, for the types that have one.
 * @param callback   called with every frame.
 * @param type       where the frames go beside the callback.
 * @param stream_id  names the pipeline; "empty" takes a fallback name.
 * @return 0 ended normally; -1 not built, not supported, or ended with a failure, which an unplugged camera is.
 */
int start_stream_input_usbcam(StreamIns& ins, std::function<int8_t(const Image&)> callback, StreamType type,
                              std::string stream_id);

/**
 * Starts two configured streams of one H.264 camera (RTSP), which is decoded once, and blocks until it ends. The
 * entries have the same "pStreamId", input and "decodeType", each its own output. A stop of either id ends the call.
 * @param callback_1, callback_2  called with every frame of their stream, each on a streaming thread of its own; moved
 *                                from once the entries belong together.
 * @return 0 ended, also by an error, which is logged; -1 an entry is missing, they do not belong together, or the
 *         pipeline cannot be made.
 */
int start_split_stream(std::string id_1, std::function<int8_t(const Image&)>& callback_1, std::string id_2,
                       std::function<int8_t(const Image&)>& callback_2);

/**
 * Starts a configured stream that relays sound untouched beside the picture, which is encoded anew, as one MPEG
 * transport stream, to the RTSP server of its "outputAddr", and blocks until it ends. Also reached by start_stream()
 * for an entry with "audio". A file's sound and picture are relayed; an RTSP source's picture stays unlinked, so that
 * it delivers no frames. A stop of its id ends the call.
 * @param callback   copied; called with every frame of the picture, on a streaming thread.
 * @return 0 ended, also by an error, which is logged; -1 not built.
 */
int start_audio_stream(std::string stream_id, std::function<int8_t(const Image&)>& callback);

/**
 * Starts a decoder for H.265 access units that the application pushes, and returns once its pipeline plays or has
 * failed; it runs on a thread of its own until stop_splice_stream(), and needs no entry in the configuration file.
 * Also reached by start_stream() and start() for the input type "splice".
 * @param stream_id  any text but the empty one.
 * @param callback   moved from, unless the result is -1. Called once a decoded frame, on a streaming thread, one call
 *                   at a time. The frame is NV12 (`extra` says so): `planeHeight` rows of `planeStride` bytes of Y,
 *                   then the interleaved chroma; `size` bytes in all, to be read only, valid only during the call.
 * @return 0 it plays; -1 empty id or callback; -2 the id is taken; -4 the pipeline cannot be made or does not play;
 *         -8 the stream ended before it played, or the machine has no thread left.
 */
int start_splice_stream(std::string stream_id, std::function<int8_t(const Image&)>& callback);

/**
 * Pushes one access unit, start codes included. Units are dropped with -6 until a VPS, an SPS and a PPS have come and
 * then a key frame; one unit may hold them all. Callable from any thread, one push at a time a stream: while 4 MiB wait
 * for the decoder, a push blocks until there is room or the stream ends.
 * @param pts           ns; negative: pushed without a time stamp (the elements may reckon one).
 * @param is_key_frame  true: counts as a key frame whatever is in the unit.
 * @return 0 accepted; -1 null data, size 0 or empty id; -3 no such stream; -5 the stream has ended or is stopping;
 *         -6 dropped; -7 refused by the pipeline; -8 no memory.
 */
int decode_put_frame_splice(const unsigned char* data, unsigned long size, const std::string& stream_id, long pts,
                            bool is_key_frame);

/**
 * Ends a stream and waits for its thread, and so for a frame callback that is running, however long that takes; from
 * inside that callback it returns at once. Never call it from another stream's callback: two streams whose callbacks
 * stop each other wait for ever. Frames that are still in the decoder are lost. After an error or an end of stream it
 * frees the id.
 * @return 0 stopped; -3 no such stream; -8 the stream has no state.
 */
int stop_splice_stream(std::string stream_id);

/// What parse_hevc_au_info_splice() finds in a buffer.
struct HevcAuInfo {
    bool has_vps; ///< A video parameter set: type 32.
    bool has_sps; ///< A sequence parameter set: type 33.
    bool has_pps; ///< A picture parameter set: type 34.
    bool is_irap; ///< A picture that decoding can start at: types 16 to 21.
    bool has_vcl; ///< A slice of a picture: types below 32.
};

/// Scans an Annex-B buffer for NAL units. Null, or 5 bytes and less: nothing is found.
HevcAuInfo parse_hevc_au_info_splice(const unsigned char* data, unsigned long size);

/**
 * Copies a frame into a matrix of its own: 8 bits, 3 channels, in the frame's order, no conversion.
 * @param rows,cols  height and width of the frame, whose rows are tight.
 * @param data       rows x cols x 3 bytes. Null with a size that is not 0 raises OpenCV's exception.
 */
cv::Mat get_data(int rows, int cols, char* data);

/**
 * Converts a packed RGB frame to BGR; NV12 frames (pushed H.265 decoding) are not for it. Where `alignedWidth` and
 * `alignedHeight` are 0 OpenCV raises its exception: set them to `width` and `height` in a copy of the image first.
 * @param out    a view of width x height into a matrix of the padded size, which it keeps alive.
 * @param image  `alignedHeight` rows of `alignedWidth` packed RGB pixels.
 * @return 0; -1 without data.
 */
int v4l2_get_mat(cv::Mat& out, Image image);
/// The same without the crop: `out` has the padded size.
int v4l2_get_mat_ori(cv::Mat& out, Image image);

/**
 * Joins segments of a rolling recording (a stream with "rollingsave") into one video: runs
 * "python3 /usr/local/bin/concate_video.py" with these options on a thread of its own, once seconds + 5 seconds have
 * passed. What comes of it is seen in the log and in the file.
 * @param args     the script's options, such as "--last 30 --output /tmp/out.mp4"; they go to a shell as they are, so
 *                 never pass on text from elsewhere.
 * @param seconds  how much is to be recorded yet; below -4: at once.
 * @return 0, always, and at once.
 */
int get_rolling_save_video(std::string stream_id, std::string args, int seconds);

/**
 * Four cameras on one canvas: recorded, pushed, with logo and text, and searched for objects by a model. An application
 * describes the composition task by task, starts it on one thread and stops it from another. One composition a process.
 *
 * An engine takes no locks of its own: one thread adds tasks and starts, others may stop.
 */
class VelStreamEngine {
public:
    struct Impl;

    /// @param scenario  what is done with the canvas; 0 to 3 make start() do nothing.
    explicit VelStreamEngine(ScenarioType scenario);
    /// Not before start() has returned.
    ~VelStreamEngine();
    VelStreamEngine(const VelStreamEngine&) = delete;
    VelStreamEngine& operator=(const VelStreamEngine&) = delete;

    /// Does nothing: a composition delivers no frames to the application.
    void set_callback(TaskType type, std::function<int8_t(const Image&)>& callback);

    /**
     * Records one task; tasks add up, and those of a main output or a model replace the one before. All values are
     * texts, numbers in base 10. They go into a launch description as they are: no quotes, and in addresses and paths
     * no blanks.
     *
     * Required, then optional parameters:
     * - TASK_ADD_INPUT, four times, for an RTSP camera: "subStreamId", "inputType", "inputAddr" (its URL),
     *   "decodeType", "width", "height"; then "position" ("<0, 0>", the place on the canvas), "dimensions"
     *   ("<1920, 1080>", the size there), "crop" ("x,y,w,h" of the camera's picture), "flip-horizontal",
     *   "flip-vertical" ("true"). The first input's codec ("H265", else H.264) is that of all inputs and outputs, its
     *   size the canvas's, rounded down to even numbers.
     * - TASK_ADD_OUTPUT: "subStreamId", "outputType" ("File", or anything else for an RTSP push), "outputAddr" (path or
     *   URL), "encodeType", "width", "height"; then "overlay_switch", a picture: "logo_path", "logo_width",
     *   "logo_height", "logo_loc_x", "logo_loc_y", "logo_loc_width", "logo_loc_height", and a text: "text_str",
     *   "text_loc_x", "text_loc_y", "text_font_size", "text_color" ("0xFF0000FF", red, green, blue, opacity). Of two
     *   outputs of a kind the later counts.
     * - TASK_SET_MAIN_OUTPUT: "outputType", "outputAddr", "encodeType"; then "width", "height". Recorded, not used.
     * - TASK_SET_MODEL: "Model" (path), "MlModule", "Labels" (path).
     *
     * @param params  borrowed for the call, not changed.
     * @return 0 recorded; -1 not: a required parameter is missing, or a kind that takes no task.
     * @throws std::invalid_argument, std::out_of_range a number is none or too large; nothing is recorded then.
     */
    int add_task(TaskType type, std::unordered_map<std::string, std::string>& params);

    /// Composes what the tasks say and blocks until that ends: by stop(), once all cameras have ended, or when one or
    /// an output fails, which the log names. Can be called again. @return 0, always.
    int start();

    /// Ends the process's composition and waits, at most 2.5 s, until what it writes is complete; start() returns
    /// within a second of that. With nothing running it does nothing. Callable from any thread, not from a signal
    /// handler. @return 0.
    int stop();

private:
    std::unique_ptr<Impl> impl_;
};

/// Always -1, whatever is running.
int get_stream_status();

/// Sets the level of this library's log.
void set_log_level(GSTLogLevel level);

/// Directs this library's log into the file at `path`.
void clogger(const char* path);

} // namespace Quorvis::VelStream

/**
 * Writes the local time onto a frame in place, in red on RGB: "2024-01-02 03:04:05.067", base line at x 20, y 50.
 * @param frame  height rows of width pixels, 3 bytes a pixel, no padding; not null.
 */
void draw_timestamp(unsigned char* frame, int width, int height);

/**
 * Lays a picture over a frame in place. A pixel of the picture with any channel above 240, as white has, is
 * transparent.
 * @param frame,picture  height rows of width pixels, 3 bytes a pixel, no padding, both in the same order of channels.
 *                       Null, or a width or height of 0 and less: nothing happens.
 */
void draw_picture(unsigned char* frame, unsigned char* picture, int width, int height);
