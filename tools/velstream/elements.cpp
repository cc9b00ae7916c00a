#include "elements.h"

#include "configuration.h"

#include <gst/gst.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

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

/// Loading it by name is what makes this process use its answer to "waylandsink" too.
void load_plugin(const std::string& folder)
{
    GstPlugin* plugin = gst_plugin_load_by_name(kPlugin);
    if (!plugin) throw UserError("The software elements are not installed; they were looked for in " + folder + ".");
    gst_object_unref(plugin);
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

} // namespace velstream::tool
