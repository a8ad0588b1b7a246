// The flows that carry a changed identity into the saved environments.
#include <limits.h>
#include <string.h>

#include "access_mode.h"
#include "controller_state.h"
#include "library_test.h"
#include "vpd_state.h"

using namespace test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

const std::string tree = "/var/run/kesta_sys/env_restore2";
const std::string hosts = tree + "/C/etc/inet/hosts";
const std::string guid_file = tree + "/C/etc/cp_guid";

const std::string read_tool = "/opt/kesta_sys/sbin/env_vpdctl -r 2> /dev/null";
const std::string old_wwn = "5000000011111111";
const std::string new_wwn = "5000000022222222";
const std::string old_serialno = "SERIAL0000000001";
const std::string new_serialno = "SERIAL0000000002";
const std::string old_guid = "00000000-1111-2222-3333-444444444444";
const std::string new_guid = "0123abcd-4567-89ab-cdef-0123456789ab";

const std::string distribute =
    "/bin/sh /opt/kesta_sys/sbin/env_tarz_assign_distribute.sh /opt/kesta_sys/bakup/ > /dev/null 2>&1";
const std::string distribute_merged =
    "/bin/sh /opt/kesta_sys/sbin/env_tarz_assign_distribute.sh /var/run/kesta_sys/tmp/ > /dev/null 2>&1";
const std::string collect = "/bin/sh /opt/kesta_sys/sbin/env_tarz_assign_collect.sh ";

std::string eeprom(int controller, const std::string &assignments)
{
    return "/usr/sbin/eeprom -f " + tree + "/" + std::to_string(controller) + "/boot/solaris/bootenv.rc" + assignments;
}

std::string identity(const std::string &wwn, const std::string &serialno)
{
    return " cp_wwn=" + wwn + " cp_serial_number=" + serialno;
}

}  // namespace

class VpdFlow : public LibraryTest {
protected:
    VpdFlow()
    {
        p().commands["/usr/sbin/cpinfo -i"] = {"0\n", 0};
        tool(new_wwn, new_serialno, new_guid);
        for (const char *part : {"0", "1"}) {
            write_file(nodename(part), old_wwn + "-" + part + "\n");
        }
        write_file(hosts, "as it was\n");
        write_file(guid_file, old_guid + "\n");
        use_slots();
    }
    ~VpdFlow() override { exec("rm -rf " + tree); }

    static std::string nodename(const std::string &part) { return tree + "/" + part + "/etc/nodename"; }
    static void exec(const std::string &command) { EXPECT_EQ(run_shell(command), 0) << command; }
    void tool(const std::string &wwn, const std::string &serialno, const std::string &guid)
    {
        p().commands[read_tool] = {wwn + "\n" + serialno + "\n" + guid + "\n", 0};
    }
    // The VPD tool's write command, as the library forms it.
    static std::string write_tool(const std::string &wwn, const std::string &serialno, const std::string &guid)
    {
        return "/opt/kesta_sys/sbin/env_vpdctl -w " + wwn + " -s " + serialno + " -g " + guid + " > /dev/null 2>&1";
    }
    bool tool_was_written(const std::string &wwn, const std::string &serialno, const std::string &guid) const
    {
        for (const std::string &call : p().calls_of("popen")) {
            if (call == "popen " + write_tool(wwn, serialno, guid)) {
                return true;
            }
        }
        return false;
    }
    // The Nth shell command fails with this status, all others succeed.
    void fail_command(std::size_t nth, int exit_code = 3)
    {
        p().system_statuses.assign(nth, 0);
        p().system_statuses.push_back(exit_code << 8);
        p().system_statuses.push_back(0);
    }
    bool last_trace_is(int level, const std::string &text) const
    {
        return p().traces.back() == Trace{level, text, "../common/kestal_vpd_ctrl.cpp"};
    }
    // Forgets what the process knows, as a new one does.
    void new_process()
    {
        vpd_state.own_number = -1;
        vpd_state.controllers = -1;
        p().traces.clear();
        p().system_commands.clear();
        p().calls.clear();
    }
};

// ----------------------------------------------------------------------------- opening the tree

TEST_F(VpdFlow, TreeIsOpenedFromAFolder)
{
    EXPECT_EQ(kestal_update_vpdinfo_distribute_open("/opt/kesta_sys/bakup/", 0), 0);
    EXPECT_THAT(p().system_commands, ElementsAre(distribute));
    EXPECT_EQ(p().traces.front().text, "[update_vpdinfo_distribute_open] Start. path=/opt/kesta_sys/bakup/, flag=0");
    EXPECT_THAT(p().calls_of("sb_open"), IsEmpty());
    fail_command(0);
    EXPECT_EQ(kestal_update_vpdinfo_distribute_open("/opt/kesta_sys/bakup/", 0), -1);
    EXPECT_THAT(p().traces.back().text,
                testing::StartsWith("[update_vpdinfo_distribute_open] backup.tar.Z distribute Error. rtn=3, errno="));
}

TEST_F(VpdFlow, WithFlagOneTheBackupIsFetchedFirst)
{
    p().sysback["kesta_backup0"] = {"archive"};
    EXPECT_EQ(kestal_update_vpdinfo_distribute_open("/var/run/kesta_sys/tmp/", 1), 0);
    ASSERT_THAT(p().system_commands, SizeIs(2));
    EXPECT_THAT(p().system_commands[0], testing::HasSubstr("bunzip2"));
    EXPECT_EQ(p().system_commands[1], distribute_merged);
    EXPECT_EQ(read_file("/tmp/kesta_sys/tmp/backup.tar.Z"), "archive");
    p().sysback.clear();
    p().system_commands.clear();
    EXPECT_EQ(kestal_update_vpdinfo_distribute_open("/var/run/kesta_sys/tmp/", 1), -1);
    EXPECT_THAT(p().traces.back().text,
                testing::StartsWith("[update_vpdinfo_distribute_open] backup2tmp Error. rtn=-1, errno="));
    for (const std::string &command : p().system_commands) {
        EXPECT_NE(command, distribute_merged);
    }
}

// ------------------------------------------------------------------------- the boot environments

TEST_F(VpdFlow, BootEnvironmentsOfTwoControllersAreEdited)
{
    EXPECT_EQ(vpd_state.controllers, -1);
    EXPECT_EQ(kestal_update_vpdinfo_eeprom(new_wwn.c_str(), new_serialno.c_str()), 0);
    EXPECT_EQ(vpd_state.controllers, 2);
    EXPECT_THAT(p().system_commands,
                ElementsAre(eeprom(0, identity(new_wwn, new_serialno)), eeprom(1, identity(new_wwn, new_serialno))));
    EXPECT_EQ(p().traces.front().text, "[update_vpdinfo_eeprom] Start. wwnstr=" + new_wwn + ", snstr=" + new_serialno);
    EXPECT_TRUE(p().traced(3, "[update_vpdinfo_eeprom] Update tmp eeprom (cntno:1, cmd:" +
                                  eeprom(1, identity(new_wwn, new_serialno)) + ")"));
    EXPECT_TRUE(last_trace_is(3, "[update_vpdinfo_eeprom] Update tmp eeprom Success."));
}

TEST_F(VpdFlow, TextsThatAreNotGivenAreLeftOut)
{
    EXPECT_EQ(kestal_update_vpdinfo_eeprom(new_wwn.c_str(), nullptr), 0);
    EXPECT_EQ(kestal_update_vpdinfo_eeprom(nullptr, new_serialno.c_str()), 0);
    EXPECT_EQ(kestal_update_vpdinfo_eeprom(nullptr, nullptr), 0);
    EXPECT_THAT(p().system_commands,
                ElementsAre(eeprom(0, " cp_wwn=" + new_wwn), eeprom(1, " cp_wwn=" + new_wwn),
                            eeprom(0, " cp_serial_number=" + new_serialno),
                            eeprom(1, " cp_serial_number=" + new_serialno), eeprom(0, ""), eeprom(1, "")));
}

TEST_F(VpdFlow, FirstFailureEndsTheEditing)
{
    fail_command(0, 1);
    EXPECT_EQ(kestal_update_vpdinfo_eeprom(new_wwn.c_str(), nullptr), -1);
    EXPECT_THAT(p().system_commands, SizeIs(1));
    EXPECT_THAT(p().traces.back().text,
                testing::StartsWith("[update_vpdinfo_eeprom] Update tmp eeprom Failed. rtn=1, errno="));
    EXPECT_EQ(vpd_state.controllers, 2);
}

TEST_F(VpdFlow, TextsThatAShellWouldActOnAreRefused)
{
    for (const char *text : {"a b", "a;b", "$(x)", "`x`", "a'b", "a\"b", "a\nb", "a|b", "a&b", "a>b", "a*b", "a\\b",
                             "#b", "a!b", "~", "~b", "(a)", "{a,b}", "[a]"}) {
        EXPECT_EQ(kestal_update_vpdinfo_eeprom(text, nullptr), -931) << text;
        EXPECT_EQ(kestal_update_vpdinfo_eeprom(nullptr, text), -931) << text;
        EXPECT_EQ(kestal_update_vpdinfo_distribute_open(text, 1), -931) << text;
        EXPECT_EQ(kestal_set_vpn_info(text, nullptr, nullptr), -931) << text;
        EXPECT_EQ(kestal_set_vpn_info(nullptr, text, nullptr), -931) << text;
        EXPECT_EQ(kestal_set_vpn_info(nullptr, nullptr, text), -931) << text;
    }
    EXPECT_THAT(p().system_commands, IsEmpty());
    EXPECT_THAT(p().calls_of("popen"), IsEmpty());
    EXPECT_THAT(p().calls_of("sb_open"), IsEmpty());
    const char *all = "azAZ09._:+-=/@,%^#~\x80";
    EXPECT_EQ(kestal_update_vpdinfo_eeprom(all, all), 0);
    EXPECT_THAT(p().system_commands, SizeIs(2));
}

TEST_F(VpdFlow, TextsThatDoNotFitTheCommandAreRefused)
{
    const std::string frame = eeprom(0, " cp_wwn=");
    const std::string fits(511 - frame.size(), 'w');
    EXPECT_EQ(kestal_update_vpdinfo_eeprom(fits.c_str(), nullptr), 0);
    EXPECT_EQ(p().system_commands[0].size(), 511u);
    p().system_commands.clear();
    EXPECT_EQ(kestal_update_vpdinfo_eeprom((fits + "w").c_str(), nullptr), -931);
    EXPECT_EQ(kestal_update_vpdinfo_distribute_open(std::string(500, 'd').c_str(), 0), -931);
    EXPECT_EQ(kestal_update_vpdinfo_distribute_open(nullptr, 0), -931);
    EXPECT_THAT(p().system_commands, IsEmpty());
}

// --------------------------------------------------------------------------------------- the GUID

TEST_F(VpdFlow, GuidIsWrittenForAll)
{
    EXPECT_EQ(kestal_update_vpdinfo_guid(new_guid.c_str()), 0);
    EXPECT_EQ(read_file(guid_file), new_guid + "\n");
    EXPECT_TRUE(last_trace_is(4, "[update_vpdinfo_guid] Start. arg_guidstr"));
    EXPECT_EQ(kestal_update_vpdinfo_guid(nullptr), -931);
    EXPECT_EQ(kestal_update_vpdinfo_guid(std::string(63, 'g').c_str()), -931);
    EXPECT_EQ(read_file(guid_file), new_guid + "\n");
}

TEST_F(VpdFlow, GuidThatCanNotBeWrittenIsTold)
{
    for (const char *call : {"write", "close"}) {
        p().fail_kind(call, 0, 1);
        p().fault_errno = ENOSPC;
        EXPECT_EQ(kestal_update_vpdinfo_guid(new_guid.c_str()), -1) << call;
        EXPECT_TRUE(last_trace_is(1, "[update_vdpinfo_guid] fputs() error path=(" + guid_file + ") errno=28")) << call;
    }
    exec("rm -rf " + tree + "/C");
    EXPECT_EQ(kestal_update_vpdinfo_guid(new_guid.c_str()), -1);
    EXPECT_TRUE(last_trace_is(1, "[update_vdpinfo_guid] cp_guid open error filename=(" + guid_file + ") errno=2"));
}

TEST_F(VpdFlow, FilesOfTheTreeAreNeverReachedThroughLinks)
{
    const std::string outside = "/var/run/kesta_sys/outside";
    vpd_state.controllers = 2;
    write_file(outside, "as it was\n");
    const auto fails = [&](const std::string &because) {
        EXPECT_EQ(kestal_update_vpdinfo_guid(new_guid.c_str()), -1);
        EXPECT_TRUE(
            last_trace_is(1, "[update_vdpinfo_guid] cp_guid open error filename=(" + guid_file + ") errno=" + because));
        EXPECT_EQ(read_file(outside), "as it was\n");
    };
    exec("ln -sf " + outside + " " + guid_file);
    fails("40");
    exec("rm " + guid_file + "; ln " + outside + " " + guid_file);
    fails("31");
    exec("rm " + guid_file + "; mkfifo " + guid_file);
    fails("6");
    exec("rm -r " + tree + "/C/etc; mkdir /var/run/kesta_sys/elsewhere; ln -s /var/run/kesta_sys/elsewhere " + tree +
         "/C/etc");
    fails("20");
    EXPECT_EQ(run_shell("rmdir /var/run/kesta_sys/elsewhere"), 0) << "nothing was made in it";
    exec("ln -sf " + outside + " " + nodename("0"));
    EXPECT_EQ(kestal_update_host_info(new_wwn.c_str(), old_wwn.c_str()), 0)
        << "controller 0's number, which callers rely on";
    EXPECT_TRUE(last_trace_is(1, "[update_host_info] nodenamefile(" + nodename("0") + ") open failed. ret=0"));
    exec("rm " + nodename("0") + "; mkfifo " + nodename("0"));
    EXPECT_EQ(kestal_update_host_info(new_wwn.c_str(), old_wwn.c_str()), -1) << "without waiting";
    exec("rm " + outside);
}

// ---------------------------------------------------------------------------------- the host names

class HostInfo : public VpdFlow {
protected:
    HostInfo() { vpd_state.controllers = 2; }
    int update() { return kestal_update_host_info(new_wwn.c_str(), old_wwn.c_str()); }
    void expect_untouched()
    {
        EXPECT_EQ(read_file(hosts), "as it was\n");
        EXPECT_EQ(read_file(nodename("1")), old_wwn + "-1\n");
    }
};

TEST_F(HostInfo, NamesAndTableFollowTheNewWwn)
{
    EXPECT_EQ(update(), 0);
    EXPECT_EQ(read_file(hosts), "10.0.0.1 CNT0 " + new_wwn + "-0\n10.0.0.2 CNT1 " + new_wwn + "-1\n");
    EXPECT_EQ(read_file(nodename("0")), new_wwn + "-0\n");
    EXPECT_EQ(read_file(nodename("1")), new_wwn + "-1\n");
    EXPECT_EQ(vpd_state.own_number, 0);
    EXPECT_EQ(p().traces.front().text, "[update_host_info] Start. wwn_new=" + new_wwn + " wwn_old=" + old_wwn);
    EXPECT_TRUE(p().traced(3, "[update_host_info] " + nodename("0") + " hostname = " + old_wwn + "-0"));
    EXPECT_TRUE(p().traced(3, "[update_host_info] it is same wwn_hostname=[" + old_wwn + "-0] and now_hostname=[" +
                                  old_wwn + "-0] g_vpd_cnt_no=[0]. "));
    EXPECT_TRUE(last_trace_is(3, "[update_host_info] END wwn_new=[" + new_wwn + "] wwn_old=[" + old_wwn + "] ret=[0]"));
}

TEST_F(HostInfo, OnControllerOneTheOwnAddressIsTheSecondLine)
{
    p().commands["/usr/sbin/cpinfo -i"] = {"1\n", 0};
    new_process();
    controller_state.own_number = -1;
    vpd_state.controllers = 2;
    EXPECT_EQ(update(), 0);
    EXPECT_EQ(read_file(hosts), "10.0.0.2 CNT0 " + new_wwn + "-0\n10.0.0.1 CNT1 " + new_wwn + "-1\n");
}

TEST_F(HostInfo, NameGivenByHandIsRespected)
{
    for (const std::string name : {"storage-a", "5000000011111111-1", "5000000011111111-00", ""}) {
        write_file(nodename("0"), name + "\n");
        EXPECT_EQ(update(), 0);
        EXPECT_TRUE(last_trace_is(3, "[update_host_info] it is different wwn_hostname=[" + old_wwn +
                                         "-0] and now_hostname=[" + name + "] g_vpd_cnt_no=[0]. "));
        expect_untouched();
    }
    EXPECT_THAT(p().calls_of("vrb_net"), IsEmpty());
}

TEST_F(HostInfo, LongNamesAreCutAt256Characters)
{
    write_file(nodename("0"), std::string(300, 'n'));
    EXPECT_EQ(update(), 0);
    EXPECT_TRUE(p().traced(3, "[update_host_info] " + nodename("0") + " hostname = " + std::string(256, 'n')));
}

TEST_F(HostInfo, OwnNumberOtherThanZeroOrOneIsReturned)
{
    for (const auto &[output, code] : {std::pair("2\n", 2), std::pair("3\n", 3), std::pair("x\n", -241)}) {
        p().commands["/usr/sbin/cpinfo -i"] = {output, 0};
        new_process();
        controller_state.own_number = -1;
        const int result = update();
        EXPECT_EQ(result, code);
        EXPECT_TRUE(last_trace_is(1, "[update_host_info] kestal_get_my_cnt_num_cpinfo() Error. ret=" +
                                         std::to_string(code) + " "));
        EXPECT_EQ(vpd_state.own_number, -1);
    }
}

TEST_F(HostInfo, UnreadableNameGivesTheNumberOnceAndThenAFailure)
{
    exec("rm " + nodename("0"));
    EXPECT_EQ(update(), 0) << "controller 0's number, which callers rely on";
    EXPECT_TRUE(last_trace_is(1, "[update_host_info] nodenamefile(" + nodename("0") + ") open failed. ret=0"));
    EXPECT_EQ(update(), -1);
    EXPECT_TRUE(last_trace_is(1, "[update_host_info] nodenamefile(" + nodename("0") + ") open failed. ret=-1"));
    write_file(nodename("0"), "");
    EXPECT_EQ(update(), -1);
    EXPECT_TRUE(last_trace_is(1, "[update_host_info] nodenamefile(" + nodename("0") + ") read failed. ret=-1"));
    p().commands["/usr/sbin/cpinfo -i"] = {"1\n", 0};
    new_process();
    controller_state.own_number = -1;
    exec("rm " + nodename("1"));
    EXPECT_EQ(update(), 1) << "controller 1's number";
}

TEST_F(HostInfo, FailuresOfTheNetworkAndTheFiles)
{
    p().fail_kind("vrb_net", 0, 1);
    EXPECT_EQ(update(), -3);
    EXPECT_TRUE(last_trace_is(1, "[update_host_info] vrbgetnetconfig() error errno=5"));
    expect_untouched();

    p().fail_kind("write", 0, 1);
    EXPECT_EQ(update(), 1);
    EXPECT_TRUE(last_trace_is(1, "[update_host_info] fputs() error path=(" + hosts + ") str=(10.0.0.1 CNT0 " + new_wwn +
                                     "-0\n)errno=5"));
    p().fail_kind("write", 2, 1);
    EXPECT_EQ(update(), 1);
    EXPECT_TRUE(last_trace_is(1, "[update_host_info] fputs() error path=(" + nodename("0") + ") str=(" + new_wwn +
                                     "-0\n)errno=5"));
    write_file(nodename("0"), old_wwn + "-0\n");
    exec("rm -r " + tree + "/1");
    EXPECT_EQ(update(), 1);
    EXPECT_TRUE(last_trace_is(1, "[update_host_info] fopen() error path=(" + nodename("1") + ") errno=2"));
    write_file(nodename("0"), old_wwn + "-0\n");
    exec("rm -r " + tree + "/C");
    EXPECT_EQ(update(), 1);
    EXPECT_TRUE(last_trace_is(1, "[update_host_info] fopen() error path=(" + hosts + ") errno=2"));
}

TEST_F(HostInfo, BeforeTheBootEnvironmentsThereIsNobodyToWriteFor)
{
    vpd_state.controllers = -1;
    EXPECT_EQ(update(), 0);
    EXPECT_EQ(read_file(hosts), "");
    EXPECT_EQ(read_file(nodename("0")), old_wwn + "-0\n");
}

TEST_F(HostInfo, BadArguments)
{
    EXPECT_EQ(kestal_update_host_info(nullptr, old_wwn.c_str()), -931);
    EXPECT_EQ(kestal_update_host_info(new_wwn.c_str(), nullptr), -931);
    EXPECT_EQ(kestal_update_host_info(std::string(255, 'w').c_str(), old_wwn.c_str()), -931);
    EXPECT_EQ(kestal_update_host_info(new_wwn.c_str(), std::string(255, 'w').c_str()), -931);
    expect_untouched();
}

// -------------------------------------------------------------------------------- closing the tree

TEST_F(VpdFlow, ClosingForFlashCopiesToTheSystemFirst)
{
    vpd_state.own_number = 1;
    EXPECT_EQ(kestal_update_vpdinfo_collect_close(0), 0);
    const std::string quiet = " > /dev/null 2>&1";
    EXPECT_THAT(p().system_commands,
                ElementsAre("/usr/bin/cp " + nodename("1") + " /etc/nodename" + quiet,
                            "/usr/bin/cp " + hosts + " /etc/inet/hosts" + quiet,
                            "/usr/bin/cp " + tree + "/1/boot/solaris/bootenv.rc /boot/solaris/bootenv.rc" + quiet,
                            "/usr/bin/cp " + guid_file + " /etc/cp_guid" + quiet, collect + "0" + quiet));
    EXPECT_EQ(p().traces.front().text, "[update_vpdinfo_collect_close] Start. flag=0");
}

TEST_F(VpdFlow, ClosingStopsAtItsFirstFailure)
{
    vpd_state.own_number = 0;
    const char *names[] = {"nodename", "hosts", "hosts", "cpguid"};
    for (std::size_t step = 0; step < 4; ++step) {
        p().system_commands.clear();
        fail_command(step, 2);
        EXPECT_EQ(kestal_update_vpdinfo_collect_close(0), -1);
        EXPECT_THAT(p().system_commands, SizeIs(step + 1));
        EXPECT_THAT(p().traces.back().text,
                    testing::StartsWith(std::string("[update_vpdinfo_collect_close] ") + names[step] +
                                        " filecopy error cmd=(" + p().system_commands.back() + ") rtn=2 errno="));
    }
    for (const int flag : {0, 1, 7}) {
        fail_command(flag == 0 ? 4 : 0);
        EXPECT_EQ(kestal_update_vpdinfo_collect_close(flag), -1);
        EXPECT_THAT(p().traces.back().text,
                    testing::StartsWith("[update_vpdinfo_collect_close] backup.tar.Z collect Error. rtn=3, errno="));
    }
}

TEST_F(VpdFlow, ClosingForTheDiskChoosesThePair)
{
    const struct {
        const char *backup;
        const char *accept;
        const char *taken;  // for the accepted one
        const char *other;
    } rows[] = {
        {"kesta_backup0", "kesta_backup1", "kesta_backup1", "kesta_backup0"},
        {"kesta_backup1", "kesta_backup0", "kesta_backup0", "kesta_backup1"},
        {"kesta_backup0", "kesta_backup7", "kesta_backup1", "kesta_backup0"},  // a name that is no slot's
    };
    for (const auto &row : rows) {
        write_file("/var/run/kesta_sys/tmp/backup.tar.Z", std::string("collected for ") + row.accept);
        use_slots(row.backup, row.accept);
        p().system_commands.clear();
        EXPECT_EQ(kestal_update_vpdinfo_collect_close(1), 0);
        EXPECT_STREQ(vpd_state.accept_name, row.taken);
        EXPECT_STREQ(vpd_state.backup_name, row.other);
        EXPECT_EQ(p().sysback[row.taken].bytes, std::string("collected for ") + row.accept);
        EXPECT_THAT(p().system_commands, ElementsAre(collect + "1 > /dev/null 2>&1"));
    }
}

TEST_F(VpdFlow, ClosingForTheDiskTellsWhatFailed)
{
    EXPECT_EQ(kestal_update_vpdinfo_collect_close(1), -1);
    EXPECT_THAT(p().traces.back().text, testing::StartsWith("[update_vpdinfo_collect_close] HDD write "
                                                            "backup.tar.Z(kesta_backup1) Failed. rtn=-1, errno="));
    p().fail_kind("nv_read", 0, 5);
    EXPECT_EQ(kestal_update_vpdinfo_collect_close(1), -1);
    EXPECT_THAT(p().traces.back().text,
                testing::StartsWith("[update_vpdinfo_collect_close] AcceptFileName read Failed. rtn=-1, errno="));
    EXPECT_STREQ(vpd_state.accept_name, "") << "cleared before";
}

TEST_F(VpdFlow, AnyOtherFlagPacksOnly)
{
    EXPECT_EQ(kestal_update_vpdinfo_collect_close(7), 0);
    EXPECT_EQ(kestal_update_vpdinfo_collect_close(-1), 0);
    EXPECT_THAT(p().system_commands, ElementsAre(collect + "7 > /dev/null 2>&1", collect + "-1 > /dev/null 2>&1"));
    EXPECT_THAT(p().calls_of("sb_open"), IsEmpty());
}

// ------------------------------------------------------------------------------ VPD tool to flash

class VpdToFlash : public VpdFlow {
protected:
    VpdToFlash() { give(old_wwn, old_serialno, old_guid); }
    void give(const std::string &wwn_text, const std::string &serialno_text, const std::string &guid_text)
    {
        wwn = wwn_text + "#";
        serialno = serialno_text + "#";
        guid = guid_text + "#";
    }
    int carry() { return kestal_vpd_to_flash(wwn.data(), serialno.data(), guid.data()); }

    // Without a terminator, as fields that are full.
    std::string wwn, serialno, guid;
};

TEST_F(VpdToFlash, ChangedIdentityIsCarried)
{
    EXPECT_EQ(carry(), 1);
    ASSERT_THAT(p().system_commands, SizeIs(8));
    EXPECT_EQ(p().system_commands[0], distribute);
    EXPECT_EQ(p().system_commands[1], eeprom(0, identity(new_wwn, new_serialno)));
    EXPECT_EQ(p().system_commands[2], eeprom(1, identity(new_wwn, new_serialno)));
    EXPECT_THAT(p().system_commands[3], testing::HasSubstr("/0/etc/nodename /etc/nodename"));
    EXPECT_EQ(p().system_commands[7], collect + "0 > /dev/null 2>&1");
    EXPECT_EQ(read_file(guid_file), new_guid + "\n");
    EXPECT_EQ(read_file(nodename("1")), new_wwn + "-1\n");
    EXPECT_EQ(wwn, new_wwn + "#") << "16 characters, and no more";
    EXPECT_EQ(serialno, new_serialno + "#");
    EXPECT_EQ(guid, new_guid + "#");
    EXPECT_EQ(p().traces.front().text, "[kestal_vpd_to_flash] START");
    EXPECT_TRUE(last_trace_is(3, "[kestal_vpd_to_flash] END vpd_wwn=[" + new_wwn + "] vpd_serialno=[" + new_serialno +
                                     "] vpd_guid=[" + new_guid + "] cnt_wwn=[" + new_wwn + "] cnt_serialno=[" +
                                     new_serialno + "] cnt_guid=[" + new_guid + "] ret=[1] "));
}

TEST_F(VpdToFlash, EqualIdentityNeedsNothing)
{
    give(new_wwn, new_serialno, new_guid);
    EXPECT_EQ(carry(), 0);
    EXPECT_THAT(p().system_commands, IsEmpty());
    EXPECT_THAT(p().calls_of("popen"), SizeIs(1)) << "the tool was read";
}

TEST_F(VpdToFlash, ToolWithoutAnIdentityGetsTheGivenOne)
{
    struct Case {
        std::string wwn, serialno, guid, lengths;
    };
    const Case cases[] = {{new_wwn.substr(1), new_serialno, new_guid, "len_wwn=15 len_serialno=16 len_guid=36"},
                          {new_wwn + "0", new_serialno, new_guid, "len_wwn=17 len_serialno=16 len_guid=36"},
                          {new_wwn, "", new_guid, "len_wwn=16 len_serialno=0 len_guid=36"},
                          {new_wwn, new_serialno, new_guid + "0", "len_wwn=16 len_serialno=16 len_guid=37"},
                          {"", "", "", "len_wwn=0 len_serialno=0 len_guid=0"}};
    for (const Case &given : cases) {
        tool(given.wwn, given.serialno, given.guid);
        p().commands[write_tool(old_wwn, old_serialno, old_guid)] = {"", 0};
        p().calls.clear();
        EXPECT_EQ(carry(), 0);
        EXPECT_TRUE(p().traced(3,
                               "[kestal_vpd_to_flash] vpd info length failed. so set vpdinfo from "
                               "flashinfo. " +
                                   given.lengths));
        EXPECT_TRUE(tool_was_written(old_wwn, old_serialno, old_guid));
        EXPECT_THAT(p().system_commands, IsEmpty());
        EXPECT_EQ(wwn, old_wwn + "#");
    }
    p().commands[write_tool(old_wwn, old_serialno, old_guid)] = {"", 4 << 8};
    EXPECT_EQ(carry(), 0);
    EXPECT_TRUE(p().traced(1, "[kestal_vpd_to_flash] kestal_set_vpn_info() error. sts=4"));
}

TEST_F(VpdToFlash, ToolThatFailsChangesNothing)
{
    p().commands[read_tool] = {"", 5 << 8};
    EXPECT_EQ(carry(), 0);
    EXPECT_TRUE(p().traced(1, "[kestal_vpd_to_flash] kestal_get_vpn_info() error. sts=5"));
    EXPECT_THAT(p().system_commands, IsEmpty());
    EXPECT_THAT(p().traces.back().text, testing::EndsWith("ret=[0] "));
}

TEST_F(VpdToFlash, EachStepCanFail)
{
    struct Case {
        std::size_t command;  // that fails; 99: none
        std::string message;
    };
    const Case cases[] = {{0, "[vpd_to_flash] update_vpdinfo_distribute_open error. sts=-1"},
                          {1, "[vpd_to_flash] update_vpdinfo_eeprom error. sts=-1"},
                          {2, "[vpd_to_flash] update_vpdinfo_eeprom error. sts=-1"},
                          {3, "[vpd_to_flash] update_host_info() error. sts=-1"},
                          {7, "[vpd_to_flash] update_host_info() error. sts=-1"}};
    for (const Case &failing : cases) {
        new_process();
        write_file(nodename("0"), old_wwn + "-0\n");
        give(old_wwn, old_serialno, old_guid);
        fail_command(failing.command);
        EXPECT_EQ(carry(), -1) << failing.message;
        EXPECT_TRUE(p().traced(1, failing.message));
        EXPECT_THAT(p().system_commands, SizeIs(failing.command + 1)) << "nothing behind it";
        EXPECT_EQ(wwn, old_wwn + "#");
    }
    p().system_statuses = {0};
    new_process();
    p().fail_kind("vrb_net", 0, 1);
    write_file(nodename("0"), old_wwn + "-0\n");
    EXPECT_EQ(carry(), -1);
    EXPECT_TRUE(p().traced(1, "[vpd_to_flash] update_host_info() error. sts=-3"));
    exec("rm -r " + tree + "/C");
    EXPECT_EQ(carry(), -1);
    EXPECT_TRUE(p().traced(1, "[vpd_to_flash] update_vpdinfo_guid error. sts=-1"));
}

TEST_F(VpdToFlash, ToolThatPrintsShellTextIsRefused)
{
    tool("$(touch /tmp/x);x", new_serialno, new_guid);
    tool("$(touch /tmp/xx)", new_serialno, new_guid);
    EXPECT_EQ(carry(), -1);
    EXPECT_TRUE(p().traced(1, "[vpd_to_flash] update_vpdinfo_eeprom error. sts=-931"));
    EXPECT_THAT(p().system_commands, ElementsAre(distribute));
}

TEST_F(VpdToFlash, NullIsRefused)
{
    EXPECT_EQ(kestal_vpd_to_flash(nullptr, serialno.data(), guid.data()), -931);
    EXPECT_EQ(kestal_vpd_to_flash(wwn.data(), nullptr, guid.data()), -931);
    EXPECT_EQ(kestal_vpd_to_flash(wwn.data(), serialno.data(), nullptr), -931);
    EXPECT_THAT(p().calls, IsEmpty());
}

// ------------------------------------------------------------------------------- disk to VPD tool

class VpdToHdd : public VpdFlow {
protected:
    VpdToHdd()
    {
        p().commands[disk_write()] = {"", 0};
        p().sysback["kesta_wwn"] = {old_wwn};
        p().sysback["kesta_serialno"] = {old_serialno};
        p().sysback["kesta_guid"] = {guid_bytes};
    }
    static std::string disk_write() { return write_tool(old_wwn, old_serialno, disk_guid); }
    bool written() const { return tool_was_written(old_wwn, old_serialno, disk_guid); }

    static inline const std::string disk_guid = "00112233-4455-6677-8899-aabbccddeeff";
    static inline const std::string guid_bytes =
        std::string("\x00\x11\x22\x33\x44\x55\x66\x77\x88\x99\xaa\xbb\xcc\xdd\xee\xff", 16);
};

TEST_F(VpdToHdd, TheDisksIdentityWins)
{
    EXPECT_EQ(kestal_vpd_to_hdd(nullptr, nullptr, nullptr), 0);
    EXPECT_TRUE(written());
    EXPECT_TRUE(p().traced(3,
                           "[kestal_vpd_to_hdd] it is different VPN and HDD. so set vpdinfo from "
                           "hddinfo. hdd_wwn=[" +
                               old_wwn + "] hdd_serialno=[" + old_serialno + "] hdd_guid=[" + disk_guid + "]"));
    EXPECT_TRUE(last_trace_is(3, "[kestal_vpd_to_hdd] END vpd_wwn=[" + new_wwn + "] vpd_serialno=[" + new_serialno +
                                     "] vpd_guid=[" + new_guid + "] hdd_wwn=[" + old_wwn + "] hdd_serialno=[" +
                                     old_serialno + "] hdd_guid=[" + disk_guid + "]ret=[0]"));
}

TEST_F(VpdToHdd, ArgumentsComeBeforeTheImage)
{
    p().sysback.clear();
    EXPECT_EQ(kestal_vpd_to_hdd(old_wwn.c_str(), old_serialno.c_str(), guid_bytes.data()), 0);
    EXPECT_TRUE(written());
    EXPECT_THAT(p().calls_of("sb_open"), IsEmpty());
    EXPECT_THAT(p().calls_of("nv_read"), IsEmpty());
}

TEST_F(VpdToHdd, EqualIdentityNeedsNothing)
{
    tool(old_wwn, old_serialno, disk_guid);
    EXPECT_EQ(kestal_vpd_to_hdd(nullptr, nullptr, nullptr), 0);
    EXPECT_FALSE(written());
}

TEST_F(VpdToHdd, ToolWithoutAnIdentityIsFilled)
{
    tool("", new_serialno, new_guid);
    EXPECT_EQ(kestal_vpd_to_hdd(nullptr, nullptr, nullptr), 0);
    EXPECT_TRUE(written());
    EXPECT_TRUE(p().traced(3,
                           "[kestal_vpd_to_hdd] vpd info length failed. so set vpdinfo from "
                           "hddinfo. len_wwn=0 len_serialno=16 len_guid=36"));
}

TEST_F(VpdToHdd, FailuresAreOnlyTold)
{
    p().commands[read_tool] = {"", 5 << 8};
    EXPECT_EQ(kestal_vpd_to_hdd(nullptr, nullptr, nullptr), 0);
    EXPECT_TRUE(p().traced(1, "[kestal_vpd_to_hdd] kestal_get_vpn_info() error. sts=5"));
    EXPECT_THAT(p().calls_of("sb_open"), IsEmpty());
    tool(new_wwn, new_serialno, new_guid);
    const std::pair<int, const char *> blocks[] = {{344, "WWN"}, {364, "SERIALNO"}, {384, "GUID"}};
    for (const auto &[offset, name] : blocks) {
        p().sysback.clear();
        s_rwmode = 2;
        p().fail_kind("nv_read", (offset - 344) / 20, 5);
        EXPECT_EQ(kestal_vpd_to_hdd(nullptr, nullptr, nullptr), 0);
        EXPECT_TRUE(p().traced(1, std::string("[kestal_vpd_to_hdd] kestal_non_volatile_rw() Read HDD ") + name +
                                      " error. sts=-1"));
    }
    EXPECT_FALSE(written());
    p().commands[disk_write()] = {"", 6 << 8};
    EXPECT_EQ(kestal_vpd_to_hdd(old_wwn.c_str(), old_serialno.c_str(), guid_bytes.data()), 0);
    EXPECT_TRUE(p().traced(1, "[kestal_vpd_to_hdd] kestal_set_vpn_info() error. sts=6"));
}

TEST_F(VpdToHdd, ValueThatAShellWouldActOnIsToldInTheTraces)
{
    tool(new_wwn, new_serialno, new_guid);
    EXPECT_EQ(kestal_vpd_to_hdd("0123456789;id;ab", old_serialno.c_str(), guid_bytes.data()), 0);
    EXPECT_THAT(p().texts(1),
                ElementsAre("[kestal_set_vpn_info] Argument Error.(a character that a shell would act on)",
                            "[kestal_vpd_to_hdd] kestal_set_vpn_info() error. sts=-931"));
    EXPECT_FALSE(written());
}

// ------------------------------------------------------------------- controller 0 to controller 1

class Cont0ToCont1 : public VpdFlow {
protected:
    Cont0ToCont1() { prepare(); }
    void prepare()
    {
        p().sysback["kesta_backup0"] = {"archive"};
        write_file("/var/run/kesta_sys/tmp/backup.tar.Z", "collected");
        write_file(nodename("0"), old_wwn + "-0\n");
        EXPECT_EQ(kestal_set_version(KESTA_VER_AREA_BACKUP, 0, 41), 0);
        new_process();
    }
    int carry(const std::string &own_wwn = old_wwn, const std::string &own_serialno = old_serialno)
    {
        return kestal_CONT0_to_CONT1(new_wwn.c_str(), own_wwn.c_str(), new_serialno.c_str(), own_serialno.c_str());
    }
};

TEST_F(Cont0ToCont1, IdentityGoesIntoTheAcceptSlotAndVersionsRise)
{
    EXPECT_EQ(carry(), 1);
    ASSERT_THAT(p().system_commands, SizeIs(5));
    EXPECT_EQ(p().system_commands[1], distribute_merged);
    EXPECT_EQ(p().system_commands[2], eeprom(0, identity(new_wwn, new_serialno)));
    EXPECT_EQ(p().system_commands[4], collect + "1 > /dev/null 2>&1");
    EXPECT_EQ(read_file(nodename("1")), new_wwn + "-1\n");
    EXPECT_EQ(p().sysback["kesta_backup1"].bytes, "collected");
    EXPECT_EQ(kestal_read_version(KESTA_VER_AREA_BACKUP, 0, 1), 42);
    EXPECT_EQ(p().sysback["kesta_reboot"].bytes, std::string("\x2a\0\0\0", 4));
    EXPECT_EQ(p().text_at(nv_accept_name, 32), "kesta_backup1");
    EXPECT_EQ(p().text_at(nv_backup_name, 32), "kesta_backup0");
    EXPECT_TRUE(p().traced(3, "[kestal_CONT0_to_CONT1] END cnt0_wwn=[" + new_wwn + "] mycnt_wwn=[" + old_wwn +
                                  "] hdd0_serialno=[" + new_serialno + "] hdd1_serialno=[" + old_serialno +
                                  "] ret=[1] "));
    EXPECT_TRUE(inner_lock_is_free());
}

TEST_F(Cont0ToCont1, EqualIdentityNeedsNothing)
{
    EXPECT_EQ(carry(new_wwn, new_serialno), 0);
    EXPECT_THAT(p().calls, IsEmpty());
    EXPECT_TRUE(last_trace_is(3, "[kestal_CONT0_to_CONT1] END cnt0_wwn=[" + new_wwn + "] mycnt_wwn=[" + new_wwn +
                                     "] hdd0_serialno=[" + new_serialno + "] hdd1_serialno=[" + new_serialno +
                                     "] ret=[0] "));
    const std::string longer = new_wwn + "ignored";
    EXPECT_EQ(carry(longer, new_serialno), 0) << "16 characters count";
}

TEST_F(Cont0ToCont1, EqualWwnsLeaveTheHostNames)
{
    EXPECT_EQ(carry(new_wwn), 1);
    EXPECT_EQ(read_file(hosts), "as it was\n");
    EXPECT_EQ(vpd_state.own_number, -1);
    EXPECT_EQ(kestal_read_version(KESTA_VER_AREA_BACKUP, 0, 1), 42);
}

TEST_F(Cont0ToCont1, VersionsWrapRoundToOne)
{
    EXPECT_EQ(kestal_set_version(KESTA_VER_AREA_BACKUP, 0, INT_MAX), 0);
    EXPECT_EQ(carry(), 1);
    EXPECT_EQ(kestal_read_version(KESTA_VER_AREA_BACKUP, 0, 1), 1);
}

TEST_F(Cont0ToCont1, VersionThatWasNeverSetIsAFailure)
{
    EXPECT_EQ(kestal_set_version(KESTA_VER_AREA_BACKUP, 0, 0), 0);
    EXPECT_EQ(carry(), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_CONT0_to_CONT1] kestal_version_up() error. up_version=0"));
    EXPECT_EQ(p().sysback["kesta_backup1"].bytes, "collected") << "nothing is rolled back";
}

TEST_F(Cont0ToCont1, EachStepCanFail)
{
    const std::pair<std::size_t, std::string> cases[] = {{0, "update_vpdinfo_distribute_open error. sts=-1"},
                                                         {1, "update_vpdinfo_distribute_open error. sts=-1"},
                                                         {2, "update_vpdinfo_eeprom error. sts=-1"},
                                                         {4, "update_host_info() error. sts=-1"}};
    for (const auto &[command, message] : cases) {
        prepare();
        fail_command(command);
        EXPECT_EQ(carry(), -1);
        EXPECT_TRUE(p().traced(1, "[kestal_CONT0_to_CONT1] " + message)) << message;
        EXPECT_EQ(kestal_read_version(KESTA_VER_AREA_BACKUP, 0, 1), 41);
    }
    p().system_statuses = {0};
    prepare();
    p().fail_kind("vrb_net", 0, 1);
    EXPECT_EQ(carry(), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_CONT0_to_CONT1] update_host_info() error. sts=-3"));
}

// The last steps, each in turn: the Nth write into the system backup area fails.
TEST_F(Cont0ToCont1, VersionsAndNamesThatCanNotBeWritten)
{
    const std::pair<int, std::string> cases[] = {
        {1, "kestal_set_version(KESTA_VER_AREA_BACKUP) error. sts=-1 up_version=42"},
        {2, "kestal_set_version(KESTA_VER_AREA_REBOOT) error. sts=-1 up_version=42"},
        {3, "kestal_change_address(KESTA_OFF)(kesta_backup1) error. sts=-1 errno="},
        {4, "kestal_change_address(KESTA_ON)(kesta_backup0) error. sts=-1 errno="}};
    for (const auto &[successes, message] : cases) {
        s_rwmode = 0;
        prepare();
        p().fail_kind("sb_write", successes, 1);
        EXPECT_EQ(carry(), -1) << message;
        bool told = false;
        for (const Trace &trace : p().traces) {
            told = told || (trace.level == 1 && trace.text.rfind("[kestal_CONT0_to_CONT1] " + message, 0) == 0);
        }
        EXPECT_TRUE(told) << message;
        EXPECT_TRUE(inner_lock_is_free());
    }
}

TEST_F(Cont0ToCont1, NullIsRefused)
{
    const char *text = new_wwn.c_str();
    EXPECT_EQ(kestal_CONT0_to_CONT1(nullptr, text, text, text), -931);
    EXPECT_EQ(kestal_CONT0_to_CONT1(text, nullptr, text, text), -931);
    EXPECT_EQ(kestal_CONT0_to_CONT1(text, text, nullptr, text), -931);
    EXPECT_EQ(kestal_CONT0_to_CONT1(text, text, text, nullptr), -931);
    EXPECT_THAT(p().calls, IsEmpty());
}

// Whatever call of the platform or the system fails: the flow ends, with a trace if it failed, and lets
// go of everything.
TEST_F(Cont0ToCont1, EveryCallCanFail)
{
    for (long n = 1;; ++n) {
        ASSERT_LT(n, 1000);
        SCOPED_TRACE("call " + std::to_string(n) + " fails");
        reset();
        clear_appliance_folders();
        use_slots();
        p().commands["/usr/sbin/cpinfo -i"] = {"0\n", 0};
        write_file(nodename("1"), old_wwn + "-1\n");
        write_file(hosts, "");
        prepare();
        p().calls_met = 0;
        p().fail_at = n;
        const int result = carry();
        if (!p().fault_met) {
            EXPECT_EQ(result, 1);
            break;
        }
        EXPECT_TRUE(result == 1 || result == -1) << result;
        EXPECT_EQ(p().open_handles, 0);
        EXPECT_EQ(p().open_pipes, 0);
        bool told = result == 1;
        for (const Trace &trace : p().traces) {
            told = told || (trace.level == 1 && trace.text.rfind("[kestal_CONT0_to_CONT1]", 0) == 0);
        }
        EXPECT_TRUE(told);
        p().fail_at = 0;
        if (!inner_lock_is_free()) {
            EXPECT_EQ(kestal_reset_mycnt_innerlock_main(0, 0), 0) << "its release was what failed";
        }
    }
}
