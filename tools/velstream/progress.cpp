#include "progress.h"

#include <cstdio>

namespace velstream::tool {

namespace {

constexpr double kSilence = 3.0; // seconds without a frame that are worth a word

} // namespace

std::string describe(const StreamSession& session)
{
    char text[128];
    if (!session.has_callback()) return session.id() + ": recording";
    std::snprintf(text, sizeof text, ": %llu frames, %dx%d, %.1f frames/s",
                  static_cast<unsigned long long>(session.frames()), session.width(), session.height(), session.rate());
    std::string line = session.id() + text;
    if (session.has_callback() && !session.is_ended() && session.silent_seconds() > kSilence) {
        std::snprintf(text, sizeof text, ", no frame for %.0f s", session.silent_seconds());
        line += text;
    }
    return line;
}

std::string describe(const Sessions& sessions)
{
    std::string line;
    for (const auto& session : sessions)
        line += (line.empty() ? "" : "  |  ") + describe(*session);
    return line;
}

} // namespace velstream::tool
