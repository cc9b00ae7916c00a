// The command-line tool: checks, lists and runs the streams of a configuration file.
#include "check_command.h"
#include "compose_command.h"
#include "configuration.h"
#include "elements_command.h"
#include "list_command.h"
#include "merge_command.h"
#include "record_command.h"
#include "run_command.h"
#include "splice_command.h"
#include "velstream.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr int kBadUsage = 2;

/// What the command line asks for; its result is the exit status.
using Action = std::function<int()>;

void add_config(CLI::App& command, std::string& config)
{
    config = Quorvis::VelStream::g_stream_conf_file;
    command.add_option("-c,--config", config, "Configuration file")->capture_default_str()->type_name("FILE");
}

void add_elements_choice(CLI::App& command, std::string& choice)
{
    command
        .add_option("--elements", choice,
                    "device: the board's elements; software: the ones that come with the library; auto: the board's "
                    "where it has them, else software")
        ->check(CLI::IsMember({"auto", "device", "software"}))
        ->capture_default_str();
}

/// What running streams takes, beside their ids.
void add_run_options(CLI::App& command, velstream::tool::RunOptions& options)
{
    add_config(command, options.config);
    command.add_option("--duration", options.duration, "Stop after this many seconds")
        ->check(CLI::PositiveNumber)
        ->type_name("SECONDS");
    command
        .add_option("--frames", options.frames,
                    "Stop once every stream has delivered this many frames or has ended; further frames are not "
                    "counted")
        ->check(CLI::PositiveNumber)
        ->type_name("N");
    command
        .add_option("--snapshot", options.snapshot_folder,
                    "Write PNG files of frames into this folder: the first, then every 30th, 100 at most")
        ->type_name("FOLDER");
    command.add_flag("--draw-time", options.drawing.has_time, "Draw the time on every frame");
    command
        .add_option("--draw-picture", options.drawing.picture,
                    "Lay a PNG file over every frame, at the top left; what is white or transparent in it is clear")
        ->type_name("FILE");
    command.add_flag("--json", options.is_json,
                     "Print one JSON object a stream at the end, and nothing else, on stdout");
    command.add_option("--log-level", options.log_level, "What the library logs on stderr")
        ->check(CLI::IsMember({"info", "warning", "error", "none"}))
        ->capture_default_str();
    add_elements_choice(command, options.elements);
}

void add_run(CLI::App& app, Action& action)
{
    auto options = std::make_shared<velstream::tool::RunOptions>();
    CLI::App* run = app.add_subcommand("run", "Run streams until they end, Ctrl+C or a limit");
    run->add_option("ID", options->ids, "Ids of configured streams; each runs on a thread of its own")->required();
    add_run_options(*run, *options);
    run->footer(
        "Examples:\n"
        "  velstream run camera                        until Ctrl+C, with the installed configuration\n"
        "  velstream run camera file -c my.conf --duration 10 --snapshot /tmp/pictures\n"
        "  velstream run camera --frames 100 --json    for a script\n"
        "  velstream run camera --draw-time --draw-picture logo.png\n"
        "\n"
        "What is drawn is shown, pushed, recorded and in the snapshots. Streams with \"saveMp4\" or \"networkPush\" "
        "have\n"
        "nothing but it, on grey.\n"
        "\n"
        "Ctrl+C (or SIGTERM) stops all streams, a second one ends the program at once.\n"
        "\n"
        "Exit status: 0 every stream ended well, 1 one failed, 2 nothing was started: wrong usage or configuration,\n"
        "or an element is missing.\n"
        "A stream that delivered frames until --duration, --frames or Ctrl+C stopped it ended well, whatever\n"
        "its result: some platforms report a stop, or a file's end, as -1. One that was stopped before its\n"
        "first frame failed.");
    run->callback([options, &action] { action = [options] { return velstream::tool::run_streams(*options); }; });
}

void add_split(CLI::App& app, Action& action)
{
    auto options = std::make_shared<velstream::tool::RunOptions>();
    options->is_split = true;
    CLI::App* split = app.add_subcommand("split", "Run two streams of one camera, which is decoded once");
    split->add_option("ID", options->ids, "Ids of the two entries: one \"pStreamId\", one input, an output each")
        ->required()
        ->expected(2)
        ->type_name("ID1 ID2");
    add_run_options(*split, *options);
    split->footer(
        "Examples:\n"
        "  velstream split split-shown split-pushed             until Ctrl+C\n"
        "  velstream split one two -c my.conf --frames 100 --json\n"
        "\n"
        "The camera speaks RTSP and sends H.264. Whatever ends one half, ends the other.\n"
        "\n"
        "Exit status: 0 both ended well, 1 not so, 2 nothing was started: wrong usage or configuration, or an\n"
        "element is missing. \"velstream run --help\" says when a stream ended well.");
    split->callback([options, &action] { action = [options] { return velstream::tool::run_streams(*options); }; });
}

void add_list(CLI::App& app, Action& action)
{
    auto config = std::make_shared<std::string>();
    auto is_json = std::make_shared<bool>(false);
    CLI::App* list = app.add_subcommand("list", "Show the configured streams");
    add_config(*list, *config);
    list->add_flag("--json", *is_json, "One JSON object a stream");
    list->footer("Examples:\n"
                 "  velstream list -c my.conf\n"
                 "  velstream list --json | jq -r .stream\n"
                 "\n"
                 "Exit status: 0 shown, 2 wrong usage or configuration.");
    list->callback([=, &action] {
        action = [=] {
            velstream::tool::list_streams(*config, *is_json);
            return 0;
        };
    });
}

void add_check(CLI::App& app, Action& action)
{
    auto options = std::make_shared<velstream::tool::CheckOptions>();
    CLI::App* check = app.add_subcommand("check", "Say what is wrong with a configuration file");
    add_config(*check, options->config);
    check->add_flag("--strict", options->is_strict, "Warnings count as errors");
    check->add_flag("--json", options->is_json, "One JSON object a finding");
    add_elements_choice(*check, options->elements);
    check->footer("Checks the file against its schema, then each stream: what keeps it from starting, which keys have\n"
                  "no effect, which elements it needs and which of them are missing. Nothing is started.\n"
                  "\n"
                  "Examples:\n"
                  "  velstream check -c my.conf\n"
                  "  velstream check -c my.conf --elements device --strict\n"
                  "\n"
                  "Exit status: 0 no error, 1 an error (with --strict: or a warning), 2 wrong usage, or a file that\n"
                  "cannot be read or is not JSON.");
    check->callback(
        [options, &action] { action = [options] { return velstream::tool::check_configuration(*options); }; });
}

void add_elements(CLI::App& app, Action& action)
{
    auto choice = std::make_shared<std::string>("auto");
    auto is_json = std::make_shared<bool>(false);
    CLI::App* elements = app.add_subcommand("elements", "Show which of the platform's elements are there");
    elements->add_flag("--json", *is_json, "One JSON object an element");
    add_elements_choice(*elements, *choice);
    elements->footer("Lists every element that a platform brings along, found or missing, and its plug-in.\n"
                     "\"velstream check\" says which of them a stream needs.\n"
                     "\n"
                     "Examples:\n"
                     "  velstream elements\n"
                     "  velstream elements --elements device    is this the board, and is it complete?\n"
                     "\n"
                     "Exit status: 0 all are there, 1 one is missing, 2 wrong usage.");
    elements->callback([=, &action] { action = [=] { return velstream::tool::show_elements(*choice, *is_json); }; });
}

void add_splice(CLI::App& app, Action& action)
{
    auto options = std::make_shared<velstream::tool::SpliceOptions>();
    CLI::App* splice = app.add_subcommand("splice", "Push a file of raw H.265 into the splice decoder, unit by unit");
    splice->add_option("FILE", options->file, "H.265 byte stream with start codes (Annex B)")->required();
    splice->add_option("--fps", options->fps, "Pictures a second: the time stamps that the units are pushed with")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    splice
        ->add_option("--snapshot", options->snapshot_folder,
                     "Write PNG files of frames into this folder: the first, then every 30th, 100 at most")
        ->type_name("FOLDER");
    splice->add_flag("--json", options->is_json, "Print one JSON object at the end, and nothing else, on stdout");
    add_elements_choice(*splice, options->elements);
    splice->footer("Examples:\n"
                   "  velstream splice camera.h265 --snapshot /tmp/pictures\n"
                   "  velstream splice camera.h265 --fps 30 --json\n"
                   "\n"
                   "Exit status: 0 every unit was pushed and frames came out, 1 not so, 2 wrong usage or a file that\n"
                   "cannot be read.");
    splice->callback([options, &action] { action = [options] { return velstream::tool::splice_file(*options); }; });
}

void add_record(CLI::App& app, Action& action)
{
    auto options = std::make_shared<velstream::tool::RecordOptions>();
    CLI::App* record = app.add_subcommand("record", "Keep a camera's newest 200 seconds on the disk");
    record->add_option("ID", options->id, "Id of a configured RTSP camera")->required();
    add_config(*record, options->config);
    record->add_option("--duration", options->duration, "Stop after this many seconds")
        ->check(CLI::PositiveNumber)
        ->type_name("SECONDS");
    CLI::Option* restart =
        record->add_flag("--restart", options->is_restarting,
                         "Begin again when the camera has gone away, after 1, 2, 4, ... 30 s; earlier segments are set "
                         "aside");
    record
        ->add_option("--stall-timeout", options->stall_timeout,
                     "With --restart, begin again when nothing was written for this many seconds")
        ->needs(restart)
        ->check(CLI::PositiveNumber)
        ->type_name("SECONDS")
        ->capture_default_str();
    record->add_flag("--json", options->is_json, "Print one JSON object at the end, and nothing else, on stdout");
    record->add_option("--log-level", options->log_level, "What the library logs on stderr")
        ->check(CLI::IsMember({"info", "warning", "error", "none"}))
        ->capture_default_str();
    add_elements_choice(*record, options->elements);
    record->footer(
        "Writes 2-second segments into /tmp/rolling/ID/, 00000.mp4 to 00099.mp4, which are then used again; nothing "
        "is\n"
        "decoded. A new recording deletes the segments of the last one. With --restart it moves them into the folder\n"
        "/tmp/rolling/ID/earlier-DATE-TIME first; the newest 100 of those stay. \"velstream merge\" joins segments.\n"
        "\n"
        "Examples:\n"
        "  velstream record camera                  until Ctrl+C, which completes the last segment\n"
        "  velstream record camera --restart        for weeks\n"
        "  velstream record camera --duration 60 --json\n"
        "\n"
        "Exit status: 0 it recorded until it was stopped, or to the end of the stream, 1 nothing was recorded or the\n"
        "camera went away (without --restart), 2 wrong usage or configuration, or an element is missing.");
    record->callback([options, &action] { action = [options] { return velstream::tool::record_stream(*options); }; });
}

void add_merge(CLI::App& app, Action& action)
{
    struct MergeOptions {
        std::string id;
        std::vector<std::string> words;
    };
    auto options = std::make_shared<MergeOptions>();
    CLI::App* merge = app.add_subcommand("merge", "Join segments of a recording into one MP4 file");
    merge->add_option("ID", options->id, "Id of the recorded stream")->required();
    const auto hand_on = [&](const char* names, const std::string& word, const char* help, const char* type) {
        merge
            ->add_option_function<std::string>(
                names, [options, word](const std::string& value) { options->words.push_back(word + "=" + value); },
                help)
            ->type_name(type);
    };
    hand_on("--last", "--last", "The newest segments, so long together", "SECONDS");
    hand_on("--start", "--start", "From the segment with this time on: 2026-11-21T14:05:00, or 14:05:00 today", "TIME");
    hand_on("--end", "--end", "Up to the segment with this time", "TIME");
    hand_on("-o,--output", "--output", "The joined file (/tmp/rolling/ID_DATE-TIME.mp4)", "FILE");
    hand_on("--dir", "--dir", "Where the segments are (/tmp/rolling/ID)", "FOLDER");
    merge->add_flag_callback(
        "--overwrite", [options] { options->words.emplace_back("--overwrite"); }, "Replace an output that is there");
    merge->add_flag_callback(
        "--json", [options] { options->words.emplace_back("--json"); }, "Print one JSON object");
    merge->footer(
        "Runs concate_video.py, which needs python3 and ffmpeg. Whole segments are taken, and nothing is encoded\n"
        "again. A segment that is being written or is broken is left out, and named on standard error.\n"
        "\n"
        "Examples:\n"
        "  velstream merge camera --last 30 -o /var/tmp/event.mp4\n"
        "  velstream merge camera --start 14:05:00 --end 14:06:30 --json\n"
        "\n"
        "Exit status: 0 joined, 1 not joined, 2 wrong usage, 3 there was nothing to join.");
    merge->callback([options, &action] {
        action = [options] { return velstream::tool::merge_segments(options->id, options->words); };
    });
}

void add_compose(CLI::App& app, Action& action)
{
    auto options = std::make_shared<velstream::tool::ComposeOptions>();
    CLI::App* compose = app.add_subcommand("compose", "Put four cameras on one canvas, record and push it");
    compose->add_option("LAYOUT", options->layout, "JSON file: scenario, inputs, outputs, model")->required();
    compose->add_option("--duration", options->duration, "Stop after this many seconds")
        ->check(CLI::PositiveNumber)
        ->type_name("SECONDS");
    compose->add_flag("--check", options->is_check, "Say what is wrong with the layout and start nothing");
    compose->add_flag("--json", options->is_json, "Print one JSON object at the end, and nothing else, on stdout");
    compose->add_option("--log-level", options->log_level, "What the library logs on stderr")
        ->check(CLI::IsMember({"info", "warning", "error", "none"}))
        ->capture_default_str();
    add_elements_choice(*compose, options->elements);
    compose->footer("Scenarios: 4 recorded, with logo, text and detection; 5 recorded plainly; 6 recorded and "
                    "pushed; 7 pushed.\n"
                    "\n"
                    "Examples:\n"
                    "  velstream compose layout.json                   until Ctrl+C\n"
                    "  velstream compose layout.json --duration 30 --json\n"
                    "  velstream compose layout.json --check\n"
                    "\n"
                    "A file that is there already is replaced. Ctrl+C (or SIGTERM) stops and completes it, a "
                    "second one ends the\n"
                    "program at once.\n"
                    "\n"
                    "Exit status: 0 it ran until it was stopped or its cameras ended, 1 it failed, 2 nothing was "
                    "started: wrong\n"
                    "usage or layout, or an element is missing.");
    compose->callback([options, &action] { action = [options] { return velstream::tool::compose(*options); }; });
}

} // namespace

int main(int argc, char** argv)
{
    Action action;
    CLI::App app{"Runs live video streams from a configuration file and counts their frames."};
    app.set_version_flag("--version", "velstream " VELSTREAM_VERSION);
    app.require_subcommand(1);
    app.footer("\"velstream COMMAND --help\" has examples and exit statuses.");
    add_run(app, action);
    add_split(app, action);
    add_list(app, action);
    add_check(app, action);
    add_elements(app, action);
    add_splice(app, action);
    add_record(app, action);
    add_merge(app, action);
    add_compose(app, action);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kBadUsage;
    }

    try {
        return action();
    } catch (const velstream::tool::UserError& error) {
        std::fprintf(stderr, "velstream: %s\n", error.what());
        return kBadUsage;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "velstream: %s\n", error.what());
        return 1;
    }
}
