// What is printed with g_print and g_printerr while an object of this class lives.
#pragma once

#include <glib.h>

#include <string>

namespace velstream::testing {

class PrintedText {
public:
    PrintedText()
    {
        out().clear();
        error().clear();
        former_out_ = g_set_print_handler([](const char* text) { out() += text; });
        former_error_ = g_set_printerr_handler([](const char* text) { error() += text; });
    }
    ~PrintedText()
    {
        g_set_print_handler(former_out_);
        g_set_printerr_handler(former_error_);
    }
    PrintedText(const PrintedText&) = delete;
    PrintedText& operator=(const PrintedText&) = delete;

    static std::string& out()
    {
        static std::string text;
        return text;
    }
    static std::string& error()
    {
        static std::string text;
        return text;
    }

private:
    GPrintFunc former_out_;
    GPrintFunc former_error_;
};

} // namespace velstream::testing
