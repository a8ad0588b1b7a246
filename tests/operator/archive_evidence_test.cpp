// What one copy of an archive is worth: good, damaged, absent and unreadable are never confused.
#include "archive_evidence.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>

#include "archive_limits.h"
#include "archive_members.h"
#include "private_root.h"
#include "tar_samples.h"
#include "test_platform.h"

using namespace engine;

namespace {

constexpr const char *path = "/opt/kesta_sys/bakup/backup.tar.Z";
constexpr const char *slot = "kesta_backup0";

class ArchiveEvidenceTest : public testing::Test {
protected:
    ArchiveEvidenceTest()
    {
        test::reset();
        test::clear_appliance_folders();
        std::filesystem::remove(archive_limits_file);
    }
};

void expect_state(const std::string &bytes, CopyState state, const std::string &reason)
{
    const ArchiveEvidence evidence = evidence_of_bytes(bytes);
    EXPECT_STREQ(name_of(evidence.state), name_of(state)) << evidence.reason;
    EXPECT_EQ(evidence.reason, reason);
    EXPECT_EQ(evidence.bytes, bytes.size());
    EXPECT_EQ(evidence.sha256.size(), 64U);
}

}  // namespace

TEST_F(ArchiveEvidenceTest, AWholeArchiveIsGood)
{
    expect_state(test::whole_archive("one"), CopyState::good, "");
    const std::string tar = test::tar_of("etc/large", std::string(3 << 20, 'x') + std::string(1 << 20, '\0'));
    expect_state(test::bzip2(tar), CopyState::good, "");
    expect_state(test::bzip2(tar + std::string(9216, '\0')), CopyState::good, "");
    expect_state(test::bzip2(tar.substr(0, 5000)) + test::bzip2(tar.substr(5000)), CopyState::good, "");
    EXPECT_EQ(evidence_of_bytes("").sha256, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST_F(ArchiveEvidenceTest, WhatIsCutIsDamagedWhereverItIsCut)
{
    const std::string whole = test::whole_archive("one");
    for (std::size_t size = 0; size < whole.size(); ++size) {
        const ArchiveEvidence evidence = evidence_of_bytes(whole.substr(0, size));
        ASSERT_EQ(evidence.state, CopyState::damaged) << size;
        ASSERT_EQ(evidence.bytes, size);
    }
    expect_state(whole.substr(0, whole.size() - 1), CopyState::damaged, "cut short");
    expect_state("", CopyState::damaged, "it is empty");
    const std::string tar = test::tar_of("etc/settings", "contents\n");
    expect_state(test::bzip2(tar.substr(0, 1024)), CopyState::damaged, "cut short");
    expect_state(test::bzip2(tar.substr(0, 700)), CopyState::damaged, "cut short");
}

TEST_F(ArchiveEvidenceTest, AnyFlippedByteIsSeen)
{
    const std::string whole = test::whole_archive("one");
    for (std::size_t at = 0; at < whole.size(); ++at) {
        std::string flipped = whole;
        flipped[at] = static_cast<char>(flipped[at] ^ 0x10);
        ASSERT_NE(evidence_of_bytes(flipped).state, CopyState::good) << at;
    }
    expect_state(test::with_flipped_byte(whole), CopyState::damaged, "bzip2: data integrity error");
    expect_state("no archive at all", CopyState::damaged, "it is not what bzip2 makes");
}

TEST_F(ArchiveEvidenceTest, ATailIsDamageBeItZeros)
{
    const std::string whole = test::whole_archive("one");
    for (const std::string &tail : {std::string(1, '\0'), std::string(10240, '\0'), std::string("x"), whole,
                                    whole.substr(0, 40), std::string(600000, 'y')}) {
        EXPECT_EQ(evidence_of_bytes(whole + tail).state, CopyState::damaged) << tail.size();
    }
    expect_state(whole + std::string(1, '\0'), CopyState::damaged, "bytes behind its end");
    expect_state(whole + whole, CopyState::damaged, "bytes behind its end");
    const std::string tar = test::tar_of("etc/settings", "contents\n");
    expect_state(test::bzip2(tar + "more"), CopyState::damaged, "bytes behind its end");
}

TEST_F(ArchiveEvidenceTest, AFileTellsWhenItWasChanged)
{
    test::write_file(path, test::whole_archive("one"));
    struct stat status {};
    ASSERT_EQ(stat(path, &status), 0);
    const ArchiveEvidence evidence = evidence_of_file(path);
    EXPECT_TRUE(evidence.good());
    EXPECT_EQ(evidence.modified, status.st_mtim.tv_sec);
    EXPECT_TRUE(evidence.same_bytes(evidence_of_bytes(test::whole_archive("one"))));
    EXPECT_FALSE(evidence.same_bytes(evidence_of_bytes(test::whole_archive("two"))));
}

TEST_F(ArchiveEvidenceTest, OnlyAMissingFileIsAbsent)
{
    EXPECT_EQ(evidence_of_file(path).state, CopyState::absent);
    EXPECT_FALSE(ArchiveEvidence().same_bytes(ArchiveEvidence()));
    std::filesystem::create_directory(path);
    EXPECT_EQ(evidence_of_file(path).reason, "it is a folder");
    EXPECT_EQ(evidence_of_file(path).state, CopyState::unreadable);
    std::filesystem::remove(path);
    std::filesystem::create_symlink("/nowhere", path);
    EXPECT_EQ(evidence_of_file(path).state, CopyState::unreadable);
    std::filesystem::remove(path);
    test::write_file(path, test::whole_archive("one"));
    EXPECT_EQ(evidence_of_file(std::string(path) + "/below").state, CopyState::unreadable);
    for (const int good_reads : {0, 1}) {
        test::platform().fail_kind("read", good_reads);
        EXPECT_EQ(evidence_of_file(path).state, CopyState::unreadable) << "after " << good_reads;
        test::platform().kind_faults.clear();
    }
    test::platform().fail_kind("open");
    EXPECT_EQ(evidence_of_file(path).state, CopyState::unreadable);
}

TEST_F(ArchiveEvidenceTest, OnlyAMissingSlotIsAbsent)
{
    test::Platform &platform = test::platform();
    EXPECT_EQ(evidence_of_slot(slot).state, CopyState::absent);
    platform.sysback[slot] = {test::whole_archive("one")};
    EXPECT_EQ(evidence_of_slot(slot).state, CopyState::good);
    EXPECT_EQ(evidence_of_slot(slot).modified, std::nullopt);
    for (const char *call : {"sb_open", "sb_size", "sb_read", "sb_close"}) {
        platform.fail_kind(call);
        EXPECT_EQ(evidence_of_slot(slot).state, CopyState::unreadable) << call << ", after it was absent once";
        platform.kind_faults.clear();
    }
    platform.close_flag = 0;
    EXPECT_EQ(evidence_of_slot(slot).reason, "its last writer did not close it");
    platform.close_flag = 1;
    platform.sysback[slot] = {test::whole_archive("one") + std::string(100, '\0')};
    EXPECT_EQ(evidence_of_slot(slot).state, CopyState::damaged);
    EXPECT_EQ(platform.open_handles, 0);
}

TEST_F(ArchiveEvidenceTest, BeyondTheLimitsNothingTellsWhetherItIsWhole)
{
    test::write_file(archive_limits_file, "archive_bytes = 100\n");
    const ArchiveEvidence evidence = evidence_of_bytes(test::whole_archive("one"));
    EXPECT_EQ(evidence.state, CopyState::unreadable);
    EXPECT_EQ(evidence.reason, "holds more than 100 bytes");
    EXPECT_TRUE(evidence.beyond_limits);
}

TEST_F(ArchiveEvidenceTest, ALookMayEndTheTest)
{
    const auto stop = [] {
        throw Failure(Exit::interrupted, "interrupted", "Interrupted.", "");
    };
    EXPECT_THROW(evidence_of_bytes(test::whole_archive("one"), stop), Failure);
}

TEST_F(ArchiveEvidenceTest, WhatIsNotGoodIsRefusedByName)
{
    ArchiveEvidence unreadable;
    unreadable.state = CopyState::unreadable;
    EXPECT_NO_THROW(require_whole(evidence_of_bytes(test::whole_archive("one")), "It"));
    EXPECT_THROW(require_whole(evidence_of_bytes(""), "It"), DamagedArchive);
    EXPECT_THROW(require_whole(unreadable, "It"), Failure);
    EXPECT_THROW(require_whole({}, "It"), Failure);
}

// What is looked at while it is unpacked is looked at often, and what is only read, once for each piece.
TEST_F(ArchiveEvidenceTest, TheSameBytesAreUnpackedOnce)
{
    int looks = 0;
    const auto look = [&looks] {
        ++looks;
    };
    const std::string large = test::whole_archive(std::string(1 << 20, 'x') + "counted");
    const ArchiveEvidence first = evidence_of_bytes(large, look);
    EXPECT_GT(looks, 10);
    looks = 0;
    test::write_file(path, large);
    const ArchiveEvidence second = evidence_of_file(path, look);
    EXPECT_LE(looks, 3);
    EXPECT_TRUE(second.good());
    EXPECT_TRUE(second.same_bytes(first));
    EXPECT_TRUE(second.modified.has_value());
    EXPECT_FALSE(evidence_of_bytes(large).modified.has_value()) << "a place's own time is not another one's";
}

TEST_F(ArchiveEvidenceTest, OtherBytesOfTheSameSizeAreTested)
{
    const std::string whole = test::whole_archive("known");
    EXPECT_TRUE(evidence_of_bytes(whole).good());
    expect_state(test::with_flipped_byte(whole), CopyState::damaged,
                 evidence_of_bytes(test::with_flipped_byte(whole)).reason);
    EXPECT_TRUE(evidence_of_bytes(whole).good());
}

TEST_F(ArchiveEvidenceTest, UnderOtherLimitsAnArchiveIsTestedAnew)
{
    const std::string whole = test::whole_archive("limited");
    EXPECT_TRUE(evidence_of_bytes(whole).good());
    test::write_file(archive_limits_file, "archive_bytes = 100\n");
    EXPECT_TRUE(evidence_of_bytes(whole).beyond_limits);
    std::filesystem::remove(archive_limits_file);
    EXPECT_TRUE(evidence_of_bytes(whole).good());
}

// Somebody writes to it between its test and its use.
TEST_F(ArchiveEvidenceTest, WhatIsUsedIsWhatWasTested)
{
    test::write_file(path, test::whole_archive("one"));
    ArchiveContents contents;
    ASSERT_TRUE(evidence_of_file(path, &contents, [] {}).good());
    EXPECT_EQ(checksum_of(contents), evidence_of_file(path).sha256);
    EXPECT_TRUE(same_contents(contents, contents_of_bytes(test::whole_archive("one"))));
    EXPECT_FALSE(same_contents(contents, contents_of_bytes(test::whole_archive("two"))));
    test::write_file(path, test::whole_archive("two"));
    EXPECT_THROW(checksum_of(contents), Failure);
}
