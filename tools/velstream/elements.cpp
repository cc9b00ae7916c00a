#include "elements.h"

#include "configuration.h"
#include "gst_handles.h"

#include <gst/gst.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>

namespace velstream::tool {

namespace {

namespace fs = std::filesystem;

constexpr const char* kPlugin = "velsoftware";
constexpr const char* kDeviceElement = "qtivtransform"; // every platform's pipelines have it

/// Beside the program, in the build folder and where it is installed; a variable of the environment comes first.
std::string plugin_folder()
{
    if (const char* folder = std::getenv("VELSTREAM_PLUGIN_DIR")) return folder;
    const fs::path prefix = fs::read_symlink("/proc/self/exe").parent_path().parent_path();
    const fs::path installed = prefix / VELSTREAM_PLUGIN_SUBDIR;
    return fs::exists(installed) ? installed : prefix / "lib/velstream-gst/gstreamer-1.0";
}

void put_first_on_plugin_path(const std::string& folder)
{
    const char* others = std::getenv("GST_PLUGIN_PATH");
    const std::string path = others && *others ? folder + ":" + others : folder;
    setenv("GST_PLUGIN_PATH", path.c_str(), 1);
}

/// The software ones may be on the plug-in path of this user's environment; they are no device's.
bool has_device_elements()
{
    GstElementFactory* found = gst_element_factory_find(kDeviceElement);
    if (!found) return false;
    const char* plugin = gst_plugin_feature_get_plugin_name(GST_PLUGIN_FEATURE(found));
    const bool is_device = !plugin || std::strcmp(plugin, kPlugin) != 0;
    gst_object_unref(found);
    return is_device;
}

/// Loading it by name is what makes this process use its answer to "waylandsink" too. Where there is no helper that
/// scans plug-ins, the scan has loaded it already, and the first of its elements does that.
void load_plugin(const std::string& folder)
{
    GstPlugin* plugin = gst_plugin_load_by_name(kPlugin);
    if (!plugin) throw UserError("The software elements are not installed; they were looked for in " + folder + ".");
    gst_object_unref(plugin);
    const handles::ElementPtr first = handles::share(gst_element_factory_make(kDeviceElement, nullptr));
}

} // namespace

void choose_elements(const std::string& choice)
{
    const std::string folder = plugin_folder();
    if (choice == "software") put_first_on_plugin_path(folder);
    gst_init(nullptr, nullptr);
    if (choice == "device" || (choice == "auto" && has_device_elements())) return;
    if (choice == "auto") gst_registry_scan_path(gst_registry_get(), folder.c_str());
    load_plugin(folder);
}

namespace {

std::string text_of(const char* text)
{
    return text ? text : "";
}

} // namespace

ElementState find_element(const std::string& name)
{
    ElementState state{name, "", ""};
    const handles::GstObjectPtr<GstElementFactory> factory(gst_element_factory_find(name.c_str()));
    if (!factory) return state;
    const handles::PluginPtr plugin(gst_plugin_feature_get_plugin(GST_PLUGIN_FEATURE(factory.get())));
    // Without a plug-in it was made in this process, which only the software elements' answer to "waylandsink" is.
    state.plugin = plugin ? text_of(gst_plugin_get_name(plugin.get())) : kPlugin;
    if (plugin) state.file = text_of(gst_plugin_get_filename(plugin.get()));
    return state;
}

const std::vector<std::string>& platform_elements()
{
    static const std::vector<std::string> names{"qtic2vdec",       "qtic2venc",     "qtimlqnn",    "qtimlvconverter",
                                                "qtimlvdetection", "qtivcomposer",  "qtivdec",     "qtivoverlay",
                                                "qtivsplit",       "qtivtransform", "v4l2h264dec", "v4l2h264enc",
                                                "v4l2h265dec",     "v4l2h265enc",   "waylandsink"};
    return names;
}

std::vector<std::string> platform_elements_of(const std::vector<std::string>& names)
{
    std::vector<std::string> found;
    const std::vector<std::string>& known = platform_elements();
    std::copy_if(names.begin(), names.end(), std::back_inserter(found), [&known](const std::string& name) {
        return std::find(known.begin(), known.end(), name) != known.end();
    });
    return found;
}

std::vector<std::string> missing_elements(const std::vector<std::string>& names)
{
    std::vector<std::string> missing;
    std::copy_if(names.begin(), names.end(), std::back_inserter(missing),
                 [](const std::string& name) { return !find_element(name).is_found(); });
    return missing;
}

std::string package_hint(const std::string& name)
{
    static const std::map<std::string, const char*> packages{
        {"aacparse", "gstreamer1.0-plugins-good"},     {"flvdemux", "gstreamer1.0-plugins-good"},
        {"h264parse", "gstreamer1.0-plugins-bad"},     {"h265parse", "gstreamer1.0-plugins-bad"},
        {"jpegdec", "gstreamer1.0-plugins-good"},      {"mp4mux", "gstreamer1.0-plugins-good"},
        {"mpegtsmux", "gstreamer1.0-plugins-bad"},     {"qtdemux", "gstreamer1.0-plugins-good"},
        {"rtmpsrc", "gstreamer1.0-plugins-bad"},       {"rtph264depay", "gstreamer1.0-plugins-good"},
        {"rtph265depay", "gstreamer1.0-plugins-good"}, {"rtpmp4gdepay", "gstreamer1.0-plugins-good"},
        {"rtspclientsink", "gstreamer1.0-rtsp"},       {"rtspsrc", "gstreamer1.0-plugins-good"},
        {"splitmuxsink", "gstreamer1.0-plugins-good"}, {"v4l2src", "gstreamer1.0-plugins-good"},
        {"videobox", "gstreamer1.0-plugins-good"},     {"videoconvert", "gstreamer1.0-plugins-base"},
        {"videorate", "gstreamer1.0-plugins-base"},    {"waylandsink", "gstreamer1.0-plugins-bad"}};
    const auto package = packages.find(name);
    return package == packages.end() ? "" : std::string(" (package ") + package->second + ")";
}

} // namespace velstream::tool
