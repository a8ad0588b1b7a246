// kesta-platform-check: holds the platform's four libraries against what libkesta relies on, and
// says which clause an implementation breaks. It finds the libraries as libkesta does, and needs an
// appliance that nobody else uses meanwhile. NV memory is put back as it was.
#include <iostream>
#include <string>

#include "clause.h"
#include "nv_memory.h"
#include "options.h"
#include "printable.h"
#include "standard_descriptors.h"

namespace {

using namespace platform_check;

Clauses all_clauses()
{
    Clauses all;
    for (const auto &of : {nv_clauses, backup_area_clauses, cluster_clauses, trace_clauses, process_clauses}) {
        for (const Clause &clause : of()) {
            all.push_back(clause);
        }
    }
    return all;
}

// Regions 0 and 2 as they were.
class KeptRegions {
public:
    KeptRegions() : image_(read_nv(0, region_size, image_region)), other_(read_nv(0, region_size, other_region)) {}
    bool put_back() const
    {
        return image_.size() == region_size && other_.size() == region_size && write_nv(0, image_, image_region) == 0 &&
               write_nv(0, other_, other_region) == 0;
    }

private:
    std::string image_;
    std::string other_;
};

int check_all()
{
    const KeptRegions kept;
    const Clauses all = all_clauses();
    int failed = 0;
    for (const Clause &clause : all) {
        const Outcome outcome = in_own_process(clause.check);
        failed += outcome.empty() ? 0 : 1;
        std::cout << (outcome.empty() ? "ok    " : "FAIL  ") << clause.library << ": " << clause.what
                  << (outcome.empty() ? "" : " -- " + engine::printable(outcome)) << std::endl;
    }
    if (!kept.put_back()) {
        std::cout << "FAIL  NV memory could not be put back as it was" << std::endl;
        ++failed;
    }
    std::cout << all.size() << " clauses, " << failed << " broken\n";
    return failed == 0 ? 0 : 1;
}

}  // namespace

// Without memory for its options it ends, as by any other signal.
int main(int argc, char **argv)  // NOLINT(bugprone-exception-escape)
{
    kesta::open_standard_descriptors();
    remember_inherited_descriptors();
    options::Program program("Holds the platform's four libraries against what libkesta relies on.",
                             "kesta-platform-check", "kesta-platform-check " KESTA_VERSION);
    const options::Command command = program.command();
    bool run = false;
    std::string trace_log;
    command.add_flag("--run", run, "Do it: nobody else may use the appliance meanwhile");
    command
        .add_option("--trace-log", trace_log,
                    "The file that traces of level 1 go to, where the platform doesn't keep it open")
        .type_name("FILE");
    command.footer(
        "NV memory is put back as it was. Files named kesta_platform_check stay in the system\n"
        "backup area. Exit codes: 0 all clauses hold, 1 one is broken, 2 wrong usage.");
    if (const auto ended = program.parse(argc, argv)) {
        return options::tell(*ended);
    }
    if (!run) {
        std::cerr << "kesta-platform-check writes NV memory and the system backup area.\n"
                     "Give --run on an appliance that nobody else uses meanwhile.\n";
        return 2;
    }
    set_trace_log(trace_log);
    return check_all();
}
