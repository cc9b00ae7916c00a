// The rules that a schema cannot say: what the library does with an entry as a whole.
#include "findings.h"
#include "stream_kind.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>

#include <unistd.h>

namespace velstream::tool {

namespace {

class Rules {
public:
    Rules(const StreamEntry& stream, const std::string& platform) : stream_(stream), platform_(platform) {}
    Findings run();

private:
    void error(const char* key, const std::string& text) { add(true, key, text); }
    void warn(const char* key, const std::string& text) { add(false, key, text); }
    void add(bool is_error, const char* key, const std::string& text);

    void check_kind();
    void check_input();
    void check_url(const char* key, const std::string& scheme);
    void check_folder(const char* key);
    void check_output();
    void check_audio_relay();
    void check_rolling();
    void check_reencoder(StreamKind kind);
    void warn_of_lone_keys();
    void warn_of_h264_only(const char* what);

    const StreamEntry& stream_;
    const std::string& platform_;
    Findings findings_;
};

std::string quoted(const std::string& text)
{
    return "\"" + text + "\"";
}

void Rules::add(bool is_error, const char* key, const std::string& text)
{
    std::string path = "$.streams[" + std::to_string(stream_.index) + "].properties";
    if (*key) path += std::string(".") + key;
    findings_.push_back({is_error, stream_.id, path, text});
}

Findings Rules::run()
{
    check_kind();
    warn_of_lone_keys();
    return findings_;
}

void Rules::check_kind()
{
    const StreamKind kind = kind_of(stream_);
    if (kind == StreamKind::SaveMp4 || kind == StreamKind::NetworkPush) return check_reencoder(kind);
    if (!stream_.has("inputType")) return error("", "has no \"inputType\"");
    if (kind == StreamKind::Splice) return;
    if (!stream_.has("inputAddr")) return error("", "has no \"inputAddr\"");
    if (kind == StreamKind::None)
        return error("inputType", quoted(stream_.text("inputType")) +
                                      " is none of \"file\", \"rtsp\", \"rtmp\", \"usbcam\", \"splice\"");
    check_input();
    if (kind == StreamKind::AudioRelay) return check_audio_relay();
    if (kind == StreamKind::Rolling) return check_rolling();
    check_output();
}

void Rules::check_input()
{
    const std::string type = stream_.text("inputType");
    const std::string address = stream_.text("inputAddr");
    if (!stream_.properties["inputAddr"].isString()) return error("inputAddr", "is no string");
    if (type == "rtsp" || type == "rtmp") check_url("inputAddr", type);
    if (type == "file" && access(address.c_str(), R_OK) != 0)
        error("inputAddr", address + " cannot be read: " + std::strerror(errno));
    if (type == "rtmp" && stream_.codec("decodeType") == "H265")
        error("decodeType", "\"H265\" does not come over RTMP: the FLV demuxer knows no H.265");
    if (type == "usbcam" && (stream_.number("width") <= 0 || stream_.number("height") <= 0))
        error("", "needs \"width\" and \"height\" for a USB camera");
}

void Rules::check_url(const char* key, const std::string& scheme)
{
    const std::string address = stream_.text(key);
    const std::size_t end = address.find("://");
    if (end == std::string::npos || address.compare(0, scheme.size(), scheme) != 0 || end > scheme.size() + 1)
        error(key, quoted(address) + " is no " + scheme + ":// address");
}

void Rules::check_folder(const char* key)
{
    const std::filesystem::path folder = std::filesystem::path(stream_.text(key)).parent_path();
    std::error_code ignored;
    if (!folder.empty() && !std::filesystem::is_directory(folder, ignored))
        error(key, stream_.text(key) + " lies in a folder that does not exist");
}

void Rules::check_output()
{
    const std::string type = stream_.text("outputType");
    if (type == "rtmp") return error("outputType", "\"rtmp\" cannot be started from a configuration file");
    if (!stream_.has_output()) return;
    if (type == "rtsp") check_url("outputAddr", "rtsp");
    if (type != "mp4") return;
    warn_of_h264_only("an MP4 file");
    if (stream_.text("outputAddr").empty()) return error("outputAddr", "is empty: an MP4 file needs its path");
    if (stream_.text("inputType") == "file" && stream_.text("inputAddr") == stream_.text("outputAddr"))
        return error("outputAddr", "is the input file, which would be written over");
    check_folder("outputAddr");
}

void Rules::warn_of_h264_only(const char* what)
{
    if (stream_.codec("encodeType") == "H265")
        warn("encodeType", std::string("has no effect: ") + what + " is always H.264");
}

void Rules::check_audio_relay()
{
    const std::string input = stream_.text("inputType");
    if (input != "rtsp" && input != "file")
        return error("inputType",
                     quoted(input) + " cannot be relayed with \"audio\", which takes \"rtsp\" and \"file\"");
    if (!stream_.has_output() || stream_.text("outputType") != "rtsp")
        return error("outputType", "must be \"rtsp\", with its \"outputAddr\", for a relay with \"audio\"");
    check_url("outputAddr", "rtsp");
    if (input == "file" && stream_.codec("decodeType") == "H265")
        error("decodeType", "\"H265\" is not relayed from a file: \"audio\" takes H.264 there");
    if (input == "rtsp" && platform_ == "v4l2" && stream_.codec("decodeType") == "H265")
        error("decodeType", "\"H265\" is not relayed in the v4l2 build, whose encoder here is for H.264");
    if (input == "rtsp") warn("audio", "from an RTSP source links the sound only: its video stays unlinked");
}

void Rules::check_rolling()
{
    const std::string input = stream_.text("inputType");
    if (input != "rtsp" && input != "file")
        return error("inputType",
                     quoted(input) + " cannot be recorded with \"rollingsave\", which takes \"rtsp\" and \"file\"");
    if (input == "file" && platform_ == "ub2404")
        return error("rollingsave", "records from \"rtsp\" only in the ub2404 build");
    if (input == "file" && stream_.codec("decodeType") == "H265")
        return error("rollingsave", "records a file as H.264 only");
    if (stream_.has("outputType")) warn("outputType", "has no effect: a rolling recording has no other output");
}

void Rules::check_reencoder(StreamKind kind)
{
    if (stream_.number("width") <= 0 || stream_.number("height") <= 0)
        error("", "needs \"width\" and \"height\" above 0");
    if (kind == StreamKind::SaveMp4) {
        if (stream_.has("outputFile")) check_folder("outputFile");
    } else {
        if (stream_.number("fps") <= 0) error("", "needs \"fps\" above 0 for \"networkPush\"");
        if (stream_.has("outputAddr"))
            check_url("outputAddr", "rtsp");
        else
            error("", "needs \"outputAddr\", an rtsp:// address, for \"networkPush\"");
    }
    warn_of_h264_only("what the application draws");
}

/// Keys that count only beside another one.
void Rules::warn_of_lone_keys()
{
    static constexpr const char* kPairs[][2] = {{"width", "height"}, {"outputType", "outputAddr"}};
    const StreamKind kind = kind_of(stream_);
    for (const auto& [one, other] : kPairs) {
        // A push has an address and no type.
        if (kind == StreamKind::SaveMp4 || kind == StreamKind::NetworkPush) continue;
        if (stream_.has(one) && !stream_.has(other))
            warn(one, std::string("counts only together with ") + quoted(other));
        if (!stream_.has(one) && stream_.has(other))
            warn(other, std::string("counts only together with ") + quoted(one));
    }
    for (const char* key : {"saveMp4", "networkPush"}) {
        if (stream_.is_set(key) && (!stream_.has("width") || !stream_.has("height")))
            warn(key, "counts only together with \"width\" and \"height\"");
    }
}

std::string entry_path(const StreamEntry& stream, const char* key)
{
    return "$.streams[" + std::to_string(stream.index) + "]." + key;
}

bool has_same_source(const StreamEntry& one, const StreamEntry& other)
{
    return one.text("inputType") == other.text("inputType") && one.text("inputAddr") == other.text("inputAddr") &&
           one.codec("decodeType") == other.codec("decodeType");
}

bool is_split_source(const StreamEntry& stream)
{
    return stream.text("inputType") == "rtsp" && stream.codec("decodeType") == "H264";
}

/// Two entries with one parent are made for start_split_stream().
void check_pair(const StreamEntry& first, const StreamEntry& second, Findings& findings)
{
    const std::string path = entry_path(second, "pStreamId");
    if (!has_same_source(first, second))
        findings.push_back({true, second.id, path,
                            quoted(second.parent) + " is shared with stream " + first.id +
                                ", but \"inputType\", \"inputAddr\" and \"decodeType\" are not the same"});
    else if (!is_split_source(second))
        findings.push_back(
            {false, second.id, path,
             quoted(second.parent) + " is no source for a split stream, which reads RTSP with H.264 only"});
}

} // namespace

Findings check_stream(const StreamEntry& stream, const std::string& platform)
{
    return Rules(stream, platform).run();
}

Findings check_together(const std::vector<StreamEntry>& streams)
{
    Findings findings;
    std::map<std::string, const StreamEntry*> ids;
    std::map<std::string, const StreamEntry*> parents;
    for (const StreamEntry& stream : streams) {
        if (!ids.emplace(stream.id, &stream).second)
            findings.push_back({false, stream.id, entry_path(stream, "streamsId"),
                                quoted(stream.id) + " is given twice: only the first entry with an id is ever read"});
        if (stream.parent.empty() || kind_of(stream) != StreamKind::Ordinary) continue;
        const auto [first, is_new] = parents.emplace(stream.parent, &stream);
        if (!is_new) check_pair(*first->second, stream, findings);
    }
    return findings;
}

void refuse_unlike_pair(const StreamEntry& first, const StreamEntry& second)
{
    const std::string pair = "Streams " + first.id + " and " + second.id;
    for (const StreamEntry* stream : {&first, &second}) {
        if (kind_of(*stream) != StreamKind::Ordinary)
            throw UserError("Stream " + stream->id + " is no stream of a camera.");
    }
    if (first.parent != second.parent || first.parent == "empty_p")
        throw UserError(pair + " have not the same \"pStreamId\".");
    if (!has_same_source(first, second))
        throw UserError(pair + " have not the same \"inputType\", \"inputAddr\" and \"decodeType\".");
    if (!is_split_source(first)) throw UserError(pair + " cannot be split: that takes RTSP with H.264.");
}

void refuse_errors(const Findings& findings)
{
    for (const Finding& finding : findings) {
        if (!finding.is_error) continue;
        const std::string key = finding.path.substr(finding.path.find_last_of('.') + 1);
        const std::string subject = key == "properties" ? " " : ": " + quoted(key) + " ";
        throw UserError("Stream " + finding.stream + subject + finding.text + ".");
    }
}

} // namespace velstream::tool
