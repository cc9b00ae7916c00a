// A mistake in an application's callback is found, with the suppressions in force: they name what is not the
// application's and must not reach further.
#include "Command.h"
#include "FilePlayback.h"

#include <filesystem>

namespace velstream::testing {

namespace {

class Sanitizer : public Playback {
protected:
    /// Runs this executable again with a fault, in the environment of this test. What it prints goes to one place.
    CommandResult run_with(const std::string& fault) const
    {
        media::MediaSpec spec;
        spec.width = 320;
        spec.height = 180;
        spec.frames = 60;
        const std::string clip = folder_.file("clip.mp4");
        make_video(spec, clip);
        const std::string self = std::filesystem::read_symlink("/proc/self/exe");
        return run_command({"sh", "-c", R"(exec "$0" --fault "$1" "$2" 2>&1)", self, fault, clip});
    }
};

} // namespace

TEST_F(Sanitizer, SaysNothingOfACallbackWithoutFault)
{
    const CommandResult result = run_with("none");
    EXPECT_EQ(result.status, 0) << result.output;
}

TEST_F(Sanitizer, FindsARaceOfTwoCallbacks)
{
    const CommandResult result = run_with("race");
    EXPECT_EQ(result.status, 66) << result.output;
    EXPECT_NE(result.output.find("WARNING: ThreadSanitizer: data race"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("count_without_lock"), std::string::npos) << result.output;
}

} // namespace velstream::testing
