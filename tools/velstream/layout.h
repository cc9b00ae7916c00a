// A layout file: what of four cameras goes where, and where the canvas goes.
#pragma once

#include "findings.h"

#include <string>
#include <unordered_map>
#include <vector>

namespace velstream::tool {

using Task = std::unordered_map<std::string, std::string>;

struct Layout {
    int scenario = 0;
    std::vector<Task> inputs;
    std::vector<Task> outputs;
    Task model; ///< empty when there is none

    bool writes_file() const { return scenario != 7; }
    bool pushes() const { return scenario >= 6; }
    bool detects() const { return scenario != 5; }
    /// Address of the output that counts: the last "File", or the last other one; empty when there is none.
    std::string file() const { return address(true); }
    std::string push() const { return address(false); }

private:
    std::string address(bool is_file) const;
};

/// What is wrong with a layout, the schema's part first.
Findings check_layout(const Json::Value& root);

/// The tasks of a layout without errors, with what may be left out filled in.
Layout read_layout(const Json::Value& root);

/// What the composition is made of.
std::vector<std::string> layout_elements(const Layout& layout);

} // namespace velstream::tool
