// The public header alone, as an application's compiler sees it.
#include "tool_fixture.h"

#include <fstream>
#include <ostream>

namespace {

struct Compiler {
    const char* name;
    const char* standard;
};

/// What a failure is told with.
void PrintTo(const Compiler& compiler, std::ostream* out)
{
    *out << compiler.name << " -std=" << compiler.standard;
}

class PublicHeader : public Tool, public testing::WithParamInterface<Compiler> {};

} // namespace

TEST_P(PublicHeader, CompilesAlone)
{
    const auto [name, standard] = GetParam();
    std::ofstream(folder_ / "alone.cpp") << "#include <velstream.h>\n#include <velstream.h>\n"
                                            "int main() { return Quorvis::VelStream::Image().width; }\n";
    const Output output =
        run_command(std::string(name) + " -fsyntax-only -Wall -Wextra -Wpedantic -Wshadow -Werror -std=" + standard +
                    " -I" SOURCE_FOLDER "/include " + (folder_ / "alone.cpp").string() + " 2>&1");
    EXPECT_EQ(output.status, 0) << output.text;
}

INSTANTIATE_TEST_SUITE_P(All, PublicHeader,
                         testing::Values(Compiler{"g++", "c++17"}, Compiler{"g++", "c++20"},
                                         Compiler{"clang++", "c++17"}, Compiler{"clang++", "c++20"}),
                         [](const auto& test) {
                             return std::string(test.param.name[0] == 'g' ? "Gcc" : "Clang") +
                                    (test.param.standard[4] == '7' ? "17" : "20");
                         });
