// Archives that were made to do harm, in the slot that a lab's controller restores from: nothing outside of the
// group is touched, and nothing of it is taken from them.
#include "saved_group.h"

using namespace test;
using nlohmann::json;
using testing::AllOf;
using testing::AnyOf;
using testing::HasSubstr;
using testing::Not;

namespace {

// Members in their order, made by hand: what no tar would put together.
const std::string python = R"(
import bz2, io, tarfile
out = io.BytesIO()
tar = tarfile.open(fileobj=out, mode="w", format=tarfile.GNU_FORMAT)
def add(name, kind=tarfile.REGTYPE, target="", text=b"planted\n", mode=0o644, uid=0):
    info = tarfile.TarInfo(name)
    info.type, info.linkname, info.mode, info.uid = kind, target, mode, uid
    info.size = len(text) if kind == tarfile.REGTYPE else 0
    tar.addfile(info, io.BytesIO(text) if info.size else None)
folder = lambda name, mode=0o755: add(name, tarfile.DIRTYPE, mode=mode)
link = lambda name, target: add(name, tarfile.SYMTYPE, target)
second = lambda name, target, mode=0o644: add(name, tarfile.LNKTYPE, target, mode=mode)
MEMBERS
tar.close()
open("/opt/plant.tar.bz2", "wb").write(bz2.compress(out.getvalue()))
)";

}  // namespace

class HostileArchive : public SavedGroup {
protected:
    HostileArchive()
    {
        define("");
        EXPECT_EQ(ctl(0, "save network").code, 0);
        succeed("mkdir -m 700 /opt/outside && echo secret > /opt/outside/file && chmod 600 /opt/outside/file");
        outside_ = on(0, look_outside).out;
    }
    // Puts an archive of such members into the backup slot.
    void plant(const std::string &members) const
    {
        std::string script = python;
        write_file(host_path(0, "opt/plant.py"), script.replace(script.find("MEMBERS"), 7, members));
        succeed("python3 /opt/plant.py && cp /opt/plant.tar.bz2 " + flash_backup +
                " && kestactl copy cntbackup2backup --force");
    }
    void expect_refused(const std::string &members, const std::string &because) const
    {
        plant(members);
        expect_refusal(ctl(0, "restore network"), 1, because);
        EXPECT_EQ(file_on(0, "/etc/app/one"), "one\n") << members;
        EXPECT_EQ(file_on(0, "/etc/app/more/two"), "two\n") << members;
        expect_nothing_outside(members);
    }
    void expect_nothing_outside(const std::string &members) const
    {
        EXPECT_EQ(on(0, look_outside).out, outside_) << members;
        EXPECT_EQ(on(0, "find /etc /opt -name '.*kesta-new' -o -name .restore -o -perm -4000").out, "") << members;
    }

private:
    static inline const std::string look_outside =
        "find /opt/outside -printf '%p %m %U %n %l\\n'; cat /opt/outside/file; cat /etc/shadow | sha256sum; ls -l /etc/passwd";
    std::string outside_;
};

TEST_F(HostileArchive, MembersBelowALinkAreRefused)
{
    const std::string begin = "folder('etc/app'); add('etc/app/one'); folder('etc/app/more'); ";
    expect_refused(begin + "link('etc/app/more/way', '../more'); add('etc/app/more/way/two')", "which is no folder");
    expect_refused(begin + "add('etc/app/more/way/file'); link('etc/app/more/way', '.')", "which is no folder");
    expect_refused(begin + "link('etc/app/more/way', '../one'); second('etc/app/more/way/x', 'etc/app/one')",
                   "which is no folder");
    expect_refused("link('etc/app', '/opt/outside'); add('etc/app/one'); add('etc/app/more/two')",
                   "which is no folder");
    expect_refused("add('etc/app/one'); add('etc/app/one/below'); add('etc/app/more/two')", "which is no folder");
}

TEST_F(HostileArchive, LinksThatClimbBehindANameAreRefused)
{
    const std::string begin = "add('etc/app/one'); folder('etc/app/more'); ";
    // By its text it stays in the group; through the other link it does not.
    expect_refused(begin + "link('etc/app/more/a', '../more'); link('etc/app/more/b', 'a/../../../opt/outside')",
                   "leads out of the group");
    expect_refused(begin + "link('etc/app/more/b', 'a/../two')", "leads out of the group");
    expect_refused(begin + "link('etc/app/more/b', '/etc/app/more/x/../two')", "leads out of the group");
    expect_refused(begin + "link('etc/app/more/b', '../../../opt/outside')", "leads out of the group");
    expect_refused(begin + "link('etc/app/more/b', '')", "leads nowhere");
}

TEST_F(HostileArchive, SecondNamesAreThoseOfFilesThatCameBefore)
{
    const std::string begin = "add('etc/app/one'); folder('etc/app/more'); ";
    expect_refused(begin + "second('etc/app/more/two', 'opt/outside/file')", "no file of the group");
    expect_refused(begin + "second('etc/app/more/two', 'etc/app/more/later'); add('etc/app/more/later')",
                   "no file of the group");
    expect_refused(begin + "link('etc/app/more/l', '../one'); second('etc/app/more/two', 'etc/app/more/l')",
                   "no file of the group");
    expect_refused(begin + "second('etc/app/more/two', 'etc/app/more')", "no file of the group");
    expect_refused(begin + "second('etc/app/more/two', '/opt/outside/file')", "no file of the group");
    expect_refused("add('etc'); second('etc/app/one', 'etc')", "no file of the group");
}

TEST_F(HostileArchive, ProgramsWithTheirOwnersRightsAreRefused)
{
    const std::string begin = "folder('etc/app/more'); add('etc/app/more/two'); ";
    expect_refused(begin + "add('etc/app/one', mode=0o4755)", "setuid");
    expect_refused(begin + "add('etc/app/one', mode=0o2755)", "setgid");
    expect_refused(begin + "add('etc/app/one'); add('etc/app/more/three', mode=0o6711)", "setuid");
    // A second name has a mode of its own, which counts where it alone is restored.
    expect_refused(begin + "add('etc/app/one'); second('etc/app/more/three', 'etc/app/one', 0o4755)", "setuid");
    expect_refusal(ctl(0, "restore network --only /etc/app/more/three"), 1, "setuid");
    expect_nothing_outside("a second name");
    plant("add('etc/app/one', mode=0o2644); folder('etc/app/more', 0o2755); add('etc/app/more/two')");
    ASSERT_EQ(ctl(0, "restore network").code, 0);
    EXPECT_EQ(on(0, "stat -c %a /etc/app/one /etc/app/more").out, "2644\n2755\n") << "nobody can run it";
}

TEST_F(HostileArchive, NamesOfTheRestoreItselfAreRefused)
{
    const std::string begin = "add('etc/app/one'); folder('etc/app/more'); ";
    expect_refused(begin + "add('etc/app/more/.two.kesta-new'); add('etc/app/more/two')", "for a moment");
    expect_refused(begin + "add('etc/app/more/two'); add('etc/app/more/.two.kesta-new/below')", "for a moment");
    expect_refused(begin + "add('etc/app/more/' + 'n' * 300)", "longer name");
}

TEST_F(HostileArchive, LaterMemberOfANameCountsWithItsSecondNames)
{
    plant(
        "add('etc/app/one'); folder('etc/app/more'); add('etc/app/more/two', text=b'first'); "
        "second('etc/app/more/three', 'etc/app/more/two'); second('etc/app/more/four', 'etc/app/more/three'); "
        "add('etc/app/more/two', text=b'second')");
    ASSERT_EQ(ctl(0, "restore network").code, 0);
    EXPECT_EQ(on(0, "cd /etc/app/more; cat two; echo; cat three; echo; cat four; stat -c %h two three four").out,
              "second\nfirst\nfirst1\n2\n2\n");
    EXPECT_EQ(ctl(0, "--json restore network").json().at("result").at("replaced"), json::array());
}

TEST_F(HostileArchive, TwoEnvironmentsInARowStayInTheirGroups)
{
    // The first brings a link that is root's; the second group's path leads through it.
    plant("add('etc/app/one'); folder('etc/app/more'); link('etc/app/more/way', '../more')");
    ASSERT_EQ(ctl(0, "restore network").code, 0);
    plant("add('etc/app/one'); folder('etc/app/more'); add('etc/app/more/way/two')");
    expect_refusal(ctl(0, "restore network"), 1, "/etc/app/more/way is no folder");
    EXPECT_EQ(file_on(0, "/etc/app/more/two"), "two\n");
    succeed("ln -sfn /opt/outside /etc/app/more/way");
    expect_refusal(ctl(0, "restore network"), 1, "/etc/app/more/way is no folder");
    expect_nothing_outside("through a link");
}

TEST_F(HostileArchive, FilesWithHolesAreRestoredWhole)
{
    succeed(
        "mkdir -p /opt/sparse/etc/app/more && cd /opt/sparse && cp /etc/app/one etc/app && "
        "truncate -s 300000 etc/app/more/empty && truncate -s 300000 etc/app/more/end && "
        "echo begin | dd conv=notrunc status=none of=etc/app/more/end && "
        "echo middle | dd conv=notrunc status=none seek=400 of=etc/app/more/middle && truncate -s 400000 etc/app/more/middle");
    for (const std::string format :
         {"gnu", "posix --sparse-version=0.0", "posix --sparse-version=0.1", "posix --sparse-version=1.0"}) {
        succeed("cd /opt/sparse && tar -S --format=" + format + " -cjf " + flash_backup +
                " etc && kestactl copy cntbackup2backup --force && rm -rf /etc/app/more");
        const Ran restored = ctl(0, "restore network");
        ASSERT_EQ(restored.code, 0) << format << restored.err;
        EXPECT_EQ(on(0, "cd /opt/sparse/etc/app/more && for f in *; do cmp $f /etc/app/more/$f || exit 1; done").code,
                  0)
            << format;
        EXPECT_EQ(ctl(0, "--json restore network").json().at("result").at("replaced"), json::array()) << format;
        succeed("echo x | dd conv=notrunc status=none seek=300 of=/etc/app/more/empty");
        EXPECT_EQ(ctl(0, "--json restore network").json().at("result").at("replaced"),
                  json::array({"/etc/app/more/empty"}))
            << format;
    }
}

// ------------------------------------------------------------------------------------- too much of it

class ArchiveBomb : public HostileArchive {
protected:
    void limit(const std::string &setting) const
    {
        write_file(host_path(0, "etc/kesta/archives.conf"), "# of this controller\n" + setting + "\n");
    }
};

TEST_F(ArchiveBomb, HolesOfATebibyteAreRefusedAndWhatComesLastIsDone)
{
    define("", two_paths,
           script_line("pre-script", "cp /opt/plant.tar.bz2 " + flash_backup + "; " + note("stopped"), 1) +
               script_line("post-script", note("started"), 1));
    succeed(
        "mkdir -p /opt/big/etc/app/more && cd /opt/big && cp /etc/app/one etc/app && "
        "truncate -s 1T etc/app/more/two && tar -S -cjf " +
        flash_backup + " etc; rm -r /opt/big; kestactl copy cntbackup2backup --force");
    const Ran refused = ctl(0, "restore network");
    expect_refusal(refused, 1, "holds more than 4294967296 bytes");
    EXPECT_THAT(refused.err, HasSubstr("raise archive_bytes in /etc/kesta/archives.conf"));
    EXPECT_EQ(file_on(0, "/etc/app/one"), "one\n");
    expect_nothing_outside("holes");
}

TEST_F(ArchiveBomb, LimitsAreSettings)
{
    plant("add('etc/app/one'); folder('etc/app/more'); add('etc/app/more/two', text=b'0' * 100000)");
    limit("archive_bytes = 99999");
    expect_refusal(ctl(0, "restore network"), 1, "holds more than 99999 bytes");
    expect_refusal(ctl(0, "accept"), 1, "holds more than 99999 bytes");
    EXPECT_EQ(ctl(0, "verify").code, 4) << "nobody knows whether it is whole";
    limit("archive_members = 2");
    expect_refusal(ctl(0, "restore network"), 1, "holds more than 2 members");
    limit("archive_bytes = many");
    expect_refusal(ctl(0, "restore network"), 4, "archives.conf:2: 'archive_bytes = many'");
    limit("archive_bytes=200000");
    EXPECT_EQ(ctl(0, "restore network").code, 0);
    limit("archive_bytes = 99999");
    expect_refusal(ctl(0, "save network"), 1, "/etc/app/more/two");
}

TEST_F(ArchiveBomb, WhatIsPackedTooWellIsRefusedEarly)
{
    succeed(
        "mkdir -p /opt/big/etc/app/more && cd /opt/big && cp /etc/app/one etc/app && "
        "truncate -s 100M etc/app/more/two && tar -cjf " +
        flash_backup + " etc; rm -r /opt/big; kestactl copy cntbackup2backup --force");
    expect_refusal(ctl(0, "restore network --dry-run"), 1, "1000 times its own size");
    limit("archive_ratio = 10000000");
    EXPECT_EQ(ctl(0, "restore network").code, 0);
    EXPECT_EQ(on(0, "stat -c %s /etc/app/more/two").out, "104857600\n");
}

TEST_F(ArchiveBomb, LongHeadersAreNotReadIntoMemory)
{
    for (const char *kind : {"x", "g", "L", "K"}) {
        plant("info = tarfile.TarInfo('././@PaxHeader'); info.type = b'" + std::string(kind) +
              "'; info.size = 1 << 30\n"
              "data = bz2.compress(info.tobuf(tarfile.USTAR_FORMAT)) + 16 * bz2.compress(bytes(1 << 26), 1)\n"
              "open('/opt/long.tar.bz2', 'wb').write(data)\n"
              "add('etc/app/one')");
        succeed("cp /opt/long.tar.bz2 " + flash_backup + " && kestactl copy cntbackup2backup --force");
        const Ran refused =
            on(0,
               "python3 -c 'import resource, subprocess, sys; run = subprocess.run([\"kestactl\", \"restore\", "
               "\"network\"]); print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss); "
               "sys.exit(run.returncode)'");
        expect_refusal(refused, 1, "is damaged");
        EXPECT_LT(std::stoi(refused.out), 200000) << "kibibytes";
    }
}

TEST_F(ArchiveBomb, SignalEndsTheReading)
{
    limit("archive_bytes = 1000000000000\narchive_ratio = 100000000000");
    succeed(
        "cd /opt && python3 -c \"import tarfile; i = tarfile.TarInfo('etc/app/one'); i.size = 30 << 30; "
        "open('/opt/head', 'wb').write(i.tobuf(tarfile.GNU_FORMAT))\" && "
        "(cat /opt/head; head -c 90000000 /dev/zero) | bzip2 -1 > /opt/head.bz2 && head -c 90000000 /dev/zero | bzip2 -1 > /opt/zeros.bz2 && "
        "(cat /opt/head.bz2; for i in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20; do cat /opt/zeros.bz2; done) > " +
        flash_backup + " && kestactl copy cntbackup2backup --force");
    // The signal comes as soon as the command holds it back to look at it by itself.
    const Ran stopped = on(0,
                           "kestactl restore network --dry-run & p=$!; "
                           "until awk '/^SigBlk/ { exit $2 == \"0000000000000000\" }' /proc/$p/status || "
                           "! kill -0 $p; do :; done; kill -TERM $p; wait $p; echo $?");
    EXPECT_EQ(stopped.out, "143\n") << "ended by itself, not killed";
    EXPECT_THAT(stopped.err, HasSubstr("Interrupted"));
}
