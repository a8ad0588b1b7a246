#include "replaced_files.h"

#include <errno.h>
#include <stdio.h>

#include <map>

#include "archive_contents.h"
#include "current_change.h"
#include "environment_archive.h"
#include "failure.h"
#include "generation_folder.h"
#include "kesta/paths.h"
#include "saved_files.h"
#include "whole_file.h"

namespace engine {
namespace {

std::string folder() { return std::string(generations_folder) + "/"; }
std::string unfinished_archive_path() { return folder() + ".unfinished.undo"; }

// Adds each path that is there, once as contents and then as another name of it.
class Keeping {
public:
    Keeping(const GroupPlaces &places, const AddMember &add, ReplacedFiles &files)
        : places_(places), add_(add), files_(files)
    {
    }

    void keep(const std::string &absolute)
    {
        const std::string path = absolute.substr(1);
        const Entry entry = places_.entry(path);
        struct stat status {};
        if (!entry || !stat_of(entry, status)) {
            if (errno != ENOENT) {
                fail_file(absolute, "looked at");
            }
            files_.made.push_back(absolute);
            return;
        }
        files_.replaced.push_back(absolute);
        if (S_ISREG(status.st_mode)) {
            keep_file(entry, path, status);
            return;
        }
        Member member = saved_member(path, status);
        member.target = S_ISLNK(status.st_mode) ? link_text(entry).value_or("") : "";
        if (member.kind == MemberKind::special) {
            throw Failure(Exit::no, "not-restorable", absolute + " is neither a file nor a folder nor a link.", "");
        }
        add_(member, Descriptor());
    }

private:
    void keep_file(const Entry &entry, const std::string &path, struct stat status)
    {
        const Descriptor opened = open_plain(entry, status);
        if (!opened) {
            fail_file("/" + path, "opened");
        }
        Member member = saved_member(path, status);
        const auto [first, is_new] = names_.emplace(std::pair(status.st_dev, status.st_ino), path);
        if (!is_new) {
            member.kind = MemberKind::hard_link;
            member.target = first->second;
            member.size = 0;
        }
        add_(member, opened);
    }

    const GroupPlaces &places_;
    const AddMember &add_;
    ReplacedFiles &files_;
    std::map<std::pair<dev_t, ino_t>, std::string> names_;
};

}  // namespace

std::string replaced_files_archive() { return folder() + undo_archive_name; }

ReplacedFiles keep_replaced_files(const std::string &group, const FileChanges &changes, const GroupPlaces &places,
                                  const std::function<void()> &look)
{
    (void)GenerationFolder(KESTA_FLASH_DIRECTORY,
                           GenerationFolder::Purpose::changing);  // so that it is there, for root alone
    ReplacedFiles files;
    std::set<std::string> all = changes.replaced;
    all.insert(changes.adjusted.begin(), changes.adjusted.end());
    all.insert(changes.removed.begin(), changes.removed.end());
    make_archive_of(unfinished_archive_path(), look, [&](const AddMember &add) {
        files = ReplacedFiles();  // of an attempt before
        files.group = group;
        Keeping keeping(places, add, files);
        for (const std::string &path : all) {
            keeping.keep(path);
        }
    });
    files.sha256 = checksum_of(contents_of_path(unfinished_archive_path()));
    return files;
}

void publish_replaced_files(const ReplacedFiles &files)
{
    if (rename(unfinished_archive_path().c_str(), replaced_files_archive().c_str()) != 0) {
        fail_file(replaced_files_archive(), "put in its place");
    }
    note_replaced_files(files);
}

}  // namespace engine
