// Any NV image, contents of the system backup area, files and command outputs, through each verb
// that reads: it answers or refuses, in a printable text and in JSON, and leaves nothing open. The
// first byte chooses the verb.
#include <string>
#include <vector>

#include "command_line.h"
#include "contract.h"
#include "fuzzed_appliance.h"
#include "scratch_root.h"
#include "shown_result.h"
#include "trace_capture.h"

using fuzz::require;

namespace {

using Words = std::vector<const char *>;

const std::vector<Words> verbs{
    {"status"},
    {"status", "--archives"},
    {"verify"},
    {"nv", "dump"},
    {"nv", "dump", "--decoded"},
    {"nv", "verify"},
    {"nv", "flags"},
    {"nv", "read", "accept-name"},
    {"nv", "read", "group"},
    {"nv", "read", "wwn", "--from", "sysback"},
    {"nv", "read", "guid", "--from", "memory"},
    {"lock", "check"},
    {"slot", "show"},
    {"slot", "switch", "--dry-run"},
    {"version", "show"},
    {"version", "next", "--dry-run"},
    {"identity", "show"},
    {"identity", "carry", "vpd-to-flash", "--dry-run"},
    {"identity", "carry", "vpd-to-disk", "--dry-run"},
    {"repair", "--dry-run"},
    {"--json", "nv", "dump"},
    {"lock", "clear", "CNT0", "--dry-run"},
    {"restore", "network", "--dry-run"},
    {"accept", "--dry-run"},
};

void perform(Words words)
{
    static kestactl::CommandLine line;
    words.insert(words.begin(), "kestactl");
    words.push_back(nullptr);
    try {
        require(!line.parse(static_cast<int>(words.size()) - 1, words.data()), "no verb");
        const kestactl::Result result = line.action()(line.globals());
        fuzz::require_printable(shown_result(result, kestactl::Form::text));
        fuzz::require_json(shown_result(result, kestactl::Form::json));
    } catch (const engine::Failure &failure) {
        fuzz::require_printable(shown_failure(failure, kestactl::Form::text));
        fuzz::require_json(shown_failure(failure, kestactl::Form::json));
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    engine::withhold_traces();
    fuzz::prepare_appliance();
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    const fuzz::Visit visit;
    fuzz::fill_appliance(data + 1, size - 1);
    const int descriptor = fuzz::next_descriptor();
    perform(verbs[data[0] % verbs.size()]);
    require(fuzz::next_descriptor() == descriptor, "a descriptor is left open");
    fuzz::require_closed();
    return 0;
}
