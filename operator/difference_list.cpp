#include "difference_list.h"

#include <utility>

#include "text_difference.h"

namespace engine {

std::vector<std::string> properties_that_differ(const FileState &from, const FileState &to)
{
    if (from.kind != to.kind) {
        return {"kind"};
    }
    std::vector<std::string> what;
    const auto add = [&what](bool differs, const char *name) {
        if (differs) {
            what.emplace_back(name);
        }
    };
    const bool is_link = from.kind == MemberKind::link || from.kind == MemberKind::hard_link;
    add(is_link && from.target != to.target, "link");
    if (from.kind != MemberKind::hard_link) {
        add(from.owner != to.owner, "owner");
        add(from.group != to.group, "group");
        add(!is_link && from.mode != to.mode, "mode");
    }
    return what;
}

void DifferenceList::add(const std::string &path, std::optional<FileState> first, std::optional<FileState> second,
                         std::vector<std::string> what, const std::string *first_text, const std::string *second_text)
{
    if (reversed_) {
        std::swap(first, second);
        std::swap(first_text, second_text);
    }
    if (!first || !second) {
        what = {first ? "removed" : "added"};
    }
    FileDifference difference{"/" + path, std::move(first), std::move(second), std::move(what), "", ""};
    if (first_text && second_text && is_compared_text(*first_text) && is_compared_text(*second_text) &&
        texts_ < longest_differences) {
        difference.text = unified_difference(*first_text, *second_text);
        texts_ += difference.text.size();
    }
    found_.insert_or_assign(path, std::move(difference));
}

void DifferenceList::add_problem(const std::string &path, const std::string &problem)
{
    found_[path] = {"/" + path, std::nullopt, std::nullopt, {"problem"}, "", problem};
}

std::vector<FileDifference> DifferenceList::result()
{
    std::vector<FileDifference> all;
    for (auto &[path, difference] : found_) {
        all.push_back(std::move(difference));
    }
    return all;
}

}  // namespace engine
