#include "library_test.h"

using namespace test;
using testing::ElementsAre;

class AreaFile : public LibraryTest {
protected:
    AreaFile() { use_slots(); }
    ~AreaFile() override { EXPECT_TRUE(inner_lock_is_free()); }
    char accept[33] = "################################";
    char backup[33] = "################################";
};

TEST_F(AreaFile, ValidAcceptNameInMemoryTakesOneRead)
{
    p().sysback.clear();
    EXPECT_EQ(kestal_area_file_rw(2, accept, nullptr), 0);
    EXPECT_STREQ(accept, "kesta_backup1");
    EXPECT_THAT(p().calls_of("nv_read 104"), ElementsAre("nv_read 104 32"));
    EXPECT_TRUE(p().calls_of("sb_").empty());
    EXPECT_EQ(p().traces.front().text, "[area_file_rw] START");
    EXPECT_EQ(p().traces.back(), (Trace{5, "[area_file_rw] END ret=0", "../common/kestal_area_file_rw.cpp"}));
    EXPECT_TRUE(p().traced(5, "[area_file_rw] kestal_non_volatile_rw(kesta_sysacpt) len=32"));
}

TEST_F(AreaFile, OtherAcceptNameInMemoryIsReadAgainFromTheArea)
{
    for (const std::string stale : {"", "kesta_backup2", "kesta_backup1x"}) {
        p().set_text(nv_accept_name, stale, 32);
        p().traces.clear();
        p().calls.clear();
        EXPECT_EQ(kestal_area_file_rw(2, accept, nullptr), 0);
        EXPECT_STREQ(accept, "kesta_backup1");
        EXPECT_TRUE(p().traced(1, "[area_file_rw] non volatile data ERROR (kesta_sysacpt) a_file=" + stale));
        EXPECT_THAT(p().calls_of("sb_open"), ElementsAre("sb_open kesta_sysacpt r"));
    }
}

TEST_F(AreaFile, FullNameWithoutTerminatorIsPrintedWhole)
{
    const std::string full(32, 'n');
    p().set_text(nv_accept_name, full, 32);
    p().sysback["kesta_sysacpt"] = {full};
    char exact[32];
    EXPECT_EQ(kestal_area_file_rw(2, exact, nullptr), 0);
    EXPECT_EQ(std::string(exact, 32), full);
    EXPECT_TRUE(p().traced(1, "[area_file_rw] non volatile data ERROR (kesta_sysacpt) a_file=" + full));
}

TEST_F(AreaFile, FailedMemoryReadIsReadAgainFromTheArea)
{
    // One read of 600 for the lock check, one for the re-check; then five attempts fail.
    p().fail_kind("nv_read", 2, 5);
    EXPECT_EQ(kestal_area_file_rw(2, accept, nullptr), 0);
    EXPECT_STREQ(accept, "kesta_backup1");
    EXPECT_TRUE(p().traced(1, "[area_file_rw] non volatile access ERROR (kesta_sysacpt) rw_flag=2"));
}

TEST_F(AreaFile, BackupNameAlwaysGoesThroughTheAccessMode)
{
    p().set_text(nv_backup_name, "kesta_backup1", 32);
    EXPECT_EQ(kestal_area_file_rw(2, nullptr, backup), 0);
    EXPECT_STREQ(backup, "kesta_backup0") << "from the area, not from memory";
    EXPECT_TRUE(p().traced(5, "[area_file_rw] kestal_non_volatile_rw(kesta_sysback) len=32"));
}

TEST_F(AreaFile, ShortStoredNameLeavesTheRestOfTheBufferButEndsIt)
{
    p().sysback["kesta_sysback"] = {std::string("abc")};
    EXPECT_EQ(kestal_area_file_rw(2, nullptr, backup), 0);
    EXPECT_EQ(std::string(backup, 4), "abc#");
    EXPECT_EQ(backup[31], '\0');
}

TEST_F(AreaFile, FailedAcceptNameStopsBeforeTheBackupName)
{
    p().set_text(nv_accept_name, "", 32);
    p().sysback.erase("kesta_sysacpt");
    p().fail_kind("nv_read", 3, 5);
    EXPECT_EQ(kestal_area_file_rw(2, accept, backup), -1);
    EXPECT_TRUE(p().traced(1, "[area_file_rw] FileAccess ERROR (kesta_sysacpt) rw_flag=2"));
    EXPECT_EQ(backup[31], '#') << "not touched";
    EXPECT_TRUE(p().traced(5, "[area_file_rw] END ret=-1"));
}

TEST_F(AreaFile, FailedBackupNameIsReported)
{
    p().sysback.erase("kesta_sysback");
    p().fail_kind("nv_read", 2, 5);
    EXPECT_EQ(kestal_area_file_rw(2, nullptr, backup), -1);
    EXPECT_TRUE(p().traced(1, "[area_file_rw] FileAccess ERROR (kesta_sysback) rw_flag=2"));
}

TEST_F(AreaFile, WriteStoresTheNameAndItsTerminatorAndKeepsWhatIsBehind)
{
    p().set_text(nv_accept_name, std::string(32, 'o'), 32);
    char name[32] = "kesta_backup0";
    EXPECT_EQ(kestal_area_file_rw(1, name, nullptr), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(p().nv.data()) + nv_accept_name, 32),
              std::string("kesta_backup0\0", 14) + std::string(18, 'o'));
    EXPECT_TRUE(p().traced(5, "[area_file_rw] kestal_non_volatile_rw(kesta_sysacpt) len=14"));
    EXPECT_EQ(p().sysback.at("kesta_sysacpt").bytes.size(), 14u);
}

TEST_F(AreaFile, ThirtyOneCharactersFitAndThirtyTwoDoNot)
{
    std::string name(31, 'a');
    EXPECT_EQ(kestal_area_file_rw(1, name.data(), nullptr), 0);
    EXPECT_EQ(p().text_at(nv_accept_name, 32), name);
    for (const std::size_t length : {32u, 40u}) {
        std::string longer(length, 'b');
        EXPECT_EQ(kestal_area_file_rw(1, longer.data(), nullptr), -931);
        EXPECT_EQ(kestal_area_file_rw(1, nullptr, longer.data()), -931);
        EXPECT_EQ(p().count("[area_file_rw] Length(" + std::to_string(length) + ") ERROR"), 2);
    }
    EXPECT_EQ(p().text_at(nv_accept_name, 32), name);
    EXPECT_TRUE(inner_lock_is_free());
    EXPECT_TRUE(p().traced(5, "[area_file_rw] END ret=-931"));
}

TEST_F(AreaFile, ArgumentsAreCheckedBeforeTheLock)
{
    EXPECT_EQ(kestal_area_file_rw(1, nullptr, nullptr), -931);
    EXPECT_EQ(kestal_area_file_rw(0, accept, backup), -931);
    EXPECT_EQ(kestal_area_file_rw(3, accept, backup), -931);
    EXPECT_THAT(p().texts(1), ElementsAre("[area_file_rw] Argument ERROR", "[area_file_rw] Argument(rw_flag) ERROR",
                                          "[area_file_rw] Argument(rw_flag) ERROR"));
    EXPECT_TRUE(p().calls.empty());
}

TEST_F(AreaFile, LockThatCanNotBeTaken)
{
    p().fail_kind("nv_read");
    EXPECT_EQ(kestal_area_file_rw(2, accept, nullptr), -1);
    EXPECT_TRUE(p().traced(1, "[area_file_rw] InnerLock Lock ERROR rtn=-1"));
    EXPECT_EQ(accept[31], '#');
}

TEST_F(AreaFile, UnlockThatFailsIsTheResult)
{
    p().fail_kind("nv_write", 1, 5);
    EXPECT_EQ(kestal_area_file_rw(2, accept, nullptr), -1);
    EXPECT_TRUE(p().traced(1, "[area_file_rw] InnerLock Unlock ERROR rtn=-172"));
    p().kind_faults.clear();
    kestal_reset_mycnt_innerlock_main(0, 0);
}

class ChangeAddress : public LibraryTest {
protected:
    ChangeAddress() { use_slots(); }
    char accept[32] = "kesta_backup0";
    char backup[32] = "kesta_backup1";
};

TEST_F(ChangeAddress, SwitchIsTwoCalls)
{
    accept[20] = 'x';  // all 32 bytes are written
    EXPECT_EQ(kestal_change_address(accept, backup, 0), 0);
    EXPECT_EQ(p().text_at(nv_accept_name, 32), "kesta_backup0");
    EXPECT_EQ(p().nv.data()[nv_accept_name + 20], 'x');
    EXPECT_EQ(p().text_at(nv_backup_name, 32), "kesta_backup0") << "not yet";
    EXPECT_EQ(kestal_change_address(accept, backup, 1), 0);
    EXPECT_EQ(p().text_at(nv_backup_name, 32), "kesta_backup1");
    EXPECT_EQ(p().sysback.at("kesta_sysback").bytes.size(), 32u);
    EXPECT_THAT(p().texts(4), testing::IsSupersetOf({"[change_address] ...kesta_sysacpt Write value=(kesta_backup0)",
                                                     "[change_address] ...kesta_sysback Write value=(kesta_backup1)"}));
    EXPECT_EQ(p().count("[change_address] ===> New Backup=(kesta_backup1) New Accept=(kesta_backup0)"), 2);
    EXPECT_TRUE(inner_lock_is_free());
}

TEST_F(ChangeAddress, OtherFlagLocksAndUnlocksOnly)
{
    EXPECT_EQ(kestal_change_address(accept, backup, 2), 0);
    EXPECT_EQ(p().text_at(nv_accept_name, 32), "kesta_backup1");
    EXPECT_TRUE(p().calls_of("sb_").empty());
    EXPECT_EQ(p().calls_of("nv_write").size(), 2u) << "the claim and its release";
    EXPECT_EQ(p().texts(3).back(), "[change_address] ===> New Backup=(kesta_backup1) New Accept=(kesta_backup0)");
    EXPECT_EQ(kestal_change_address(nullptr, nullptr, 2), 0);
    EXPECT_EQ(p().texts(3).back(), "[change_address] ===> New Backup=((null)) New Accept=((null))");
}

TEST_F(ChangeAddress, OnlyTheNameNeededMayNotBeNull)
{
    EXPECT_EQ(kestal_change_address(nullptr, backup, 0), -931);
    EXPECT_EQ(kestal_change_address(accept, nullptr, 1), -931);
    EXPECT_EQ(p().count("[change_address] Argument Error."), 2);
    EXPECT_TRUE(p().calls.empty());
    EXPECT_EQ(kestal_change_address(accept, nullptr, 0), 0);
    EXPECT_EQ(kestal_change_address(nullptr, backup, 1), 0);
}

TEST_F(ChangeAddress, FailuresOfLockWriteAndUnlock)
{
    p().fail_kind("nv_read");
    EXPECT_EQ(kestal_change_address(accept, backup, 0), -1);
    EXPECT_TRUE(p().traced(1, "[change_address] InnerLock Lock Failed(rtn=-1)."));
    p().kind_faults.clear();
    p().fail_kind("sb_open");
    EXPECT_EQ(kestal_change_address(accept, backup, 1), -1);
    EXPECT_TRUE(p().traced(1, "[change_address] kesta_sysback Write ERROR (ID=31,value=kesta_backup1)."));
    EXPECT_TRUE(inner_lock_is_free());
    p().kind_faults.clear();
    p().fail_kind("nv_write", 2, 5);
    EXPECT_EQ(kestal_change_address(accept, backup, 0), -1);
    EXPECT_TRUE(p().traced(1, "[change_address] InnerLock Unlock Failed.(rtn=-172)"));
    EXPECT_EQ(p().traces.back().text, "[change_address] END ret=-1");
}

class GroupNameField : public LibraryTest {};

TEST_F(GroupNameField, SixteenRawBytesGoBothWays)
{
    char full[16];
    memset(full, 'g', sizeof(full));
    EXPECT_EQ(kestal_set_group_name_file(full), 0);
    EXPECT_TRUE(p().traced(5, "[set_group_name_file] GroupName=gggggggggggggggg"));
    char back[17] = {};
    EXPECT_EQ(kestal_read_group_name_file(back), 0);
    EXPECT_STREQ(back, "gggggggggggggggg");
    EXPECT_TRUE(p().traced(5, "[read_group_name_file] END ret=0"));
    EXPECT_TRUE(inner_lock_is_free());
}

TEST_F(GroupNameField, NullIsRefused)
{
    EXPECT_EQ(kestal_set_group_name_file(nullptr), -931);
    EXPECT_EQ(kestal_read_group_name_file(nullptr), -931);
    EXPECT_THAT(p().texts(1),
                ElementsAre("[set_group_name_file] Argument ERROR", "[read_group_name_file] Argument ERROR"));
}

TEST_F(GroupNameField, FailuresOfLockAccessAndUnlock)
{
    char name[16] = "g";
    p().fail_kind("nv_read");
    EXPECT_EQ(kestal_set_group_name_file(name), -1);
    EXPECT_TRUE(p().traced(1, "[set_group_name_file] InnerLock Lock Failed(rtn=-1)."));
    p().kind_faults.clear();
    p().fail_kind("nv_read", 2, 5);
    EXPECT_EQ(kestal_read_group_name_file(name), -1);
    EXPECT_TRUE(p().traced(1, "[read_group_name_file] FileAccess Failed(block_id=21)."));
    EXPECT_TRUE(inner_lock_is_free());
    p().kind_faults.clear();
    p().fail_kind("nv_write", 2, 5);
    EXPECT_EQ(kestal_set_group_name_file(name), -1);
    EXPECT_TRUE(p().traced(1, "[set_group_name_file] InnerLock Unlock Failed.(rtn=-172)"));
}

class FileSize : public LibraryTest {};

TEST_F(FileSize, MeasuresAFile)
{
    write_file("/opt/kesta_sys/f", "12345");
    unsigned size = 0;
    EXPECT_EQ(kestal_get_file_size("/opt/kesta_sys/f", &size), 0);
    EXPECT_EQ(size, 5u);
    EXPECT_TRUE(p().traced(5, "[get_file_size] END f_name=/opt/kesta_sys/f ret_size=5"));
}

TEST_F(FileSize, RefusesWhatIsNoFile)
{
    unsigned size = 77;
    EXPECT_EQ(kestal_get_file_size(nullptr, &size), -931);
    EXPECT_EQ(kestal_get_file_size("/opt/kesta_sys/f", nullptr), -931);
    EXPECT_EQ(kestal_get_file_size("/opt/kesta_sys/f", &size), -931);
    EXPECT_EQ(kestal_get_file_size("/opt/kesta_sys", &size), -931) << "a folder";
    EXPECT_EQ(size, 77u);
    EXPECT_THAT(p().texts(1), ElementsAre("[get_file_size] Argument ERROR(f_name=NULL)",
                                          "[get_file_size] Argument ERROR(ret_size=NULL)",
                                          "[get_file_size] File open Error f_name =/opt/kesta_sys/f errno=2",
                                          "[get_file_size] File open Error f_name =/opt/kesta_sys errno=21"));
}

TEST_F(FileSize, SizeThatThirtyTwoBitsCanNotSayIsRefused)
{
    write_file("/opt/kesta_sys/f", "");
    ASSERT_EQ(truncate("/opt/kesta_sys/f", 5'000'000'000), 0);
    unsigned size = 77;
    EXPECT_EQ(kestal_get_file_size("/opt/kesta_sys/f", &size), -931);
    ASSERT_EQ(truncate("/opt/kesta_sys/f", 0xFFFFFFFF), 0);
    EXPECT_EQ(kestal_get_file_size("/opt/kesta_sys/f", &size), 0);
    EXPECT_EQ(size, 0xFFFFFFFFu);
}

TEST_F(FileSize, WhatHasNoEndIsRefused)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    unsigned size = 77;
    EXPECT_EQ(kestal_get_file_size(("/proc/self/fd/" + std::to_string(ends[0])).c_str(), &size), -931);
    EXPECT_EQ(kestal_get_file_size("/dev/ptmx", &size), -931) << "a device that has no end";
    EXPECT_EQ(size, 77u);
    close(ends[0]);
    close(ends[1]);
}

class GroupList : public LibraryTest {
protected:
    int parse(const std::string &text)
    {
        write_file("/etc/kesta_sys/groups", text);
        p().traces.clear();
        return kestal_get_groupname_from_file(names, codes, "/etc/kesta_sys/groups");
    }
    char names[65 * 16] = {};
    int codes[65] = {};
};

TEST_F(GroupList, NamesAndCodes)
{
    EXPECT_EQ(parse("alpha,0\nbeta,64\ngamma\nfifteen_letters\n"), 4);
    EXPECT_STREQ(names, "alpha");
    EXPECT_STREQ(names + 16, "beta");
    EXPECT_STREQ(names + 32, "gamma");
    EXPECT_STREQ(names + 48, "fifteen_letters");
    EXPECT_THAT(std::vector<int>(codes, codes + 4), ElementsAre(0, 64, 0, 0));
    EXPECT_TRUE(p().traced(5, "[get_allgroupname] Group errorcd is NULL g_name=gamma"));
    EXPECT_TRUE(p().traced(4, "[get_allgroupname] file open filename=/etc/kesta_sys/groups"));
    EXPECT_EQ(p().traces.back().text, "[get_allgroupname] GroupName Get(groupnum=4) ");
}

TEST_F(GroupList, LastLineNeedsNoNewlineAndAnEmptyFileHasNone)
{
    EXPECT_EQ(parse("alpha,7"), 1);
    EXPECT_EQ(codes[0], 7);
    EXPECT_EQ(parse(""), 0);
}

TEST_F(GroupList, SixtyFourLinesFitAndTheSixtyFifthIsRefused)
{
    std::string lines;
    for (int i = 0; i < 64; ++i) {
        lines += "g" + std::to_string(i) + "," + std::to_string(i) + "\n";
    }
    EXPECT_EQ(parse(lines), 64);
    EXPECT_STREQ(names + 63 * 16, "g63");
    EXPECT_EQ(parse(lines + "one,1\n"), -1);
    EXPECT_TRUE(p().traced(1, "[get_allgroupname] Group Number Over."));
    EXPECT_EQ(names[64 * 16], '\0') << "nothing is written behind the arrays";
    EXPECT_EQ(p().traces.back().text, "[get_allgroupname] GroupName Get(groupnum=-1) ");
}

TEST_F(GroupList, EntriesBeforeABadLineAreStored)
{
    EXPECT_EQ(parse("good,5\nbad,65\n"), -1);
    EXPECT_STREQ(names, "good");
    EXPECT_EQ(codes[1], 65) << "stored before it is refused";
    EXPECT_TRUE(p().traced(1, "[get_allgroupname] Group error cd range check ERROR g_name=bad g_errorcd=65"));
}

TEST_F(GroupList, BadLines)
{
    const std::pair<const char *, const char *> lines[] = {
        {"\n", "[get_allgroupname] Group name is NULL g_name=NULL"},
        {",,\n", "[get_allgroupname] Group name is NULL g_name=NULL"},
        {"sixteen_letters_\n", "[get_allgroupname] Group name size ERROR g_name=sixteen_letters_"},
        {"a,123\n", "[get_allgroupname] Group errorcd size ERROR g_name=a g_errorcd=123"},
        {"a,1x\n", "[get_allgroupname] Group errorcd isdigit check ERROR g_name=a g_errorcd=1x"},
        {"a,-1\n", "[get_allgroupname] Group errorcd isdigit check ERROR g_name=a g_errorcd=-1"},
    };
    for (const auto &[text, message] : lines) {
        EXPECT_EQ(parse(text), -1) << text;
        EXPECT_TRUE(p().traced(1, message)) << text;
    }
}

TEST_F(GroupList, LongLineIsTakenAsSeveral)
{
    EXPECT_EQ(parse("aaaa,1,bbbbbbbbbbbbbcccc,2\n"), 2) << "20 characters, then the rest";
    EXPECT_STREQ(names, "aaaa");
    EXPECT_STREQ(names + 16, "cccc");
    EXPECT_EQ(codes[1], 2);
}

TEST_F(GroupList, ArgumentsAndFilesThatCanNotBeRead)
{
    EXPECT_EQ(kestal_get_groupname_from_file(nullptr, codes, "/x"), -931);
    EXPECT_EQ(kestal_get_groupname_from_file(names, nullptr, "/x"), -931);
    EXPECT_EQ(kestal_get_groupname_from_file(names, codes, nullptr), -931);
    EXPECT_EQ(p().count("[get_allgroupname] Argument ERROR"), 3);
    EXPECT_EQ(kestal_get_groupname_from_file(names, codes, "/etc/kesta_sys/none"), -1);
    EXPECT_TRUE(p().traced(1, "[get_allgroupname] File open Error f_name =/etc/kesta_sys/none, errno=2"));
    EXPECT_EQ(kestal_get_groupname_from_file(names, codes, "/etc/kesta_sys"), -1);
    EXPECT_TRUE(p().traced(1, "[get_allgroupname] fgets() ERROR f_name=/etc/kesta_sys"));
}
