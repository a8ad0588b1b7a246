#include "generation_store.h"

#include <algorithm>
#include <utility>

#include "generation_retention.h"

namespace engine {
namespace {

using Purpose = GenerationFolder::Purpose;

constexpr std::size_t most_saved = 64;  // archives in force are few; the rest is history

std::vector<SavedArchive> saved_in(const GenerationFolder &folder)
{
    const auto text = folder.read(saved_name);
    return text ? parse_saved(*text).archives : std::vector<SavedArchive>();
}

const SavedArchive *find_saved(const std::vector<SavedArchive> &saved, const std::string &sum)
{
    const auto newest = std::find_if(saved.rbegin(), saved.rend(),
                                     [&sum](const SavedArchive &archive) { return archive.sha256 == sum; });
    return newest == saved.rend() ? nullptr : &*newest;
}

void take_from(Generation &generation, const SavedArchive *saved)
{
    if (saved) {
        generation.version = saved->version;
        generation.version_recorded = saved->version > 0;
        generation.group = saved->group;
        generation.saved = saved->saved;
    }
}

std::vector<Generation> entries_in(const GenerationFolder &folder)
{
    std::vector<Generation> entries;
    for (const std::string &sum : folder.sums_with(entry_suffix)) {
        const auto text = folder.read(entry_name(sum));
        if (auto entry = text ? parse_entry(*text, sum) : std::nullopt) {
            entries.push_back(std::move(*entry));
        }
    }
    std::sort(entries.begin(), entries.end(), [](const Generation &one, const Generation &other) {
        return std::pair(one.order, one.sha256) > std::pair(other.order, other.sha256);
    });
    return entries;
}

// One run that keeps something: under the folder's lock, from what was found to what is dropped.
class Keeping {
public:
    Keeping(const std::string &parent, const IsWhole &is_whole, const GenerationChange &change,
            const AskVersions &in_force, const std::string &spared)
        : folder_(parent, Purpose::changing),
          is_whole_(is_whole),
          change_(change),
          in_force_(in_force),
          spared_(spared),
          saved_(saved_in(folder_))
    {
        folder_.remove_unfinished();
        all_ = entries_in(folder_);
        set_in_order();
    }

    void keep(const GenerationSource &source)
    {
        const auto known = find(source.sha256);
        const bool is_kept = known != all_.end() && is_intact(*known);
        if (!is_kept && !find_saved(saved_, source.sha256) && !is_whole_(source.contents)) {
            report_.notes.push_back(source.place + " holds a damaged archive: it was not kept.");
            return;
        }
        if (!is_kept) {
            making_room([&] { add_archive(source); });
        }
        Generation entry = known != all_.end() ? *known : Generation();
        describe(entry, source);
        making_room([&] { folder_.write(entry_name(entry.sha256), entry_text(entry)); });
        forget(all_, entry);
        forget(report_.kept, entry);
        all_.insert(all_.begin(), entry);
        report_.kept.push_back(entry);
    }

    void drop_beyond(const GenerationLimits &limits)
    {
        if (beyond(all_, limits) && !in_force_().known()) {
            report_.notes.push_back("Which versions are in force can't be told: no generation was dropped.");
        }
        while (beyond(all_, limits) && drop_oldest()) {
        }
    }

    KeepReport finish()
    {
        folder_.flush();
        return std::move(report_);
    }

    bool drop_oldest() { return drop_oldest(report_.kept); }
    bool drop_oldest(std::vector<Generation> spared)
    {
        if (const auto source = find(spared_); source != all_.end()) {
            spared.push_back(*source);
        }
        const Entries dropped = droppable(all_, in_force_(), spared);
        if (dropped.empty()) {
            return false;
        }
        const Generation &oldest = dropped.front();
        folder_.remove(entry_name(oldest.sha256));
        folder_.remove(archive_name(oldest.sha256));
        forget(all_, oldest);
        report_.dropped.push_back(oldest);
        return true;
    }

private:
    using Entries = std::vector<Generation>;

    Entries::iterator find(const std::string &sum)
    {
        return std::find_if(all_.begin(), all_.end(), [&sum](const Generation &one) { return one.sha256 == sum; });
    }
    static void forget(Entries &entries, const Generation &entry)
    {
        std::erase_if(entries, [&entry](const Generation &one) { return one.sha256 == entry.sha256; });
    }
    std::uint64_t next_order() const { return all_.empty() ? 1 : all_.front().order + 1; }

    bool is_intact(const Generation &entry) const
    {
        try {
            return folder_.checksum_of(archive_name(entry.sha256)) == entry.sha256;
        } catch (const Failure &) {
            return false;  // it is kept anew
        }
    }

    void add_archive(const GenerationSource &source)
    {
        folder_.remove(archive_name(source.sha256));  // damaged there
        if (!source.file || !folder_.link(source.file, archive_name(source.sha256))) {
            folder_.write(archive_name(source.sha256), contents_known_as(source.contents, source.sha256, source.place));
        }
    }

    void describe(Generation &entry, const GenerationSource &source)
    {
        entry.sha256 = source.sha256;
        entry.bytes = source.contents.size;
        entry.order = next_order();
        entry.number = entry.number == 0 ? entry.order : entry.number;
        entry.kept = change_;
        if (std::find(entry.places.begin(), entry.places.end(), source.place) == entry.places.end()) {
            entry.places.push_back(source.place);
        }
        take_from(entry, find_saved(saved_, source.sha256));
        if (entry.version == 0) {
            entry.version = source.version;
        }
    }

    // Drops the oldest ones for what doesn't fit.
    template <typename Write>
    void making_room(const Write &write)
    {
        for (;;) {
            try {
                write();
                return;
            } catch (const NoRoom &full) {
                if (!drop_oldest()) {
                    folder_.flush();
                    throw Failure(full.exit(), full.code(), full.what() + dropped_so_far(), full.hint());
                }
                report_.note_full();
            }
        }
    }
    std::string dropped_so_far() const
    {
        const std::size_t count = report_.dropped.size();
        return count == 0 ? "" : " Older generations were dropped for it, " + std::to_string(count) + " of them.";
    }

    // What a killed command, or somebody's hand, left behind.
    void set_in_order()
    {
        const std::vector<std::string> archives = folder_.sums_with(archive_suffix);
        for (const std::string &sum : archives) {
            if (find(sum) == all_.end()) {
                adopt(sum);
            }
            try {
                folder_.make_own(archive_name(sum));
            } catch (const NoRoom &) {
                continue;  // it stays shared with the file it was
            }
        }
        for (const std::string &sum : folder_.sums_with(entry_suffix)) {
            if (!std::binary_search(archives.begin(), archives.end(), sum)) {
                report_.notes.push_back("The file of generation " + short_sum(sum) +
                                        " is gone: its entry was taken away.");
                folder_.remove(entry_name(sum));
                std::erase_if(all_, [&sum](const Generation &one) { return one.sha256 == sum; });
            }
        }
    }

    void adopt(const std::string &sum)
    {
        const auto contents = folder_.contents(archive_name(sum));
        if (!contents || checksum_of(*contents) != sum || !is_whole_(*contents)) {
            return;  // the check tells
        }
        Generation entry;
        entry.sha256 = sum;
        entry.bytes = contents->size;
        entry.order = 0;  // perhaps it was being dropped
        entry.kept.time = folder_.status_of(archive_name(sum))->st_ctim.tv_sec;
        take_from(entry, find_saved(saved_, sum));
        try {
            folder_.write(entry_name(sum), entry_text(entry));
        } catch (const NoRoom &) {
            return;  // the next command tries again
        }
        all_.push_back(entry);
    }

    GenerationFolder folder_;
    const IsWhole &is_whole_;
    const GenerationChange &change_;
    const AskVersions &in_force_;
    const std::string &spared_;  // a checksum
    std::vector<SavedArchive> saved_;
    Entries all_;  // newest first
    KeepReport report_;
};

}  // namespace

GenerationStore::GenerationStore(std::string parent, IsWhole is_whole)
    : parent_(std::move(parent)), is_whole_(std::move(is_whole))
{
}

std::vector<Generation> GenerationStore::all() const { return entries_in({parent_, Purpose::reading}); }

GenerationsCheck GenerationStore::check() const
{
    const GenerationFolder folder(parent_, Purpose::reading);
    return check_generations(folder, entries_in(folder));
}

std::vector<SavedArchive> GenerationStore::saved() const { return saved_in({parent_, Purpose::reading}); }

KeepReport GenerationStore::keep(const std::vector<GenerationSource> &sources, const GenerationChange &change,
                                 const GenerationLimits &limits, const AskVersions &in_force,
                                 const std::string &spared) const
{
    Keeping keeping(parent_, is_whole_, change, in_force, spared);
    for (const GenerationSource &source : sources) {
        keeping.keep(source);
    }
    keeping.drop_beyond(limits);
    return keeping.finish();
}

bool GenerationStore::drop_oldest(const AskVersions &in_force, KeepReport &report, const std::string &spared) const
{
    const GenerationChange nobody;
    Keeping keeping(parent_, is_whole_, nobody, in_force, spared);
    const bool dropped = keeping.drop_oldest(report.kept);
    report.add(keeping.finish());
    if (dropped) {
        report.note_full();
    }
    return dropped;
}

void GenerationStore::forget(const std::string &sha256) const
{
    const GenerationFolder folder(parent_, Purpose::changing);
    folder.remove(entry_name(sha256));
    folder.remove(archive_name(sha256));
    folder.flush();
}

void GenerationStore::note_saved(const SavedArchive &archive) const
{
    const GenerationFolder folder(parent_, Purpose::changing);
    std::vector<SavedArchive> saved = saved_in(folder);
    // Files that did not change make the same archive again, under another number: both count.
    std::erase_if(saved, [&archive](const SavedArchive &one) {
        return one.sha256 == archive.sha256 && one.version == archive.version;
    });
    saved.push_back(archive);
    if (saved.size() > most_saved) {
        saved.erase(saved.begin());
    }
    folder.write(saved_name, saved_text(saved));
    folder.flush();
}

}  // namespace engine
