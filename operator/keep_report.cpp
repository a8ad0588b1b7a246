#include "keep_report.h"

#include <algorithm>

namespace engine {

KeepReport::KeepReport() = default;
KeepReport::KeepReport(const KeepReport &other) = default;
KeepReport::KeepReport(KeepReport &&other) noexcept = default;
KeepReport &KeepReport::operator=(const KeepReport &other) = default;
KeepReport &KeepReport::operator=(KeepReport &&other) noexcept = default;
KeepReport::~KeepReport() = default;

void KeepReport::add(const KeepReport &other)
{
    for (const Generation &generation : other.kept) {
        std::erase_if(kept, [&generation](const Generation &one) { return one.sha256 == generation.sha256; });
        kept.push_back(generation);
    }
    dropped.insert(dropped.end(), other.dropped.begin(), other.dropped.end());
    notes.insert(notes.end(), other.notes.begin(), other.notes.end());
}

void KeepReport::note_full()
{
    const std::string note = "The disk is full: the oldest generations were dropped.";
    if (std::find(notes.begin(), notes.end(), note) == notes.end()) {
        notes.push_back(note);
    }
}

}  // namespace engine
