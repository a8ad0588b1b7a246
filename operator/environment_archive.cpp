#include "environment_archive.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <exception>
#include <filesystem>
#include <memory>
#include <vector>

#include "archive_functions.h"
#include "failure.h"
#include "file_changes.h"
#include "group_paths.h"
#include "held_command.h"
#include "packing_program.h"
#include "restored_files.h"
#include "saved_files.h"
#include "whole_file.h"

namespace engine {
namespace {

namespace fs = std::filesystem;

using EntryPtr = std::unique_ptr<archive_entry, decltype(&::archive_entry_free)>;

// The other program that packs has not done so.
struct NotPacked {};

// In the format in which archives are written there is no time before 1970; the other one has a longer header for it.
enum class Times { since_1970, any };
struct TimeBefore1970 {};

class ArchiveWriter {
public:
    // With an empty program it packs itself. Otherwise throws NotPacked as well. Of such times, TimeBefore1970.
    ArchiveWriter(const std::string &path, const std::function<void()> &check, const std::string &program, Times times)
        : path_(path),
          check_(check),
          times_(times),
          limits_(archive_limits()),
          file_(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600)),
          writer_(archive_write_new(), archive_write_free)
    {
        if (!file_) {
            fail_file(path, "made");
        }
        if (times_ == Times::any) {
            archive_write_set_format_pax_restricted(writer_.get());
        } else {
            archive_write_set_format_gnutar(writer_.get());
        }
        if (program.empty()) {
            archive_write_add_filter_bzip2(writer_.get());
            require(archive_write_open_fd(writer_.get(), file_.get()));
            return;
        }
        packer_ = std::make_unique<PackingProgram>(program, file_.get(), check_);
        archive_write_set_bytes_in_last_block(writer_.get(), 1);
        require(archive_write_open(writer_.get(), this, nullptr, give_packer, nullptr));
    }

    void add(const Member &member, const Descriptor &contents)
    {
        check_();
        if (times_ == Times::since_1970 && member.modified.tv_sec < 0) {
            throw TimeBefore1970();
        }
        count(member);
        const EntryPtr entry(archive_entry_new(), archive_entry_free);
        archive_entry_copy_pathname(entry.get(), member.path.c_str());
        archive_entry_set_filetype(entry.get(), member.kind == MemberKind::folder ? AE_IFDIR
                                                : member.kind == MemberKind::link ? AE_IFLNK
                                                                                  : AE_IFREG);
        archive_entry_set_perm(entry.get(), member.mode);
        archive_entry_set_size(entry.get(), static_cast<la_int64_t>(member.size));
        archive_entry_set_uid(entry.get(), member.uid);
        archive_entry_set_gid(entry.get(), member.gid);
        archive_entry_copy_uname(entry.get(), member.owner.c_str());
        archive_entry_copy_gname(entry.get(), member.group.c_str());
        archive_entry_set_mtime(entry.get(), member.modified.tv_sec, 0);
        if (member.kind == MemberKind::link) {
            archive_entry_copy_symlink(entry.get(), member.target.c_str());
        } else if (member.kind == MemberKind::hard_link) {
            archive_entry_copy_hardlink(entry.get(), member.target.c_str());
        }
        require(archive_write_header(writer_.get(), entry.get()));
        if (member.kind == MemberKind::file) {
            add_contents(member, contents);
        }
        require(archive_write_finish_entry(writer_.get()));
    }

    void finish()
    {
        require(archive_write_close(writer_.get()));
        if (packer_ && !packer_->finish()) {
            throw NotPacked();
        }
        if (fsync(file_.get()) != 0 || !file_.close()) {
            fail_file(path_, "flushed to the disk");
        }
    }

private:
    // What restoring would find too much is not made first.
    void count(const Member &member)
    {
        bytes_ += member.size;
        if (bytes_ > limits_.bytes || ++members_ > limits_.members) {
            throw Failure(Exit::no, "archive-too-large",
                          "With /" + member.path + " the archive would hold more than " +
                              (bytes_ > limits_.bytes ? std::to_string(limits_.bytes) + " bytes."
                                                      : std::to_string(limits_.members) + " members."),
                          std::string("It could not be restored. Take it out, or raise ") +
                              (bytes_ > limits_.bytes ? "archive_bytes in " : "archive_members in ") +
                              archive_limits_file + ".");
        }
    }
    // As much as the header has told; whether the file was changed meanwhile is seen when it is
    // compared.
    void add_contents(const Member &member, const Descriptor &contents)
    {
        for (std::uint64_t at = 0; at < member.size;) {
            check_();
            ssize_t got;
            while ((got = pread(contents.get(), piece_.data(), piece_.size(), static_cast<off_t>(at))) < 0 &&
                   errno == EINTR) {
            }
            if (got < 0) {
                fail_file("/" + member.path, "read");
            }
            if (got == 0) {
                return;
            }
            const std::size_t size = std::min<std::uint64_t>(static_cast<std::uint64_t>(got), member.size - at);
            if (archive_write_data(writer_.get(), piece_.data(), size) < 0) {
                fail_writing();
            }
            at += size;
        }
    }
    static la_ssize_t give_packer(::archive *writer, void *self, const void *bytes, std::size_t size)
    {
        ArchiveWriter &own = *static_cast<ArchiveWriter *>(self);
        try {
            const bool goes_on = !own.not_packed_ && !own.failure_;
            if (goes_on && own.packer_->take({static_cast<const char *>(bytes), size})) {
                return static_cast<la_ssize_t>(size);
            }
            own.not_packed_ = true;
        } catch (const std::exception &) {
            own.failure_ = std::current_exception();  // it must not pass through libarchive
        }
        archive_set_error(writer, EPIPE, "stopped");
        return -1;
    }
    void require(int result)
    {
        if (result < ARCHIVE_WARN) {
            fail_writing();
        }
    }
    [[noreturn]] void fail_writing()
    {
        if (failure_) {
            std::rethrow_exception(failure_);
        }
        if (not_packed_) {
            throw NotPacked();
        }
        const char *why = archive_error_string(writer_.get());
        const int error = archive_errno(writer_.get());
        throw Failure(Exit::platform, error == ENOSPC || error == EDQUOT ? no_room : "archive-failed",
                      std::string("The archive could not be made: ") + (why ? why : "it can't be written") + ".",
                      "Check the space of " + fs::path(path_).parent_path().string() + ".");
    }

    const std::string &path_;
    const std::function<void()> &check_;
    const Times times_;
    ArchiveLimits limits_;
    Descriptor file_;
    std::unique_ptr<PackingProgram> packer_;
    bool not_packed_ = false;
    std::exception_ptr failure_;
    std::unique_ptr<::archive, decltype(&::archive_write_free)> writer_;
    std::vector<char> piece_ = std::vector<char>(1 << 16);
    std::uint64_t bytes_ = 0;
    std::uint64_t members_ = 0;
};

void require_restorable(const KESTA_BACKUP_FILE &definition, const GroupPaths &paths, const std::string &path,
                        const std::function<void()> &look)
{
    const Archive archive{contents_of_path(path), "The new archive", archive_limits(), look};
    const RestoredFiles files = choose_files(archive, definition, paths);
    if (!compare_files(archive, files, GroupPlaces(paths)).none()) {
        throw Failure(Exit::platform, "archive-differs",
                      "The archive does not hold what the files hold: it was thrown away.",
                      "A file was changed while it was saved, or the disk fails: run the command "
                      "again.");
    }
}

std::uint64_t bytes_to_pack(const KESTA_BACKUP_FILE &definition, const GroupPaths &paths)
{
    std::uint64_t bytes = 0;
    for_each_saved(definition, paths, [&bytes](const Member &member, const Descriptor &) { bytes += member.size; });
    return bytes;
}

// Most archives need but one attempt.
void write_archive(const std::string &path, const std::function<void()> &look, const std::string &program,
                   const std::function<void(const AddMember &add)> &give)
{
    const auto attempt = [&](Times times) {
        remove_quietly(path);  // of a run that was cut short; making it tells
        ArchiveWriter writer(path, look, program, times);
        give([&writer](const Member &member, const Descriptor &contents) { writer.add(member, contents); });
        writer.finish();
    };
    try {
        attempt(Times::since_1970);
    } catch (const TimeBefore1970 &) {
        attempt(Times::any);
    }
}

void make_archive_by(const std::string &program, const KESTA_BACKUP_FILE &definition, const GroupPaths &paths,
                     const std::string &path, const std::function<void()> &look)
{
    try {
        write_archive(path, look, program, [&](const AddMember &add) { for_each_saved(definition, paths, add); });
        require_restorable(definition, paths, path, look);
    } catch (...) {
        remove_quietly(path);
        throw;
    }
}

// False: it did not pack, or not what it was given.
bool is_packed_by(const std::string &program, const KESTA_BACKUP_FILE &definition, const GroupPaths &paths,
                  const std::string &path, const std::function<void()> &look)
{
    try {
        make_archive_by(program, definition, paths, path, look);
        return true;
    } catch (const NotPacked &) {
        look();  // whoever ended it may have asked for this command's end as well
    } catch (const Failure &failure) {
        look();
        if (static_cast<int>(failure.exit()) > ended_by_signal) {
            throw;
        }
    }
    return false;
}

}  // namespace

std::vector<std::string> collect(const KESTA_BACKUP_FILE &definition)
{
    const GroupPaths paths(definition);
    std::vector<std::string> files;
    for_each_saved(definition, paths, [&](const Member &member, const Descriptor &) {
        if (paths.names(member.path)) {
            files.push_back(member.path);
        }
    });
    if (files.empty()) {
        throw Failure(Exit::no, "no-files", "The group has no files to save.", "See 'kestactl group show'.");
    }
    return files;
}

void make_archive(const KESTA_BACKUP_FILE &definition, const std::string &path, const std::function<void()> &look)
{
    remove_quietly(path);  // of a run that was cut short
    make_archive(definition, path, look, packing_program(bytes_to_pack(definition, GroupPaths(definition))));
}

void make_archive(const KESTA_BACKUP_FILE &definition, const std::string &path, const std::function<void()> &look,
                  const std::string &program)
{
    const GroupPaths paths(definition);
    if (program.empty() || !is_packed_by(program, definition, paths, path, look)) {
        make_archive_by("", definition, paths, path, look);
    }
}

void make_archive_of(const std::string &path, const std::function<void()> &look,
                     const std::function<void(const AddMember &add)> &give)
{
    try {
        write_archive(path, look, "", give);
    } catch (...) {
        remove_quietly(path);
        throw;
    }
}

}  // namespace engine
