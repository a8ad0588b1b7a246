#include <string.h>

#include "library_test.h"

using namespace test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string tag = "[flag_of_sync_nonvolatile] ";

}  // namespace

class NvSync : public LibraryTest {
protected:
    NvSync()
    {
        memcpy(p().nv.data() + 8, "MAGI\7\0\0\0\x05\xff", 10);  // magic, version, synced 5, req -1
    }
    int flags(int rw) { return kestal_flag_of_sync_nonvolatile(rw, &synced, &req, 1); }
    std::string header() const { return {reinterpret_cast<const char *>(p().nv.data()), 24}; }
    int synced = 77;
    int req = 78;
};

TEST_F(NvSync, FlagsAreReadAsAsked)
{
    EXPECT_EQ(flags(0x101), 0);
    EXPECT_EQ(synced, 5);
    EXPECT_EQ(req, 78) << "left alone";
    EXPECT_EQ(flags(0x102), 0);
    EXPECT_EQ(req, -1) << "sign-extended";
    synced = req = 0;
    EXPECT_EQ(flags(0x303), 0) << "both: it is a reading";
    EXPECT_EQ(synced, 5);
    EXPECT_EQ(req, -1);
    EXPECT_THAT(p().calls_of("nv_write 8"), IsEmpty());
    EXPECT_EQ(kestal_flag_of_sync_nonvolatile(0x103, nullptr, nullptr, 0), 0);
}

TEST_F(NvSync, ReadingIsOneTransferUnderTheInnerLock)
{
    EXPECT_EQ(flags(0x103), 0);
    EXPECT_THAT(p().calls_of("nv_"),
                ElementsAre("nv_read 600 64", "nv_write 600 16", "nv_read 600 64", "nv_read 8 16", "nv_write 600 16"));
    EXPECT_TRUE(p().traced(5, tag + "kesta_volatile->sync_flag.synced=5 req=-1"));
    EXPECT_EQ(p().count(tag + "rw=0x103 synced_flg=0x"), 1);
}

TEST_F(NvSync, FlagsAreWrittenAndTheRestGoesBackAsItWas)
{
    synced = 0x1fe;
    req = 3;
    EXPECT_EQ(flags(0x201), 0);
    EXPECT_EQ(header().substr(8, 10), std::string("MAGI\7\0\0\0\xfe\xff", 10)) << "the low byte";
    EXPECT_EQ(flags(0x203), 0);
    EXPECT_EQ(header().substr(8, 10), std::string("MAGI\7\0\0\0\xfe\3", 10));
    EXPECT_EQ(p().calls_of("nv_write 8"), (std::vector<std::string>{"nv_write 8 16", "nv_write 8 16"}));
    EXPECT_EQ(kestal_flag_of_sync_nonvolatile(0x203, nullptr, nullptr, 0), 0);
    EXPECT_EQ(header().substr(8, 10), std::string("MAGI\7\0\0\0\xfe\3", 10));
}

TEST_F(NvSync, NeitherBitIsOneAfterAReading)
{
    EXPECT_EQ(flags(0x1), 1);
    EXPECT_EQ(synced, 77);
    EXPECT_THAT(p().calls_of("nv_read 8"), ElementsAre("nv_read 8 16"));
    EXPECT_THAT(p().calls_of("nv_write 8"), IsEmpty());
    EXPECT_TRUE(inner_lock_is_free());
}

TEST_F(NvSync, FlagFailuresAreTold)
{
    p().fail_kind("nv_read", 2, 1);
    EXPECT_EQ(flags(0x101), -5) << "the platform's, without another attempt";
    EXPECT_TRUE(p().traced(1, tag + "NV(memory) Read ERROR rw=257 rtn=-5"));
    p().fail_kind("nv_write", 1, 1);
    EXPECT_EQ(flags(0x201), -5);
    EXPECT_TRUE(p().traced(1, tag + "NV(memory) Write ERROR rw=513 rtn=-5"));
    EXPECT_TRUE(inner_lock_is_free());
    EXPECT_EQ(kestal_flag_of_sync_nonvolatile(0x101, &synced, &req, 4), -931);
    EXPECT_TRUE(p().traced(1, tag + "InnerLock Lock Failed(rtn=-931)."));
    p().fail_kind("nv_write", 1, 5);
    EXPECT_EQ(flags(0x101), 0) << "a failed release doesn't change the result";
    EXPECT_TRUE(p().traced(1, tag + "InnerLock Unlock Failed.(ret=-172)"));
}

TEST_F(NvSync, DebugLogPrintsPointersAndValues)
{
    KESTA_VOLATILE image{};
    image.sync_flag.synced = 1;
    kestal_flag_of_sync_nonvolatile_dbglog(0x102, nullptr, nullptr, &image);
    EXPECT_THAT(p().texts(5), ElementsAre(tag + "kesta_volatile->sync_flag.synced=1 req=0",
                                          tag + "rw=0x102 synced_flg=0x0(-1) req_flg=0x0(-1)"));
    p().traces.clear();
    kestal_flag_of_sync_nonvolatile_dbglog(0x102, nullptr, nullptr, nullptr);
    EXPECT_TRUE(p().traces.empty()) << "nothing is said without an image";
}

TEST_F(NvSync, HeaderIsStampedWithoutALock)
{
    EXPECT_EQ(kestal_set_magic_to_nv_header(), 0);
    EXPECT_EQ(header().substr(0, 18), std::string("\0\0\0\0\0\0\0\0ENVV\2\0\0\0\5\xff", 18));
    EXPECT_THAT(p().calls, ElementsAre("nv_write 0 16"));
    p().fail_kind("nv_write", 0, 1);
    EXPECT_EQ(kestal_set_magic_to_nv_header(), -5);
    EXPECT_TRUE(p().traced(1, "[set_magic_to_nv_header] NV(memory) Write ERROR rtn=-5"));
}

TEST_F(NvSync, DataIsClearedAndTheHeaderKept)
{
    memset(p().nv.data(), 0x5a, 700);
    EXPECT_EQ(kestal_set_to_nvdata(), 0);
    const auto *bytes = reinterpret_cast<const char *>(p().nv.data());
    EXPECT_EQ(std::string(bytes, 24), std::string(24, 0x5a));
    EXPECT_EQ(std::string(bytes + 24, 640), std::string(640, '\0'));
    EXPECT_EQ(bytes[664], 0x5a) << "nothing behind the image";
    EXPECT_THAT(p().calls, ElementsAre("nv_write 24 640"));
    p().fail_kind("nv_write", 0, 1);
    EXPECT_EQ(kestal_set_to_nvdata(), -1);
    EXPECT_TRUE(p().traced(1, "[kestal_set_to_nvdata] NV(memory) Write ERROR rtn=-5"));
}

TEST_F(NvSync, BothRegionsAreRewrittenInPlace)
{
    p().other_regions[0] = std::string(32768, 'z');
    p().set_text(nv_group, "network", 16);
    EXPECT_EQ(kestal_sync_all_nonvolatile(2), 0);
    EXPECT_EQ(p().other_regions[0], std::string(32768, 'z'));
    EXPECT_EQ(p().text_at(nv_group, 16), "network");
    EXPECT_THAT(p().calls, ElementsAre("nv_read 600 64", "nv_write 600 16", "nv_read 600 64", "alloc 32768",
                                       "nv_read_region0 0 32768", "nv_write_region0 0 32768", "nv_read 0 32768",
                                       "nv_write 0 32768", "nv_write 600 16"));
    EXPECT_THAT(p().texts(3), ElementsAre("[sync_all_nonvolatile] Sync Data: region=0 data_size=0x8000 counter=1.",
                                          "[sync_all_nonvolatile] Sync Data: region=2 data_size=0x8000 counter=1."));
    EXPECT_EQ(p().traces.front().text, "[sync_all_nonvolatile] START");
    EXPECT_EQ(p().traces.back(),
              (Trace{4, "[sync_all_nonvolatile] END rtn=0", "../common/kestal_sync_nonvolatile.cpp"}));
    EXPECT_TRUE(inner_lock_is_free());
}

TEST_F(NvSync, SyncFailuresEndIt)
{
    EXPECT_EQ(kestal_sync_all_nonvolatile(4), -931);
    EXPECT_TRUE(p().traced(1, "[sync_all_nonvolatile] InnerLock Lock Failed(rtn=-931)."));
    p().fail_kind("nv_read", 2, 1);
    p().calls.clear();
    EXPECT_EQ(kestal_sync_all_nonvolatile(0), -5);
    EXPECT_TRUE(p().traced(1, "[sync_all_nonvolatile] NV(memory) Read ERROR rtn=-5"));
    EXPECT_THAT(p().calls_of("nv_read 0"), IsEmpty()) << "region 2 is skipped";
    p().fail_kind("nv_write", 1, 1);
    EXPECT_EQ(kestal_sync_all_nonvolatile(0), -5);
    EXPECT_TRUE(p().traced(1, "[sync_all_nonvolatile] NV(memory) Write ERROR rtn=-5"));
    EXPECT_TRUE(p().traced(4, "[sync_all_nonvolatile] END rtn=-5"));
    p().fail_kind("alloc", 0, 1);
    EXPECT_EQ(kestal_sync_all_nonvolatile(0), 0) << "a start goes on without it";
    EXPECT_TRUE(p().traced(1, "[sync_all_nonvolatile] CALLOC ERROR size=32768 errno=12"));
    EXPECT_TRUE(inner_lock_is_free());
    p().fail_kind("nv_write", 3, 5);
    EXPECT_EQ(kestal_sync_all_nonvolatile(0), 0);
    EXPECT_TRUE(p().traced(1, "[sync_all_nonvolatile] InnerLock Unlock Failed.(ret=-172)"));
}
