// The identity of controllers, on a lab: its platform commands, the operator's commands, and the whole
// story of a board that is replaced.
#include <algorithm>

#include "lab_fixture.h"

using namespace test;
using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;

namespace {

const std::string old_wwn = "500000E0D0000001";
const std::string old_serialno = "KESTA00000000001";
const std::string old_guid = "00000000-1111-2222-3333-444444444444";
const std::string new_wwn = "500000E0D0000002";
const std::string new_serialno = "KESTA00000000002";
const std::string new_guid = "0123abcd-4567-89ab-cdef-0123456789ab";

const std::string vpdctl = "/opt/kesta_sys/sbin/env_vpdctl";
const std::string distribute = "/bin/sh /opt/kesta_sys/sbin/env_tarz_assign_distribute.sh";
const std::string collect = "/bin/sh /opt/kesta_sys/sbin/env_tarz_assign_collect.sh";
const std::string flash_archive = "/opt/kesta_sys/bakup/backup.tar.Z";
const std::string tree = "/var/run/kesta_sys/env_restore2";

}  // namespace

class LabIdentity : public LabTest {
protected:
    void succeed(int controller, const std::string &command) const
    {
        const Ran run = on(controller, command);
        ASSERT_EQ(run.code, 0) << command << "\n" << run.out << run.err;
    }
    // A saved environment with a part for each controller, as it is after an installation.
    void save_parts(int controller) const
    {
        std::string make =
            "rm -rf /tmp/src && mkdir -p /tmp/src/C/etc/inet && cd /tmp/src && "
            "echo " +
            old_guid +
            " > C/etc/cp_guid && "
            "printf '192.168.100.10 CNT0 %s-0\\n192.168.100.11 CNT1 %s-1\\n' " +
            old_wwn + " " + old_wwn +
            " > C/etc/inet/hosts && "
            "mkdir -p C/etc/app && echo kept > C/etc/app/settings";
        for (const std::string part : {"0", "1"}) {
            make += " && mkdir -p " + part + "/etc " + part + "/boot/solaris && echo " + old_wwn + "-" + part + " > " +
                    part + "/etc/nodename && printf 'MODEL=K1\\ncp_wwn=" + old_wwn +
                    "\\ncp_serial_number=" + old_serialno + "\\n' > " + part + "/boot/solaris/bootenv.rc";
        }
        succeed(controller, make + " && tar -cjf " + flash_archive + " -- *");
    }
    // What an archive holds: a line for each file with its contents' checksum.
    std::string contents(int controller, const std::string &archive) const
    {
        const Ran run = on(controller, "rm -rf /tmp/look && mkdir /tmp/look && cd /tmp/look && tar -xjf " + archive +
                                           " && find . -type f | sort | xargs sha256sum");
        EXPECT_EQ(run.code, 0) << run.err;
        return run.out;
    }
    // Two controllers of one identity, with everything in order.
    void install()
    {
        set_slots();
        succeed(0, "for area in numbering backup reboot; do kestactl version set $area 41; done");
        for (const int n : {0, 1}) {
            save_parts(n);
            const std::string name = old_wwn + "-" + std::to_string(n);
            succeed(n, "echo " + name + " > /etc/nodename && tar -C / -xjf " + flash_archive +
                           " --strip-components=1 C && eeprom MODEL=K1 && "
                           "kestactl version set current 41 && kestactl version set flash 41 && "
                           "kestactl identity set --wwn " +
                           old_wwn + " --serialno " + old_serialno + " --guid " + old_guid);
            const Ran shown = ctl(n, "identity show");
            ASSERT_EQ(shown.code, 0) << shown.out << shown.err;
        }
        succeed(0, "kestactl repair && kestactl copy cntbackup2backup");
    }
    void replace_board() const { succeed(0, vpdctl + " -w " + new_wwn + " -s " + new_serialno + " -g " + new_guid); }
    // Everything but the trace logs, and the log of what was run.
    std::map<std::string, std::string> state() const
    {
        std::map<std::string, std::string> files = snapshot();
        std::erase_if(files, [](const auto &file) {
            return file.first.find("trace.log") != std::string::npos || file.first.find("/tmp") != std::string::npos ||
                   file.first.find("mycntno") != std::string::npos || file.first.ends_with("/generations") ||
                   file.first.ends_with("/changes.json");
        });
        return files;
    }
    static std::vector<std::string> changed(const std::map<std::string, std::string> &before,
                                            const std::map<std::string, std::string> &after)
    {
        std::vector<std::string> names;
        for (const auto &[name, what] : after) {
            const auto found = before.find(name);
            if (found == before.end() || found->second != what) {
                names.push_back(name);
            }
        }
        return names;
    }
};

// ------------------------------------------------------------------------------- the platform's part

TEST_F(LabIdentity, EepromKeepsValues)
{
    EXPECT_EQ(on(0, "eeprom cp_wwn=" + old_wwn + " 'note=two words'").code, 0);
    EXPECT_EQ(on(0, "eeprom cp_wwn").out, "cp_wwn=" + old_wwn + "\n");
    EXPECT_EQ(on(0, "eeprom").out, "cp_wwn=" + old_wwn + "\nnote=two words\n");
    EXPECT_EQ(on(0, "eeprom cp_wwn=").code, 0);
    EXPECT_EQ(on(0, "eeprom cp_wwn").out, "cp_wwn=\n");
    EXPECT_EQ(on(0, "eeprom nothing").code, 1);
    EXPECT_EQ(on(0, "eeprom nothing").out, "");
    EXPECT_EQ(on(1, "eeprom cp_wwn").code, 1) << "another controller's";
    EXPECT_EQ(on(0, "eeprom -f /tmp/other a=1 && eeprom -f /tmp/other").out, "a=1\n");
    EXPECT_EQ(on(0, "eeprom -f /no/such/folder/file a=1").code, 1);
    for (const char *wrong : {"-f", "-x", "=1", "'a b=1'", "\"$(printf 'a=1\\nb=2')\""}) {
        EXPECT_EQ(on(0, std::string("eeprom ") + wrong).code, 2) << wrong;
    }
    EXPECT_EQ(on(0, "eeprom --help").code, 0);
    // Writers wait for each other.
    succeed(0, "for i in 1 2 3 4 5 6 7 8; do eeprom v$i=$i & done; wait");
    EXPECT_EQ(on(0, "eeprom | grep -c ^v").out, "8\n");
}

TEST_F(LabIdentity, VpdToolKeepsTheBoardsIdentity)
{
    EXPECT_EQ(on(0, vpdctl + " -r").out, "\n\n\n");
    EXPECT_EQ(on(0, vpdctl + " -s " + new_serialno).code, 0);
    EXPECT_EQ(on(0, vpdctl + " -w " + new_wwn + " -g " + new_guid).code, 0);
    EXPECT_EQ(on(0, vpdctl + " -r").out, new_wwn + "\n" + new_serialno + "\n" + new_guid + "\n");
    for (const char *wrong : {"", "-w", "-w  -s  -g", "-r -w x", "-x", "-r more"}) {
        EXPECT_EQ(on(0, vpdctl + " " + wrong).code, 2) << wrong;
    }
    EXPECT_EQ(on(0, vpdctl + " -r").out, new_wwn + "\n" + new_serialno + "\n" + new_guid + "\n");
}

// An archive made by hand in the place of the saved environment; a Python text that adds its members.
class LabHostileIdentity : public LabIdentity {
protected:
    LabHostileIdentity()
    {
        install();
        replace_board();
        succeed(0, "mkdir -m 700 /opt/outside && echo secret > /opt/outside/file && chmod 600 /opt/outside/file");
        outside_ = on(0, look_outside).out;
    }
    void plant(const std::string &members) const
    {
        write_file(host_path(0, "opt/plant.py"),
                   "import io, tarfile\n"
                   "tar = tarfile.open('" +
                       flash_archive +
                       "', 'w:bz2', format=tarfile.GNU_FORMAT)\n"
                       "def add(name, kind=tarfile.REGTYPE, target='', text=b'planted\\n', mode=0o644):\n"
                       "    info = tarfile.TarInfo(name)\n"
                       "    info.type, info.linkname, info.mode = kind, target, mode\n"
                       "    info.size = len(text) if kind == tarfile.REGTYPE else 0\n"
                       "    tar.addfile(info, io.BytesIO(text) if info.size else None)\n" +
                       members + "\ntar.close()\n");
        succeed(0, "python3 /opt/plant.py");
    }
    void expect_untouched(const std::string &members) const
    {
        EXPECT_EQ(on(0, look_outside).out, outside_) << members;
        EXPECT_EQ(on(0, "find /var/run/kesta_sys -perm /6000 -o -name '*.new'").out, "") << members;
    }
    void expect_refused(const std::string &members) const
    {
        plant(members);
        // By the command, before it begins, and by the script that opens the archive.
        for (const char *dry : {" --dry-run", ""}) {
            const Ran refused = on(0, std::string("timeout 60 kestactl identity carry vpd-to-flash") + dry);
            EXPECT_EQ(refused.code, 1) << members << refused.out << refused.err;
        }
        EXPECT_EQ(on(0, "timeout 60 " + distribute + " /opt/kesta_sys/bakup/").code, 1) << members;
        expect_untouched(members);
    }

private:
    static inline const std::string look_outside =
        "ls -lA /opt/outside /etc/nodename /etc/cp_guid /etc/inet; cat /opt/outside/file /etc/nodename /etc/cp_guid";
    std::string outside_;
};

TEST_F(LabHostileIdentity, OnlyFoldersAndPlainFilesAreUnpacked)
{
    for (const std::string members :
         {"add('1/etc/nodename', tarfile.SYMTYPE, '/opt/outside/file')",
          "add('C/etc/cp_guid', tarfile.SYMTYPE, '/opt/outside/new')",
          "add('0/etc/nodename', tarfile.SYMTYPE, '/opt/outside/file')",
          "add('0/etc/nodename', tarfile.LNKTYPE, '/opt/outside/file')", "add('0', tarfile.SYMTYPE, '/opt/outside')",
          "add('1', tarfile.SYMTYPE, '/opt/outside')", "add('C', tarfile.SYMTYPE, '/opt/outside')",
          "add('C/etc/inet', tarfile.SYMTYPE, '/opt/outside')", "add('0/etc/nodename', tarfile.FIFOTYPE)",
          "add('0/boot/solaris/bootenv.rc', tarfile.FIFOTYPE)", "add('C/etc/cp_guid', tarfile.FIFOTYPE)",
          "add('C/dev', tarfile.CHRTYPE)", "add('C/etc/prog', mode=0o4755)", "add('C/etc/prog', mode=0o2755)",
          "add('0'); add('1'); add('C')", "add('../../../../opt/outside/new')",
          "add('C/etc/a\\n-rw-r--r-- 0/0 1 2000-01-01 00:00 b', tarfile.SYMTYPE, '/opt/outside')"}) {
        expect_refused(members);
    }
}

TEST_F(LabHostileIdentity, NothingRawReachesTheTerminal)
{
    plant("add('C/etc/\\x1b[31m\\x9bred\\x7f', mode=0o4755)");
    const Ran refused = on(0, distribute + " /opt/kesta_sys/bakup/");
    EXPECT_EQ(refused.code, 1);
    EXPECT_THAT(refused.err, HasSubstr("which runs with the rights"));
    EXPECT_EQ(refused.err.find_first_of("\x1b\x7f\x9b\xc2"), std::string::npos) << refused.err;
    EXPECT_EQ(on(0, distribute + " '/opt/\\033[31m\x1b'").err.find('\x1b'), std::string::npos);
}

TEST_F(LabHostileIdentity, TreeIsForRootOnly)
{
    plant(
        "add('./', tarfile.DIRTYPE, mode=0o777); add('C/etc/secret', mode=0o666); "
        "add('0/etc/nodename', text=b'" +
        old_wwn + "-0\\n'); add('1/etc/nodename', text=b'" + old_wwn + "-1\\n')");
    EXPECT_EQ(on(0, distribute + " /opt/kesta_sys/bakup/ && stat -c %a " + tree).out, "700\n");
    const Ran carried = ctl(0, "identity carry vpd-to-flash");
    EXPECT_EQ(carried.code, 0) << carried.err;
    EXPECT_EQ(on(0, "stat -c %a " + tree).out, "700\n");
    EXPECT_EQ(on(0, "cat /etc/nodename").out, new_wwn + "-0\n");
    EXPECT_EQ(on(0, "tar -tvjf " + flash_archive + " | grep -c secret").out, "1\n");
}

TEST_F(LabHostileIdentity, TooMuchIsRefused)
{
    write_file(host_path(0, "etc/kesta/archives.conf"), "archive_bytes = 50000\narchive_members = 20\n");
    expect_refused("add('C/etc/large', text=b'0' * 60000)");
    expect_refused("for i in range(21): add('C/etc/%d' % i)");
    fs::remove(host_path(0, "etc/kesta/archives.conf"));
    succeed(0, "head -c 90000000 /dev/zero | bzip2 > " + flash_archive);
    const Ran refused = on(0, distribute + " /opt/kesta_sys/bakup/");
    EXPECT_EQ(refused.code, 1);
    EXPECT_THAT(refused.err, HasSubstr("holds more than 67108864 bytes"));
    succeed(0, "mkdir -p /opt/big/C/etc && cd /opt/big && truncate -s 1T C/etc/holes && tar -S -cjf " + flash_archive +
                   " C");
    EXPECT_THAT(on(0, distribute + " /opt/kesta_sys/bakup/").err, HasSubstr("holds files of more than"));
    succeed(0, "head -c 100 " + flash_archive + " > /opt/cut && cp /opt/cut " + flash_archive);
    EXPECT_THAT(on(0, distribute + " /opt/kesta_sys/bakup/").err, HasSubstr("is damaged"));
}

TEST_F(LabHostileIdentity, EepromWaitsForNothing)
{
    succeed(0, "mkfifo /opt/fifo && ln -s /opt/outside/file /opt/link");
    EXPECT_EQ(on(0, "timeout 60 eeprom -f /opt/fifo").code, 1);
    EXPECT_EQ(on(0, "timeout 60 eeprom -f /opt/link").code, 1);
}

TEST_F(LabIdentity, SavedEnvironmentIsOpenedAndPackedAgain)
{
    save_parts(0);
    const std::string before = contents(0, flash_archive);
    EXPECT_EQ(on(0, distribute + " /opt/kesta_sys/bakup/").code, 0);
    EXPECT_EQ(file_on(0, tree + "/1/etc/nodename"), old_wwn + "-1\n");
    EXPECT_EQ(on(0, "echo mine > " + tree + "/0/etc/nodename && " + collect + " 0").code, 0);
    EXPECT_NE(contents(0, flash_archive), before);
    EXPECT_EQ(file_on(0, tree + "/0/etc/nodename"), "mine\n");
    EXPECT_EQ(on(0, collect + " 1").code, 0);
    EXPECT_EQ(contents(0, "/var/run/kesta_sys/tmp/backup.tar.Z"), contents(0, flash_archive));
    EXPECT_EQ(on(0, "stat -c %a " + flash_archive).out, "644\n");
    EXPECT_EQ(on(0, "ls /opt/kesta_sys/bakup /var/run/kesta_sys/tmp | grep -c 'new\\|[.]tar$'").out, "0\n");

    // What can't be used leaves the tree and the archives alone.
    EXPECT_EQ(on(0, collect + " 2").code, 1);
    EXPECT_EQ(on(0, collect).code, 1);
    EXPECT_EQ(on(0, distribute + " /tmp/nowhere").code, 1);
    EXPECT_EQ(on(0, "mkdir /tmp/bad && head -c 200 " + flash_archive + " > /tmp/bad/backup.tar.Z && " + distribute +
                        " /tmp/bad")
                  .code,
              1);
    EXPECT_EQ(file_on(0, tree + "/0/etc/nodename"), "mine\n");
    EXPECT_EQ(on(0, "rm -rf " + tree + " && " + collect + " 0").code, 1);
    // For the merge cache it is the archive that was fetched into the temporary cache.
    EXPECT_EQ(on(0, "cp " + flash_archive +
                        " /tmp/kesta_sys/tmp/backup.tar.Z && rm -f "
                        "/var/run/kesta_sys/tmp/backup.tar.Z && " +
                        distribute + " /var/run/kesta_sys/tmp/")
                  .code,
              0);
    EXPECT_EQ(file_on(0, tree + "/0/etc/nodename"), "mine\n");
}

// ------------------------------------------------------------------------------------- the operator's

TEST_F(LabIdentity, ShowMarksWhatDiffers)
{
    install();
    replace_board();
    const Ran shown = ctl(0, "identity show");
    EXPECT_EQ(shown.code, 1);
    EXPECT_THAT(shown.out, AllOf(HasSubstr("!! WWN"), HasSubstr(new_wwn), HasSubstr("vpd-to-flash")));
    const json values = ctl(0, "--json identity show").json().at("result").at("values");
    EXPECT_EQ(values.at("wwn").at("vpd"), new_wwn);
    EXPECT_EQ(values.at("wwn").at("disk"), old_wwn);
    EXPECT_TRUE(values.at("guid").at("differs").get<bool>());
    EXPECT_TRUE(values.at("guid").at("eeprom").is_null()) << "it keeps none";
    EXPECT_EQ(values.at("guid").at("memory"), old_guid);
}

TEST_F(LabIdentity, SetChecksItsValuesFirst)
{
    const std::string wrong[] = {"",
                                 "--wwn short",
                                 "--wwn 500000E0D000000123",
                                 "--wwn '5000 0E0D0000001'",
                                 "--wwn '$(reboot)0000000'",
                                 "--serialno -000000000000000",
                                 "--guid " + old_wwn,
                                 "--guid 0123abcd_4567-89ab-cdef-0123456789ab",
                                 "--wwn " + new_wwn + " --in nowhere",
                                 "--guid " + new_guid + " --in eeprom"};
    for (const std::string &arguments : wrong) {
        EXPECT_EQ(ctl(0, "identity set " + arguments).code, 2) << arguments;
    }
    EXPECT_EQ(ctl(0, "identity set --guid " + new_guid + " --in vpd").code, 0);
    const json values = ctl(0, "--json identity show").json().at("result").at("values");
    EXPECT_EQ(values.at("guid").at("vpd"), new_guid);
    EXPECT_EQ(values.at("guid").at("flash"), "") << "only where it was asked for";
}

TEST_F(LabIdentity, CarryingIsRefusedWhereItCanNotBeDone)
{
    EXPECT_EQ(ctl(0, "identity carry vpd-to-flash").code, 1) << "no identity anywhere";
    EXPECT_EQ(ctl(0, "identity carry vpd-to-disk").code, 1);
    EXPECT_EQ(ctl(1, "identity carry cnt0-to-cnt1").code, 1);
    EXPECT_EQ(ctl(0, "identity carry cnt0-to-cnt1").code, 2) << "not on this controller";
    EXPECT_EQ(ctl(2, "identity carry vpd-to-flash").code, 2);
    install();
    replace_board();
    succeed(0, "rm " + flash_archive);
    const Ran no_archive = ctl(0, "identity carry vpd-to-flash");
    EXPECT_EQ(no_archive.code, 1);
    EXPECT_THAT(no_archive.err, HasSubstr("saved environment"));
    succeed(0, "echo damaged > " + flash_archive);
    for (const char *dry : {" --dry-run", ""}) {
        const Ran damaged = ctl(0, std::string("identity carry vpd-to-flash") + dry);
        EXPECT_EQ(damaged.code, 1) << "the dry run tells what the real one would meet";
        EXPECT_THAT(damaged.err, HasSubstr(flash_archive));
    }
    EXPECT_EQ(on(0, "eeprom cp_wwn").out, "cp_wwn=" + old_wwn + "\n");
}

TEST_F(LabIdentity, BoardWithoutAnIdentityGetsTheControllers)
{
    install();
    succeed(0, "rm /opt/kesta_platform/vpd");
    const Ran carried = ctl(0, "identity carry vpd-to-flash");
    EXPECT_EQ(carried.code, 0) << carried.err;
    EXPECT_EQ(on(0, vpdctl + " -r").out, old_wwn + "\n" + old_serialno + "\n" + old_guid + "\n");
    EXPECT_EQ(ctl(0, "identity show").code, 0);
}

TEST_F(LabIdentity, TheDiskCanBeRight)
{
    install();
    replace_board();
    const Ran planned = ctl(0, "--json identity carry vpd-to-disk --dry-run");
    EXPECT_EQ(planned.json().at("result").at("from").at("wwn"), old_wwn);
    EXPECT_EQ(ctl(0, "identity carry vpd-to-disk").code, 0);
    EXPECT_EQ(on(0, vpdctl + " -r").out, old_wwn + "\n" + old_serialno + "\n" + old_guid + "\n");
    EXPECT_EQ(ctl(0, "identity show").code, 0);
    EXPECT_THAT(ctl(0, "identity carry vpd-to-disk").out, HasSubstr("Nothing to carry"));
}

TEST_F(LabIdentity, ValueThatAShellWouldActOnIsRefusedByName)
{
    install();
    replace_board();
    const std::string strange = "KESTA;reboot;007";
    succeed(0, "kestactl nv write serialno '" + strange + "'");
    const Ran refused = ctl(0, "identity carry vpd-to-disk");
    EXPECT_EQ(refused.code, 1);
    EXPECT_THAT(refused.err, HasSubstr("The NV image holds '" + strange + "'"));
    EXPECT_NE(on(0, vpdctl + " -r").out.find(new_serialno), std::string::npos) << "left as it was";
}

TEST_F(LabIdentity, NameGivenByHandStays)
{
    install();
    succeed(0, "mkdir /tmp/e && cd /tmp/e && tar -xjf " + flash_archive +
                   " && echo storage-a > "
                   "0/etc/nodename && tar -cjf " +
                   flash_archive + " -- * && echo storage-a > /etc/nodename");
    replace_board();
    EXPECT_EQ(ctl(0, "identity carry vpd-to-flash").code, 0);
    EXPECT_EQ(file_on(0, "/etc/nodename"), "storage-a\n");
    EXPECT_THAT(file_on(0, "/etc/inet/hosts"), HasSubstr(old_wwn)) << "left alone as well";
    const Ran shown = ctl(0, "identity show");
    EXPECT_EQ(shown.code, 0) << shown.out;
    EXPECT_THAT(shown.out, HasSubstr("set by hand"));
}

// ------------------------------------------------------- what kestactl save saved, before the board was replaced

// Nobody makes parts in these archives: a group, some of its files those that the identity is part of.
class LabSavedIdentity : public LabIdentity {
protected:
    LabSavedIdentity()
    {
        set_slots();
        for (const int n : {0, 1}) {
            const std::string name = old_wwn + "-" + std::to_string(n);
            succeed(n,
                    "mkdir -p /etc/app /etc/kesta_sys/app && echo kept > /etc/app/settings && "
                    "ln -s settings /etc/app/link && ln /etc/app/settings /etc/app/second && eeprom MODEL=K" +
                        std::to_string(n) + " && echo " + name +
                        " > /etc/nodename && "
                        "kestactl identity set --wwn " +
                        old_wwn + " --serialno " + old_serialno + " --guid " + old_guid);
            define(n, "<file path=\"/etc/app\"/>");
        }
        succeed(0, "kestactl repair");
    }
    void define(int controller, const std::string &files) const
    {
        write_file(host_path(controller, "etc/kesta_sys/app/define.xml"),
                   "<?xml version=\"1.0\"?>\n<group id=\"app\" operation=\"update\" type=\"files\"><setinfo>" + files +
                       "</setinfo></group>\n");
    }
    // What verify says of the identity; empty: nothing is to be done.
    std::string advice(int controller) const
    {
        const json verified = ctl(controller, "--json verify").json();
        for (const json &row : verified.at("result").at("subjects")) {
            if (row.at("subject") == "identity") {
                return row.at("state") == "agree" ? "" : row.at("text").get<std::string>();
            }
        }
        return "no row";
    }
    // The two commands of the page, with a dry run before each; verify names the next one, and then no more.
    void carry_to_both() const
    {
        EXPECT_THAT(advice(0), HasSubstr("'kestactl identity carry vpd-to-flash'"));
        for (const char *dry : {" --dry-run", ""}) {
            const Ran carried = ctl(0, std::string("identity carry vpd-to-flash") + dry);
            ASSERT_EQ(carried.code, 0) << carried.out << carried.err;
        }
        EXPECT_EQ(advice(0), "");
        EXPECT_THAT(advice(1), HasSubstr("'kestactl identity carry cnt0-to-cnt1' and then"));
        succeed(0, "kestactl copy cntbackup2backup");
        for (const char *dry : {" --dry-run", ""}) {
            const Ran followed = ctl(1, std::string("identity carry cnt0-to-cnt1") + dry);
            ASSERT_EQ(followed.code, 0) << followed.out << followed.err;
        }
        EXPECT_THAT(advice(1), HasSubstr("'kestactl identity carry vpd-to-disk'"));
        succeed(1, "kestactl identity carry vpd-to-disk");
        EXPECT_EQ(advice(0) + advice(1), "");
    }
    void expect_carried(int controller, const std::string &name) const
    {
        const Ran shown = ctl(controller, "identity show");
        EXPECT_EQ(shown.code, 0) << shown.out;
        EXPECT_EQ(file_on(controller, "/etc/nodename"), name + "\n");
        EXPECT_EQ(file_on(controller, "/etc/cp_guid"), new_guid + "\n");
        EXPECT_EQ(on(controller, "eeprom").out, "MODEL=K" + std::to_string(controller) + "\ncp_wwn=" + new_wwn +
                                                    "\ncp_serial_number=" + new_serialno + "\n")
            << "its own other values stay";
    }
};

TEST_F(LabSavedIdentity, BothControllersFollowAndTheEnvironmentStaysWhatItWas)
{
    succeed(0, "kestactl save app && kestactl accept");
    const std::string listed = on(0, "tar -tvjf " + flash_archive).out;
    replace_board();
    carry_to_both();
    for (const int n : {0, 1}) {
        expect_carried(n, new_wwn + "-" + std::to_string(n));
        EXPECT_THAT(file_on(n, "/etc/inet/hosts"), HasSubstr("CNT1 " + new_wwn + "-1\n"));
        EXPECT_EQ(on(n, "tar -tvjf " + flash_archive + " | grep etc/ | grep -v ' [01C]/'").out, listed)
            << "the group's files, links and second names";
        EXPECT_EQ(on(n, "tar -tjf " + flash_archive + " | grep -c ^[01C]/").out, n == 0 ? "15\n" : "17\n")
            << "with both controllers' own files, or the first one's";
    }
    // It can be restored, here and there, and the identity stays.
    for (const int n : {0, 1}) {
        succeed(n, "echo lost > /etc/app/settings && kestactl restore app && grep -q kept /etc/app/settings");
        expect_carried(n, new_wwn + "-" + std::to_string(n));
    }
    succeed(0, "kestactl save app && kestactl accept");
    EXPECT_EQ(ctl(0, "verify").code, 0) << ctl(0, "verify").out;
}

TEST_F(LabSavedIdentity, FilesOfTheGroupThatHaveTheIdentityFollow)
{
    define(0, "<file path=\"/etc/nodename\"/><file path=\"/etc/cp_guid\"/><file path=\"/boot/solaris/bootenv.rc\"/>");
    succeed(0, "chmod 640 /etc/nodename /boot/solaris/bootenv.rc && kestactl save app");
    succeed(1, "rm /etc/nodename");
    replace_board();
    carry_to_both();
    expect_carried(0, new_wwn + "-0");
    expect_carried(1, "cnt1");  // what it is called without one
    succeed(0, "kestactl restore app");
    expect_carried(0, new_wwn + "-0");
    EXPECT_EQ(on(0, "stat -c %a /etc/nodename /boot/solaris/bootenv.rc").out, "640\n640\n");
}

TEST_F(LabSavedIdentity, NamesGivenByHandStayOnBoth)
{
    succeed(0, "echo storage-a > /etc/nodename && kestactl save app");
    succeed(1, "echo storage-b > /etc/nodename && echo '10.0.0.1 mine' > /etc/inet/hosts");
    replace_board();
    carry_to_both();
    expect_carried(0, "storage-a");
    EXPECT_EQ(file_on(0, "/etc/inet/hosts"), "") << "there was none";
    expect_carried(1, "storage-b");
    EXPECT_EQ(file_on(1, "/etc/inet/hosts"), "10.0.0.1 mine\n");
}

TEST_F(LabSavedIdentity, WhatTheRunWouldMeetTheDryRunTells)
{
    replace_board();
    const auto expect_told = [this](int controller, const std::string &flow, const std::string &why) {
        for (const char *dry : {" --dry-run", ""}) {
            const Ran refused = ctl(controller, "identity carry " + flow + dry);
            EXPECT_EQ(refused.code, 1) << why << refused.out;
            EXPECT_THAT(refused.err, HasSubstr(why)) << dry;
        }
    };
    expect_told(0, "vpd-to-flash", "put one there first");
    succeed(0, "kestactl save app && kestactl identity set --wwn " + new_wwn + " --in nv");
    succeed(0, "kestactl version set backup 0");
    expect_told(1, "cnt0-to-cnt1", "no backup version");
    succeed(0,
            "kestactl version set backup 1 && head -c 100 /opt/kesta_platform/shared/sysback/kesta_backup0 > /tmp/cut "
            "&& cp /tmp/cut /opt/kesta_platform/shared/sysback/kesta_backup0");
    expect_told(1, "cnt0-to-cnt1", "Slot kesta_backup0");
}

// ---------------------------------------------------------------------------------------- the story

TEST_F(LabIdentity, BoardIsReplacedAndBothControllersFollow)
{
    install();
    replace_board();
    ASSERT_EQ(ctl(0, "identity show").code, 1);

    // On controller 0 the board is right.
    const auto untouched = state();
    const Ran planned = ctl(0, "identity carry vpd-to-flash --dry-run");
    EXPECT_EQ(planned.code, 0) << planned.err;
    EXPECT_THAT(planned.out, AllOf(HasSubstr("/etc/inet/hosts"), HasSubstr("write the NV image")));
    EXPECT_TRUE(state() == untouched);
    const Ran carried = ctl(0, "identity carry vpd-to-flash");
    EXPECT_EQ(carried.code, 0) << carried.err;
    for (const char *step : {"opening", "setting WWN", "writing the GUID", "naming", "packing"}) {
        EXPECT_THAT(carried.err, HasSubstr(std::string("... ") + step));
    }
    const Ran shown = ctl(0, "identity show");
    EXPECT_EQ(shown.code, 0) << shown.out;
    succeed(0, "kestactl copy cntbackup2backup");

    // Controller 1 follows.
    ASSERT_EQ(ctl(1, "identity show").code, 1);
    const Ran followed = ctl(1, "identity carry cnt0-to-cnt1");
    EXPECT_EQ(followed.code, 0) << followed.err;
    EXPECT_EQ(ctl(1, "identity carry vpd-to-disk").code, 0);
    const Ran same = ctl(1, "identity show");
    EXPECT_EQ(same.code, 0) << same.out;

    // Controller 0 takes the version that was raised.
    succeed(0, "kestactl version set current 42 && kestactl version set flash 42");

    // Both agree, in everything.
    const std::string archive = contents(0, flash_archive);
    EXPECT_THAT(archive, HasSubstr("C/etc/app/settings"));
    EXPECT_EQ(contents(1, flash_archive), archive);
    EXPECT_EQ(contents(1, "/opt/kesta_platform/shared/sysback/kesta_backup1"), archive);
    for (const int n : {0, 1}) {
        EXPECT_EQ(file_on(n, "/etc/nodename"), new_wwn + "-" + std::to_string(n) + "\n");
        EXPECT_EQ(file_on(n, "/etc/cp_guid"), new_guid + "\n");
        EXPECT_EQ(file_on(n, "/etc/kesta_sys/wwn"), new_wwn + "\n");
        EXPECT_EQ(file_on(n, "/etc/kesta_sys/version"), "42\n");
        EXPECT_EQ(on(n, "eeprom").out, "MODEL=K1\ncp_wwn=" + new_wwn + "\ncp_serial_number=" + new_serialno + "\n");
        EXPECT_EQ(ctl(n, "nv read version-cnt" + std::to_string(n)).out, "42\n");
    }
    const std::string hosts = file_on(0, "/etc/inet/hosts");
    EXPECT_EQ(hosts, "192.168.100.10 CNT0 " + new_wwn + "-0\n192.168.100.11 CNT1 " + new_wwn + "-1\n");
    EXPECT_EQ(file_on(1, "/etc/inet/hosts"), hosts);
    EXPECT_EQ(ctl(0, "nv read backup-version").out, "42\n");
    EXPECT_EQ(ctl(0, "nv read reboot-version").out, "42\n");
    EXPECT_EQ(ctl(0, "nv verify").code, 0) << ctl(0, "nv verify").out;
    EXPECT_EQ(ctl(1, "slot show").code, 0);

    // A second run changes nothing.
    const auto before = state();
    for (const auto &[controller, flow] : {std::pair(0, "vpd-to-flash"), std::pair(0, "vpd-to-disk"),
                                           std::pair(1, "cnt0-to-cnt1"), std::pair(1, "vpd-to-disk")}) {
        const Ran again = ctl(controller, std::string("identity carry ") + flow);
        EXPECT_EQ(again.code, 0) << again.err;
        EXPECT_THAT(again.out, HasSubstr("Nothing to carry")) << flow;
    }
    EXPECT_THAT(changed(before, state()), testing::IsEmpty());
}
