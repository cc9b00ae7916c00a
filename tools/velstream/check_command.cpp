#include "check_command.h"

#include "elements.h"
#include "findings.h"
#include "stream_kind.h"

#include <algorithm>
#include <cstdio>

namespace velstream::tool {

namespace {

struct Report {
    const Configuration& configuration;
    std::vector<StreamEntry> streams;
    Findings findings;
};

/// The rules say more than the schema where both have something to say of the same value.
void add_rules(Findings& findings, const Findings& rules)
{
    for (const Finding& rule : rules) {
        std::erase_if(findings, [&rule](const Finding& known) { return known.path == rule.path; });
    }
    findings.insert(findings.end(), rules.begin(), rules.end());
}

std::string joined(const std::vector<std::string>& names)
{
    std::string text;
    for (const std::string& name : names)
        text += (text.empty() ? "" : " ") + name;
    return text;
}

std::string counted(std::size_t number, const char* what)
{
    return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

/// Of the stream started by itself and, where it has a second half, of both started together.
std::vector<std::string> all_needed_elements(const StreamEntry& stream, const std::vector<StreamEntry>& streams)
{
    std::vector<std::string> names = needed_elements(stream, build_platform());
    if (!is_half_of_split(stream, streams)) return names;
    for (const std::string& name : needed_split_elements(stream, build_platform())) {
        if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
    }
    return names;
}

void add_missing_elements(const StreamEntry& stream, const std::vector<StreamEntry>& streams, Findings& findings)
{
    const std::string path = "$.streams[" + std::to_string(stream.index) + "]";
    for (const std::string& name : missing_elements(all_needed_elements(stream, streams)))
        findings.push_back(
            {true, stream.id, path, "needs the element " + name + ", which is missing" + package_hint(name)});
}

/// An entry whose form is not right has been told of by the schema; the rules need its form.
std::vector<StreamEntry> well_formed_streams(const Configuration& configuration, const Findings& findings)
{
    try {
        return streams_of(configuration);
    } catch (const UserError&) {
        if (findings.empty()) throw;
        return {};
    }
}

Report examine(const Configuration& configuration)
{
    Report report{configuration, {}, check_schema(configuration.root)};
    report.streams = well_formed_streams(configuration, report.findings);
    add_rules(report.findings, check_together(report.streams));
    for (const StreamEntry& stream : report.streams) {
        add_rules(report.findings, check_stream(stream, build_platform()));
        add_missing_elements(stream, report.streams, report.findings);
    }
    std::stable_sort(report.findings.begin(), report.findings.end(),
                     [&configuration](const Finding& one, const Finding& other) {
                         return line_of(configuration, one.path) < line_of(configuration, other.path);
                     });
    return report;
}

void print_text(const Report& report)
{
    for (const Finding& finding : report.findings) {
        const std::string stream = finding.stream.empty() ? "" : "stream " + finding.stream + ": ";
        std::printf("%s:%d: %s: %s%s %s\n", report.configuration.path.c_str(),
                    line_of(report.configuration, finding.path), finding.is_error ? "error" : "warning", stream.c_str(),
                    finding.path.c_str(), finding.text.c_str());
    }
    for (const StreamEntry& stream : report.streams) {
        const std::string needed = joined(platform_elements_of(all_needed_elements(stream, report.streams)));
        std::printf("%s: %s; platform elements: %s\n", stream.id.c_str(), describe_road(stream).c_str(),
                    needed.empty() ? "none" : needed.c_str());
    }
}

void print_json(const Report& report)
{
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    for (const Finding& finding : report.findings) {
        Json::Value value;
        value["level"] = finding.is_error ? "error" : "warning";
        value["stream"] = finding.stream;
        value["path"] = finding.path;
        value["line"] = line_of(report.configuration, finding.path);
        value["message"] = finding.text;
        std::printf("%s\n", Json::writeString(writer, value).c_str());
    }
}

} // namespace

int check_configuration(const CheckOptions& options)
{
    const Configuration configuration = read_configuration(options.config);
    choose_elements(options.elements);
    const Report report = examine(configuration);
    const auto errors = static_cast<std::size_t>(std::count_if(
        report.findings.begin(), report.findings.end(), [](const Finding& finding) { return finding.is_error; }));
    const std::size_t warnings = report.findings.size() - errors;
    if (options.is_json)
        print_json(report);
    else {
        print_text(report);
        std::printf("%s for the %s build: %s, %s\n", counted(report.streams.size(), "stream").c_str(),
                    build_platform().c_str(), counted(errors, "error").c_str(), counted(warnings, "warning").c_str());
    }
    return errors > 0 || (options.is_strict && warnings > 0) ? 1 : 0;
}

} // namespace velstream::tool
