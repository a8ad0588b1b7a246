#include "archive_members.h"

#include <errno.h>
#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <utility>
#include <vector>

#include "archive_functions.h"

namespace engine {
namespace {

using Reader = std::unique_ptr<::archive, decltype(&::archive_read_free)>;

// More than the header of a member can need: names and numbers.
constexpr std::uint64_t longest_header = std::uint64_t{1} << 20;

// Two blocks of zeros stand behind the last member.
constexpr std::uint64_t end_mark = 1024;

[[noreturn]] void fail_damaged(const std::string &name, const std::string &why) { throw DamagedArchive(name, why); }

// In the words of this system where libarchive's own would tell an operator less.
[[noreturn]] void fail_damaged(const std::string &name, ::archive *reader)
{
    const char *const known = archive_error_string(reader);
    const std::string why = known ? known : "it can't be read to its end";
    if (why.find("runcated") != std::string::npos) {
        fail_damaged(name, "cut short");
    }
    fail_damaged(name, why == "bzip decompression failed" ? "bzip2: data integrity error" : why);
}

std::string text_or_empty(const char *text) { return text ? text : ""; }

// One spelling for each path: two of them would be two members, and one file. What is before the first name, and
// "..", stays: it is refused.
std::string plain(const std::string &path)
{
    std::string result = path.starts_with('/') ? "/" : "";
    for (std::size_t at = 0; at < path.size();) {
        const std::size_t slash = std::min(path.find('/', at), path.size());
        const std::string part = path.substr(at, slash - at);
        if (!part.empty() && part != ".") {
            result += (result.empty() || result == "/" ? "" : "/") + part;
        }
        at = slash + 1;
    }
    return result.empty() && !path.empty() ? "." : result;
}

MemberKind kind_of(archive_entry *entry)
{
    if (archive_entry_hardlink(entry)) {
        return MemberKind::hard_link;
    }
    switch (archive_entry_filetype(entry)) {
    case AE_IFREG:
        return MemberKind::file;
    case AE_IFDIR:
        return MemberKind::folder;
    case AE_IFLNK:
        return MemberKind::link;
    default:
        return MemberKind::special;
    }
}

Member member_of(archive_entry *entry, std::size_t number)
{
    Member member;
    member.path = plain(text_or_empty(archive_entry_pathname(entry)));
    member.kind = kind_of(entry);
    member.target = member.kind == MemberKind::hard_link ? plain(text_or_empty(archive_entry_hardlink(entry)))
                                                         : text_or_empty(archive_entry_symlink(entry));
    member.mode = archive_entry_perm(entry);
    member.owner = text_or_empty(archive_entry_uname(entry));
    member.group = text_or_empty(archive_entry_gname(entry));
    member.uid = static_cast<uid_t>(archive_entry_uid(entry));
    member.gid = static_cast<gid_t>(archive_entry_gid(entry));
    member.modified = {archive_entry_mtime(entry), archive_entry_mtime_nsec(entry)};
    const la_int64_t size = member.kind == MemberKind::file ? archive_entry_size(entry) : 0;
    member.size = size > 0 ? static_cast<std::uint64_t>(size) : 0;
    member.number = number;
    return member;
}

// The unpacked bytes of an archive, on their way to the reader of its members. They are counted,
// and their number is held against the limits, whatever the headers tell. An exception does not pass through the
// functions of libarchive: it is kept until they have returned.
class Unpacking {
public:
    explicit Unpacking(const PackedArchive &archive) : archive_(archive), reader_(archive_read_new(), archive_read_free)
    {
        archive_read_support_filter_bzip2(reader_.get());
        archive_read_support_format_raw(reader_.get());
        archive_entry *entry = nullptr;
        const bool opened = archive_read_open(reader_.get(), this, nullptr, give_packed, nullptr) == ARCHIVE_OK &&
                            archive_read_next_header(reader_.get(), &entry) == ARCHIVE_OK;
        rethrow();
        if (packed_ == 0) {
            fail_damaged(archive.name, "it is empty");
        }
        if (!opened) {
            fail_damaged(archive.name, reader_.get());
        }
        if (archive_filter_count(reader_.get()) != 2 || archive_filter_code(reader_.get(), 0) != ARCHIVE_FILTER_BZIP2) {
            fail_damaged(archive.name, "it is not what bzip2 makes");
        }
    }

    // Throws Failure.
    std::string_view next()
    {
        archive_.look();
        const la_ssize_t got = archive_read_data(reader_.get(), piece_.data(), piece_.size());
        rethrow();
        if (got < 0) {
            fail_damaged(archive_.name, reader_.get());
        }
        const std::string_view piece(piece_.data(), static_cast<std::size_t>(got));
        if (const std::size_t last = piece.find_last_not_of('\0'); last != std::string_view::npos) {
            end_of_contents_ = unpacked_ + last + 1;
        }
        unpacked_ += piece.size();
        check(unpacked_);
        in_header_ += piece.size();
        if (reads_header_ && in_header_ > longest_header) {
            fail_damaged(archive_.name, "the header of a member is longer than one can be");
        }
        return piece;
    }

    // Once all is unpacked; the members end at this byte of it.
    void require_end(std::uint64_t end_of_members)
    {
        if (end_of_contents_ > end_of_members) {
            fail_damaged(archive_.name, "bytes behind its end");
        }
        if (unpacked_ < end_of_members + end_mark) {
            fail_damaged(archive_.name, "cut short");
        }
        const auto used = static_cast<std::uint64_t>(archive_filter_bytes(reader_.get(), -1));
        if (packed_ > used || !archive_.next().empty()) {
            fail_damaged(archive_.name, "bytes behind its end");
        }
    }

    void begin_header() { in_header_ = 0, reads_header_ = true; }
    void end_header() { reads_header_ = false; }

    // What the headers tell counts as well: holes take no bytes of the archive.
    void add(const Member &member)
    {
        told_ += member.size;
        if (member.size > archive_.limits.bytes) {
            told_ = member.size;
        }
        check(told_);
        if (++members_ > archive_.limits.members) {
            refuse("holds more than " + std::to_string(archive_.limits.members) + " members", "archive_members");
        }
    }

private:
    static la_ssize_t give_packed(::archive *reader, void *self, const void **bytes)
    {
        Unpacking &own = *static_cast<Unpacking *>(self);
        try {
            const std::string_view piece = own.archive_.next();
            own.packed_ += piece.size();
            *bytes = piece.data();
            return static_cast<la_ssize_t>(piece.size());
        } catch (const std::exception &) {
            own.failure_ = std::current_exception();
            archive_set_error(reader, EIO, "stopped");
            return -1;
        }
    }
    void rethrow() const
    {
        if (failure_) {
            std::rethrow_exception(failure_);
        }
    }
    void check(std::uint64_t bytes) const
    {
        const ArchiveLimits &limits = archive_.limits;
        if (bytes > limits.bytes) {
            refuse("holds more than " + std::to_string(limits.bytes) + " bytes", "archive_bytes");
        }
        if (bytes > ArchiveLimits::free_of_ratio && bytes / limits.ratio > archive_.size) {
            refuse("holds more than " + std::to_string(limits.ratio) + " times its own size", "archive_ratio");
        }
    }
    [[noreturn]] void refuse(const std::string &what, const std::string &setting) const
    {
        throw Failure(Exit::no, "archive-too-large", archive_.name + " " + what + ".",
                      "If it is right, raise " + setting + " in " + archive_limits_file + ".");
    }

    const PackedArchive &archive_;
    std::exception_ptr failure_;
    Reader reader_;
    std::vector<char> piece_ = std::vector<char>(1 << 16);
    std::uint64_t packed_ = 0;
    std::uint64_t unpacked_ = 0;
    std::uint64_t end_of_contents_ = 0;  // behind the last byte that is not zero
    std::uint64_t told_ = 0;
    std::uint64_t members_ = 0;
    std::uint64_t in_header_ = 0;
    bool reads_header_ = false;
};

// Reads the members of what is unpacked, and keeps exceptions likewise.
class MemberReader {
public:
    explicit MemberReader(const PackedArchive &archive)
        : name_(archive.name), unpacking_(archive), reader_(archive_read_new(), archive_read_free)
    {
        archive_read_support_format_tar(reader_.get());
        unpacking_.begin_header();
        check(archive_read_open(reader_.get(), this, nullptr, give_next, nullptr));
    }

    // Null behind the last one.
    archive_entry *next()
    {
        end_of_members_ = static_cast<std::uint64_t>(archive_filter_bytes(reader_.get(), -1));
        archive_entry *entry = nullptr;
        unpacking_.begin_header();
        const int result = archive_read_next_header(reader_.get(), &entry);
        unpacking_.end_header();
        check(result);
        return result == ARCHIVE_EOF ? nullptr : entry;
    }
    void add(const Member &member) { unpacking_.add(member); }
    void read(const TakePiece &take)
    {
        const void *piece = nullptr;
        std::size_t size = 0;
        la_int64_t offset = 0;
        int result;
        while ((result = archive_read_data_block(reader_.get(), &piece, &size, &offset)) != ARCHIVE_EOF) {
            check(result);
            if (size > 0) {
                take(static_cast<std::uint64_t>(offset), {static_cast<const char *>(piece), size});
            }
        }
    }
    void skip() { check(archive_read_data_skip(reader_.get())); }

    // What is behind the last member belongs to the archive, and may be damaged.
    void read_rest()
    {
        while (!unpacking_.next().empty()) {
        }
        unpacking_.require_end(end_of_members_);
    }

private:
    static la_ssize_t give_next(::archive *reader, void *self, const void **bytes)
    {
        MemberReader &own = *static_cast<MemberReader *>(self);
        try {
            const std::string_view piece = own.unpacking_.next();
            *bytes = piece.data();
            return static_cast<la_ssize_t>(piece.size());
        } catch (const std::exception &) {
            own.failure_ = std::current_exception();
            archive_set_error(reader, EIO, "stopped");
            return -1;
        }
    }
    void check(int result)
    {
        if (failure_) {
            std::rethrow_exception(failure_);
        }
        if (result < ARCHIVE_WARN || result == ARCHIVE_RETRY) {  // "retry" means that a member was given up
            fail_damaged(name_, reader_.get());
        }
    }

    const std::string &name_;
    Unpacking unpacking_;
    std::uint64_t end_of_members_ = 0;
    std::exception_ptr failure_;
    Reader reader_;
};

// False if visit ended it.
bool visit_members(const PackedArchive &archive, const std::function<bool(const Member &, const ReadMember &)> &visit)
{
    MemberReader reader(archive);
    std::size_t number = 0;
    while (archive_entry *entry = reader.next()) {
        const Member member = member_of(entry, ++number);
        reader.add(member);
        if (!visit(member, [&reader](const TakePiece &take) { reader.read(take); })) {
            return false;
        }
        reader.skip();
    }
    reader.read_rest();
    return true;
}

}  // namespace

DamagedArchive::DamagedArchive(const std::string &name, std::string reason)
    : Failure(Exit::no, "damaged-archive", name + " is damaged: " + reason + ".",
              "Nothing was taken from it. See 'kestactl verify' for a good copy, or use --from for the "
              "other environment."),
      reason_(std::move(reason))
{
}

void for_each_member(const Archive &archive, const std::function<void(const Member &, const ReadMember &)> &visit)
{
    const ArchiveContents &contents = archive.contents;
    for_each_member(PackedArchive{contents.pieces(), contents.size, archive.name, archive.limits, archive.look}, visit);
}

void for_each_member(const PackedArchive &archive, const std::function<void(const Member &, const ReadMember &)> &visit)
{
    (void)visit_members(archive, [&visit](const Member &member, const ReadMember &read) {
        visit(member, read);
        return true;
    });
}

void for_members_until(const Archive &archive, const std::function<bool(const Member &, const ReadMember &)> &visit)
{
    const ArchiveContents &contents = archive.contents;
    const PackedArchive packed{contents.pieces(), contents.size, archive.name, archive.limits, archive.look};
    (void)visit_members(packed, visit);
}

uid_t Owners::owner_of(const Member &member)
{
    if (member.owner.empty()) {
        return member.uid;
    }
    const auto [at, is_new] = owners_.try_emplace(member.owner);
    if (const passwd *known = is_new ? getpwnam(member.owner.c_str()) : nullptr) {
        at->second = known->pw_uid;
    }
    return at->second.value_or(member.uid);
}

gid_t Owners::group_of(const Member &member)
{
    if (member.group.empty()) {
        return member.gid;
    }
    const auto [at, is_new] = groups_.try_emplace(member.group);
    if (const ::group *known = is_new ? getgrnam(member.group.c_str()) : nullptr) {
        at->second = known->gr_gid;
    }
    return at->second.value_or(member.gid);
}

}  // namespace engine
