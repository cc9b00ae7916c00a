// An installation under a prefix of its own, and the README's application built against it, both ways.
#include "process.h"
#include "tool_fixture.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;

std::string read_text(const fs::path& path)
{
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

/// The README's first block of a language.
std::string readme_block(const std::string& language)
{
    const std::string readme = read_text(SOURCE_FOLDER "/README.md");
    const std::string opening = "```" + language + "\n";
    const std::size_t start = readme.find(opening);
    if (start == std::string::npos) return "";
    return readme.substr(start + opening.size(), readme.find("```", start + 3) - start - opening.size());
}

/// The README's first command line that begins so, as it stands there.
std::string readme_command(const std::string& beginning)
{
    for (const std::string& line : lines_of(read_text(SOURCE_FOLDER "/README.md"))) {
        if (line.rfind("    " + beginning, 0) == 0) return line.substr(4);
    }
    return "";
}

class Install : public Tool {
protected:
    void SetUp() override
    {
        const Output output =
            run_command(CMAKE_PROGRAM " --install " BUILD_FOLDER " --prefix " + (folder_ / "first").string() + " 2>&1");
        ASSERT_EQ(output.status, 0) << output.text;
        // Nothing may hold on to the place that it was installed to.
        prefix_ = folder_ / "prefix";
        fs::rename(folder_ / "first", prefix_);
        setenv("PKG_CONFIG_PATH", (library_folder() / "pkgconfig").c_str(), 1);
        setenv("GST_REGISTRY", (folder_ / "registry.bin").c_str(), 1);
    }
    /// lib, or lib/x86_64-linux-gnu and the like.
    fs::path library_folder() const
    {
        for (const auto& entry : fs::recursive_directory_iterator(prefix_)) {
            if (entry.path().filename() == "libvelstream-gst.so.1") return entry.path().parent_path();
        }
        return {};
    }
    fs::path application_folder() const { return folder_ / "application"; }
    void write_application() const
    {
        fs::create_directory(application_folder());
        std::ofstream(application_folder() / "app.cpp") << readme_block("cpp");
        std::ofstream(application_folder() / "CMakeLists.txt") << readme_block("cmake");
    }
    Output build(const std::string& command) const
    {
        return run_command("cd " + application_folder().string() + " && CXXFLAGS='" SANITIZER_FLAGS "' " + command +
                           " 2>&1");
    }
    /// Runs it on a clip, until its first frame has come and the user has pressed Enter.
    void expect_frames(const fs::path& application)
    {
        write_clip(60);
        std::string config = read_text(config_);
        config.replace(config.find("\"clip\""), 6, "\"file\"");
        write_config(config);
        const Output plugins = run_command("pkg-config --variable=plugindir velstream-gst");
        setenv("GST_PLUGIN_PATH", lines_of(plugins.text).at(0).c_str(), 1);
        const fs::path keyboard = folder_ / "keyboard";
        ASSERT_EQ(mkfifo(keyboard.c_str(), 0600), 0);
        peers::ChildProcess child(
            {"sh", "-c",
             "exec " + application.string() + " " + config_.string() + " < " + keyboard.string() + " 2>&1"});
        std::ofstream keys(keyboard);
        EXPECT_EQ(child.read_until("first frame: "), "first frame: 642x362");
        keys << std::endl;
        EXPECT_EQ(child.wait(), 0);
    }

    fs::path prefix_;
};

} // namespace

TEST_F(Install, PutsEveryFileInItsPlace)
{
    const fs::path library = library_folder().lexically_relative(prefix_);
    for (const fs::path& path :
         {fs::path("bin/velstream"), fs::path("include/velstream.h"), fs::path("include/velclog.h"),
          library / "libvelstream-gst.so", library / "libvelstream-gst.so.1", library / "libvelclog.so",
          library / "pkgconfig/velstream-gst.pc", library / "cmake/velstream-gst/velstream-gst-config.cmake",
          library / "cmake/velstream-gst/velstream-gst-config-version.cmake",
          library / "velstream-gst/gstreamer-1.0/libgstvelsoftware.so",
          fs::path("share/velstream-gst/conf/velstream-gst.conf"),
          fs::path("share/velstream-gst/conf/velstream-gst.schema.json"),
          fs::path("share/velstream-gst/conf/velstream-compose.schema.json")})
        EXPECT_TRUE(fs::exists(prefix_ / path)) << path;
    const fs::path link = library_folder() / "libvelstream-gst.so";
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ(fs::read_symlink(link), "libvelstream-gst.so.1");
}

TEST_F(Install, LibrariesCarryTheirNames)
{
    const Output library = run_command("readelf -d " + (library_folder() / "libvelstream-gst.so").string());
    EXPECT_NE(library.text.find("soname: [libvelstream-gst.so.1]"), std::string::npos) << library.text;
    EXPECT_NE(library.text.find("Shared library: [libvelclog.so]"), std::string::npos) << library.text;
    const Output log = run_command("readelf -d " + (library_folder() / "libvelclog.so").string());
    EXPECT_NE(log.text.find("soname: [libvelclog.so]"), std::string::npos) << log.text;
}

TEST_F(Install, NoFileNamesTheBuild)
{
    const Output output =
        run_command("grep -rlF -e " BUILD_FOLDER " -e " SOURCE_FOLDER " -e " + (folder_ / "first").string() + " " +
                    (prefix_ / "share").string() + " " + (prefix_ / "include").string() + " " +
                    (library_folder() / "pkgconfig").string() + " " + (library_folder() / "cmake").string());
    EXPECT_EQ(output.text, "");
    for (const fs::path& binary : {prefix_ / "bin/velstream", library_folder() / "libvelstream-gst.so"}) {
        const Output paths = run_command("readelf -d " + binary.string() + " | grep -e RUNPATH -e RPATH");
        EXPECT_EQ(paths.text.find(BUILD_FOLDER), std::string::npos) << paths.text;
    }
}

TEST_F(Install, ToolRunsFromItsPrefix)
{
    write_clip();
    unsetenv("GST_PLUGIN_PATH");
    const std::string tool = (prefix_ / "bin/velstream").string();
    const Output check = run_command(tool + " check -c " + config_.string() + " 2>&1");
    EXPECT_NE(check.text.find("/nonexistent.mp4 cannot be read"), std::string::npos) << check.text;
    EXPECT_EQ(check.status, 1);
    const Output elements = run_command(tool + " elements --elements software");
    const fs::path plugin = library_folder() / "velstream-gst/gstreamer-1.0/libgstvelsoftware.so";
    EXPECT_NE(elements.text.find(plugin.string()), std::string::npos) << elements.text;
    const Output run = run_command(tool + " run clip --json -c " + config_.string());
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(parse_json(run.text)["frames"].asInt(), 20);
}

TEST_F(Install, MissingSchemaIsOneSentence)
{
    write_clip();
    const fs::path schema = prefix_ / "share/velstream-gst/conf/velstream-gst.schema.json";
    fs::remove(schema);
    const Output output = run_command((prefix_ / "bin/velstream").string() + " check -c " + config_.string() + " 2>&1");
    EXPECT_EQ(output.status, 2);
    EXPECT_EQ(output.text,
              "velstream: The schema that configurations are checked against is not installed: Configuration "
              "file " +
                  schema.string() + " cannot be opened: No such file or directory.\n");
}

TEST_F(Install, ReadmeApplicationIsBuiltWithPkgConfigAndRuns)
{
    write_application();
    std::string command = readme_command("g++ ");
    ASSERT_NE(command, "");
    command.replace(0, 3, CXX_PROGRAM " " SANITIZER_FLAGS);
    const Output built = build(command);
    ASSERT_EQ(built.status, 0) << built.text;
    EXPECT_EQ(built.text, "");
    setenv("LD_LIBRARY_PATH", library_folder().c_str(), 1);
    expect_frames(application_folder() / "app");
}

TEST_F(Install, ReadmeApplicationIsBuiltWithTheCMakePackageAndRuns)
{
    write_application();
    const Output built =
        build(CMAKE_PROGRAM " -G Ninja -B build -DCMAKE_CXX_COMPILER=" CXX_PROGRAM " -DCMAKE_PREFIX_PATH=" +
              prefix_.string() + " && " CMAKE_PROGRAM " --build build");
    ASSERT_EQ(built.status, 0) << built.text;
    expect_frames(application_folder() / "build/app");
}

TEST_F(Install, CMakePackageServesADeviceWithItsOwnLoggingLibrary)
{
    write_application();
    const fs::path device = folder_ / "device";
    fs::create_directory(device);
    fs::rename(library_folder() / "libvelclog.so", device / "libvelclog.so");
    setenv("LD_LIBRARY_PATH", device.c_str(), 1);
    const Output built =
        build(CMAKE_PROGRAM " -G Ninja -B build -DCMAKE_CXX_COMPILER=" CXX_PROGRAM " -DCMAKE_PREFIX_PATH=" +
              prefix_.string() + " && " CMAKE_PROGRAM " --build build");
    ASSERT_EQ(built.status, 0) << built.text;
    expect_frames(application_folder() / "build/app");
}

TEST_F(Install, CMakePackageRefusesAnotherMajorVersion)
{
    write_application();
    std::string lists = readme_block("cmake");
    lists.replace(lists.find("velstream-gst REQUIRED"), 22, "velstream-gst 2.0 REQUIRED");
    std::ofstream(application_folder() / "CMakeLists.txt") << lists;
    const Output output = build(CMAKE_PROGRAM " -G Ninja -B build -DCMAKE_PREFIX_PATH=" + prefix_.string());
    EXPECT_NE(output.status, 0);
    EXPECT_NE(output.text.find("version: 1.0.0"), std::string::npos) << output.text;
}
