#include "elements_command.h"

#include "elements.h"

#include <json/json.h>

#include <cstdio>

namespace velstream::tool {

namespace {

void print_json(const ElementState& element)
{
    Json::Value value;
    value["element"] = element.name;
    value["found"] = element.is_found();
    if (element.is_found()) value["plugin"] = element.plugin;
    if (!element.file.empty()) value["file"] = element.file;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    std::printf("%s\n", Json::writeString(writer, value).c_str());
}

void print_row(const ElementState& element)
{
    if (element.is_found())
        std::printf("%-16s found    %s  %s\n", element.name.c_str(), element.plugin.c_str(), element.file.c_str());
    else
        std::printf("%-16s missing\n", element.name.c_str());
}

} // namespace

int show_elements(const std::string& choice, bool is_json)
{
    choose_elements(choice);
    int status = 0;
    for (const std::string& name : platform_elements()) {
        const ElementState element = find_element(name);
        if (is_json)
            print_json(element);
        else
            print_row(element);
        if (!element.is_found()) status = 1;
    }
    return status;
}

} // namespace velstream::tool
