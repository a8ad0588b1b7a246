// A side that is an archive is read first, and each member compared with the other side while it passes. What the other
// side has besides is looked for afterwards. Of two archives the first one is kept as a table: the members' states, with
// the short texts among them, up to a limit.
#include "file_difference.h"

#include <map>
#include <unordered_set>

#include "checksum.h"
#include "difference_list.h"
#include "file_table.h"
#include "group_paths.h"
#include "text_difference.h"

namespace engine {
namespace {

constexpr std::uint64_t most_kept_texts = std::uint64_t{32} << 20;

// ------------------------------------------------------------------------------- an archive and this system

class AgainstSystem {
public:
    explicit AgainstSystem(DifferenceList &comparing) : comparing_(comparing), live_(comparing.paths()) {}

    void visit(const Member &member, const ReadMember &read)
    {
        if (!comparing_.paths().contains(member.path)) {
            return;
        }
        const std::string fault = comparing_.paths().fault_of(member);
        if (!fault.empty()) {
            comparing_.add_problem(member.path, "in the archive it " + fault);
            return;
        }
        comparing_.forget(member.path);
        seen_.insert(member.path);
        try {
            compare(member, read);
        } catch (const Failure &failure) {
            if (failure.exit() == Exit::platform) {
                throw;
            }
            comparing_.add_problem(member.path, failure.what());
        }
    }

    void find_others()
    {
        for (const std::string &path : comparing_.paths().all()) {
            live_.for_each_other(path, seen_, [this](const std::string &found, const FileState &state) {
                comparing_.add(found, std::nullopt, state, {});
            });
        }
    }

private:
    void compare(const Member &member, const ReadMember &read)
    {
        const FileState archived = table_.state_of(member);
        std::optional<LiveFile> live = live_.look_at(member.path);
        if (!live) {
            comparing_.add(member.path, with_checksum(archived, member, read), std::nullopt, {});
            return;
        }
        if (member.kind == MemberKind::hard_link && live_.is_same_file(member.path, member.target)) {
            return;
        }
        std::vector<std::string> what = properties_that_differ(archived, live->state);
        if (member.kind != MemberKind::file || live->state.kind != MemberKind::file) {
            if (!what.empty()) {
                comparing_.add(member.path, archived, live->state, what);
            }
            return;
        }
        compare_contents(member, read, *live, archived, what);
    }

    void compare_contents(const Member &member, const ReadMember &read, LiveFile &live, FileState archived,
                          std::vector<std::string> what)
    {
        if (member.size > longest_compared_text) {
            archived = with_checksum(archived, member, read);
            live.state.sha256 = sum_of(member.path, live.state, member.size);
            compare_sums(member.path, archived, live.state, what);
            return;
        }
        const std::string old_text = contents_of(member, read);
        const std::optional<std::string> new_text =
            live.state.size <= longest_compared_text ? std::optional(live_.read(member.path)) : std::nullopt;
        if (new_text == old_text) {
            if (!what.empty()) {
                comparing_.add(member.path, archived, live.state, what);
            }
            return;
        }
        what.insert(what.begin(), "contents");
        archived.sha256 = checksum_of_text(old_text);
        live.state.sha256 = new_text ? checksum_of_text(*new_text) : sum_of(member.path, live.state, member.size);
        comparing_.add(member.path, archived, live.state, what, &old_text, new_text ? &*new_text : nullptr);
    }

    // Of a file that has grown beyond all measure its size tells enough.
    std::string sum_of(const std::string &path, const FileState &state, std::uint64_t other_size)
    {
        constexpr std::uint64_t measure = std::uint64_t{1} << 30;
        return state.size == other_size || state.size <= measure ? live_.checksum_of(path) : "";
    }

    void compare_sums(const std::string &path, const FileState &first, const FileState &second,
                      std::vector<std::string> what)
    {
        if (first.sha256 != second.sha256) {
            what.insert(what.begin(), "contents");
        }
        if (!what.empty()) {
            comparing_.add(path, first, second, what);
        }
    }

    DifferenceList &comparing_;
    LiveFiles live_;
    MemberStates table_;
    std::unordered_set<std::string> seen_;
};

// ---------------------------------------------------------------------------------------- two archives

struct TableRow {
    FileState state;
    std::optional<std::string> text;
    bool is_met = false;
};

class TwoArchives {
public:
    explicit TwoArchives(DifferenceList &comparing) : comparing_(comparing) {}

    void take_first(const Member &member, const ReadMember &read)
    {
        if (!is_comparable(member)) {
            return;
        }
        TableRow row;
        fill(row, member, read, kept_texts_ + member.size <= most_kept_texts);
        kept_texts_ += row.text ? row.text->size() : 0;
        rows_.insert_or_assign(member.path, std::move(row));
    }

    void take_second(const Member &member, const ReadMember &read)
    {
        if (!is_comparable(member)) {
            return;
        }
        comparing_.forget(member.path);
        TableRow second;
        fill(second, member, read, true);
        const auto found = rows_.find(member.path);
        if (found == rows_.end()) {
            comparing_.add(member.path, std::nullopt, second.state, {});
            return;
        }
        TableRow &first = found->second;
        first.is_met = true;
        std::vector<std::string> what = properties_that_differ(first.state, second.state);
        const bool are_files = first.state.kind == MemberKind::file && second.state.kind == MemberKind::file;
        if (are_files && first.state.sha256 != second.state.sha256) {
            what.insert(what.begin(), "contents");
        }
        if (!what.empty()) {
            const bool shows = what.front() == "contents" && first.text && second.text;
            comparing_.add(member.path, first.state, second.state, what, shows ? &*first.text : nullptr,
                           shows ? &*second.text : nullptr);
        }
    }

    void find_others()
    {
        for (const auto &[path, row] : rows_) {
            if (!row.is_met) {
                comparing_.add(path, row.state, std::nullopt, {});
            }
        }
    }

private:
    bool is_comparable(const Member &member)
    {
        if (!comparing_.paths().contains(member.path)) {
            return false;
        }
        const std::string fault = comparing_.paths().fault_of(member);
        if (!fault.empty()) {
            comparing_.add_problem(member.path, "in an archive it " + fault);
        }
        return fault.empty();
    }

    void fill(TableRow &row, const Member &member, const ReadMember &read, bool keeps_text)
    {
        row.state = table_.state_of(member);
        if (member.kind != MemberKind::file) {
            return;
        }
        if (keeps_text && member.size <= longest_compared_text) {
            row.text = contents_of(member, read);
            row.state.sha256 = checksum_of_text(*row.text);
        } else {
            row.state = with_checksum(row.state, member, read);
        }
    }

    DifferenceList &comparing_;
    MemberStates table_;
    std::map<std::string, TableRow> rows_;
    std::uint64_t kept_texts_ = 0;
};

// A side that can't be read to its end tells nothing.
void read_side(const ComparedSide &side, const std::function<void(const Member &, const ReadMember &)> &visit)
{
    try {
        for_each_member(*side.archive, visit);
    } catch (const Failure &failure) {
        throw Failure(failure.exit() == Exit::no ? Exit::platform : failure.exit(), failure.code(), failure.what(),
                      failure.hint());
    }
}

}  // namespace

std::vector<FileDifference> differences(const ComparedSide &from, const ComparedSide &to,
                                        const KESTA_BACKUP_FILE &definition)
{
    if (from.archive && to.archive) {
        DifferenceList comparing(definition, false);
        TwoArchives archives(comparing);
        read_side(from, [&](const Member &member, const ReadMember &read) { archives.take_first(member, read); });
        read_side(to, [&](const Member &member, const ReadMember &read) { archives.take_second(member, read); });
        archives.find_others();
        return comparing.result();
    }
    DifferenceList comparing(definition, !from.archive);
    AgainstSystem system(comparing);
    read_side(from.archive ? from : to,
              [&](const Member &member, const ReadMember &read) { system.visit(member, read); });
    system.find_others();
    return comparing.result();
}

}  // namespace engine
