// The command-line tool: runs and lists the streams of a configuration file.
#include "configuration.h"
#include "list_command.h"
#include "run_command.h"
#include "velstream.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>

namespace {

constexpr int kBadUsage = 2;

void add_run(CLI::App& app, velstream::tool::RunOptions& options)
{
    CLI::App* run = app.add_subcommand("run", "Run streams until they end, Ctrl+C or a limit");
    run->add_option("ID", options.ids, "Ids of configured streams; each runs on a thread of its own")->required();
    run->add_option("--config", options.config, "Configuration file")->capture_default_str();
    run->add_option("--duration", options.duration, "Stop after this many seconds")->check(CLI::PositiveNumber);
    run->add_option("--frames", options.frames,
                    "Stop once every stream has delivered this many frames or has ended; further frames are not "
                    "counted")
        ->check(CLI::PositiveNumber);
    run->add_option("--snapshot", options.snapshot_folder,
                    "Write PNG files of frames into this folder: the first, then every 30th, 100 at most");
    run->add_flag("--json", options.is_json, "Print one JSON object a stream at the end, and nothing else, on stdout");
    run->add_option("--log-level", options.log_level, "What the library logs on stderr")
        ->check(CLI::IsMember({"info", "warning", "error", "none"}))
        ->capture_default_str();
    run->add_option("--elements", options.elements,
                    "device: the board's elements; software: the ones that come with the library; auto: the board's "
                    "where it has them")
        ->check(CLI::IsMember({"auto", "device", "software"}))
        ->capture_default_str();
    run->footer("Ctrl+C stops all streams, a second one ends the program at once.\n"
                "Exit status: 0 every stream ended well, 1 one failed, 2 wrong usage or configuration.\n"
                "A stream that delivered frames until --duration, --frames or Ctrl+C stopped it ended well, whatever\n"
                "its result: some platforms report a stop, or a file's end, as -1.");
}

} // namespace

int main(int argc, char** argv)
{
    velstream::tool::RunOptions options;
    options.config = Quorvis::VelStream::g_stream_conf_file;
    std::string list_config = options.config;
    bool is_list_json = false;

    CLI::App app{"Runs live video streams and counts their frames."};
    app.set_version_flag("--version", "velstream " VELSTREAM_VERSION);
    app.require_subcommand(1);
    add_run(app, options);
    CLI::App* list = app.add_subcommand("list", "Show the configured streams");
    list->add_option("--config", list_config, "Configuration file")->capture_default_str();
    list->add_flag("--json", is_list_json, "One JSON object a stream");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kBadUsage;
    }

    try {
        if (!list->parsed()) return velstream::tool::run_streams(options);
        velstream::tool::list_streams(list_config, is_list_json);
        return 0;
    } catch (const velstream::tool::UserError& error) {
        std::fprintf(stderr, "velstream: %s\n", error.what());
        return kBadUsage;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "velstream: %s\n", error.what());
        return 1;
    }
}
