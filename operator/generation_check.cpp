#include "generation_check.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "generation_entry.h"

namespace engine {
namespace {

GenerationProblem problem(GenerationFault fault, const std::string &sum, const std::string &path,
                          const std::string &text)
{
    return {fault, sum, path, "Generation " + short_sum(sum) + ": " + text};
}

// No problem: it is good.
std::optional<GenerationProblem> problem_of(const GenerationFolder &folder, const Generation &entry)
{
    const std::string path = folder.path_of(archive_name(entry.sha256));
    try {
        const auto sum = folder.checksum_of(archive_name(entry.sha256));
        if (!sum) {
            return problem(GenerationFault::no_file, entry.sha256, path,
                           "its file is gone. The next command that keeps one takes its entry away.");
        }
        if (*sum != entry.sha256) {
            return problem(GenerationFault::damaged, entry.sha256, path,
                           "it is not what was kept. Remove " + path + ": nothing can mend it.");
        }
    } catch (const Failure &failure) {
        return problem(GenerationFault::unreadable, entry.sha256, path,
                       std::string(failure.what()) + " Check the disk of its folder.");
    }
    return std::nullopt;
}

// What is recorded of saved archives. Without it no version is known by its bytes, and verify can tell less.
std::optional<GenerationProblem> problem_of_saved(const GenerationFolder &folder)
{
    const std::string path = folder.path_of(saved_name);
    try {
        const auto text = folder.read(saved_name);
        if (text && !parse_saved(*text).whole) {
            return GenerationProblem{GenerationFault::damaged, "", path,
                                     path +
                                         " is damaged: the versions of archives that were saved here are not all known "
                                         "by their bytes. The next 'kestactl save' writes it anew."};
        }
    } catch (const Failure &failure) {
        return GenerationProblem{GenerationFault::unreadable, "", path,
                                 std::string(failure.what()) +
                                     " So the versions of archives that were saved here are not "
                                     "known by their bytes. Check the disk of its folder."};
    }
    return std::nullopt;
}

}  // namespace

GenerationsCheck check_generations(const GenerationFolder &folder, const std::vector<Generation> &entries)
{
    GenerationsCheck check;
    for (const Generation &entry : entries) {
        if (auto found = problem_of(folder, entry)) {
            check.problems.push_back(std::move(*found));
        } else {
            ++check.good;
            check.bytes += entry.bytes;
        }
    }
    if (auto found = problem_of_saved(folder)) {
        check.problems.push_back(std::move(*found));
    }
    const auto is_listed = [&entries](const std::string &sum) {
        return std::any_of(entries.begin(), entries.end(), [&sum](const Generation &one) { return one.sha256 == sum; });
    };
    for (const std::string &sum : folder.sums_with(archive_suffix)) {
        if (!is_listed(sum)) {
            check.problems.push_back(problem(GenerationFault::no_entry, sum, folder.path_of(archive_name(sum)),
                                             "nothing is noted of it. The next command that keeps one notes it, or "
                                             "leaves it if it is damaged."));
        }
    }
    return check;
}

}  // namespace engine
