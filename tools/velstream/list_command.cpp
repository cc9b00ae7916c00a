#include "list_command.h"

#include "configuration.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace velstream::tool {

namespace {

using Row = std::array<std::string, 7>;

std::string flags_of(const StreamEntry& stream)
{
    std::string flags;
    for (const char* flag : {"audio", "rollingsave", "saveMp4", "networkPush"}) {
        if (stream.is_set(flag)) flags += (flags.empty() ? "" : ",") + std::string(flag);
    }
    return flags;
}

Row row_of(const StreamEntry& stream)
{
    const std::string codec = stream.text("decodeType");
    Row row{stream.id,
            stream.text("inputType"),
            stream.text("inputAddr"),
            codec.empty() ? "H264" : codec,
            stream.text("outputType"),
            stream.text("outputAddr"),
            flags_of(stream)};
    for (std::string& cell : row) {
        if (cell.empty()) cell = "-"; // every line has as many words as columns
    }
    return row;
}

void print_table(const std::vector<Row>& rows)
{
    std::array<std::size_t, std::tuple_size_v<Row>> widths{};
    for (const Row& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], row[i].size());
    }
    for (const Row& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            line.append(widths[i] - row[i].size() + 2, ' ');
        }
        line.erase(line.find_last_not_of(' ') + 1);
        std::printf("%s\n", line.c_str());
    }
}

void print_json(const std::vector<StreamEntry>& streams)
{
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    for (const StreamEntry& stream : streams) {
        Json::Value value = stream.properties.isNull() ? Json::Value(Json::objectValue) : stream.properties;
        value["stream"] = stream.id;
        std::printf("%s\n", Json::writeString(writer, value).c_str());
    }
}

} // namespace

void list_streams(const std::string& config, bool is_json)
{
    const std::vector<StreamEntry> streams = read_streams(config);
    if (is_json) {
        print_json(streams);
        return;
    }
    std::vector<Row> rows{{"STREAM", "INPUT", "INPUT-ADDRESS", "DECODE", "OUTPUT", "OUTPUT-ADDRESS", "FLAGS"}};
    for (const StreamEntry& stream : streams)
        rows.push_back(row_of(stream));
    print_table(rows);
}

} // namespace velstream::tool
