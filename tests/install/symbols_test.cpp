// What the libraries export, against the checked-in lists: a change of the interface shows in a review.
#include "tool_fixture.h"

namespace {

constexpr const char* kHint = "If the interface was to change: ./dev symbols writes the list anew; commit it.";

class Symbols : public Tool {
protected:
    static Output compare(const std::string& library, const std::string& list)
    {
        return run_command("bash -o pipefail -c '" SOURCE_FOLDER "/packaging/symbols.sh " LIBRARY_FOLDER "/" + library +
                           " | diff -U0 " SOURCE_FOLDER "/" + list + " -' 2>&1");
    }
    /// Every exported name of any kind, as nm prints it.
    static Output exported(const std::string& library)
    {
        return run_command("nm --dynamic --defined-only --demangle " LIBRARY_FOLDER "/" + library +
                           " | sed -E 's/^[0-9a-f]+ . //'");
    }
};

} // namespace

TEST_F(Symbols, LibraryExportsItsList)
{
    const Output difference = compare("libvelstream-gst.so", "modules/origin/libvelstream-gst.symbols");
    EXPECT_EQ(difference.status, 0) << difference.text << kHint;
}

TEST_F(Symbols, LogLibraryExportsItsList)
{
    const Output difference = compare("libvelclog.so", "modules/velclog/libvelclog.symbols");
    EXPECT_EQ(difference.status, 0) << difference.text << kHint;
}

TEST_F(Symbols, NothingOfTheStandardLibraryOrJsoncppIsExported)
{
    const Output names = exported("libvelstream-gst.so");
    EXPECT_NE(names.text.find("Quorvis::VelStream::start_stream("), std::string::npos) << names.text;
    for (const std::string& name : lines_of(names.text)) {
        for (const char* foreign : {"std::", "Json::", "__gnu_cxx::", "cv::", "typeinfo for std", "vtable for std"})
            EXPECT_NE(name.rfind(foreign, 0), 0U) << name;
    }
}
