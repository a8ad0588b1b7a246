#include "shown_result.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "printable.h"
#include "trace_capture.h"

namespace kestactl {
namespace {

constexpr int failure_schema_version = 1;

}  // namespace

std::string shown_result(const Result &result, Form form)
{
    if (form == Form::text) {
        return printable(result.text);
    }
    return dumped({{"schema_version", result.schema_version},
                   {"exit", static_cast<int>(result.exit)},
                   {"result", result.json}},
                  2) +
           "\n";
}

std::string coloured(const std::string &text)
{
    struct Colour {
        std::string_view start;
        const char *code;
    };
    constexpr Colour colours[]{{"!!", "31"}, {"!  ", "31"}, {"@@ ", "36"}, {"+", "32"}, {"-", "31"}};
    std::string result;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size() - 1) + 1;
        const std::string_view line(text.data() + at, end - at);
        const Colour *const colour = std::find_if(std::begin(colours), std::end(colours),
                                                  [line](const Colour &one) { return line.starts_with(one.start); });
        const bool has_newline = line.ends_with('\n');
        const std::string_view bare = line.substr(0, line.size() - has_newline);
        result += colour == std::end(colours)
                      ? std::string(bare)
                      : std::string("\033[") + colour->code + "m" + std::string(bare) + "\033[0m";
        result += has_newline ? "\n" : "";
        at = end;
    }
    return result;
}

std::string shown_failure(const Failure &failure, Form form)
{
    if (form == Form::text) {
        return printable(std::string("kestactl: ") + failure.what() + "\n" + failure.hint() + "\n");
    }
    return dumped({{"schema_version", failure_schema_version},
                   {"error",
                    {{"exit", static_cast<int>(failure.exit())},
                     {"code", failure.code()},
                     {"message", failure.what()},
                     {"hint", failure.hint()},
                     {"traces", captured_errors()}}}},
                  2) +
           "\n";
}

}  // namespace kestactl
