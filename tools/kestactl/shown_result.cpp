#include "shown_result.h"

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
