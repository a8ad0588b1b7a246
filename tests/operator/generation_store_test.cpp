// What is kept of archives that are replaced: once by contents, within the limits, and never what is in force.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "generation_catalogue.h"

using namespace engine;
using namespace test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

using Generations = GenerationCatalogue;

TEST_F(Generations, NoneAreThereBeforeTheFirstIsKept)
{
    EXPECT_THAT(store().all(), IsEmpty());
    EXPECT_THAT(store().check().problems, IsEmpty());
    EXPECT_FALSE(fs::exists(folder())) << "looking makes nothing";
}

TEST_F(Generations, OneIsAPlainFileForRootOnlyWithAllThatIsKnown)
{
    const KeepReport report = keep(source("one", 7));
    ASSERT_THAT(report.kept, SizeIs(1));
    EXPECT_EQ(read(archive_of(sum("one"))), "one");
    EXPECT_EQ(status(folder()).st_mode & 07777, 0700U);
    EXPECT_EQ(status(archive_of(sum("one"))).st_mode & 07777, 0600U);
    const std::vector<Generation> all = store().all();
    ASSERT_THAT(all, SizeIs(1));
    EXPECT_EQ(all[0].sha256, sum("one"));
    EXPECT_EQ(all[0].bytes, 3U);
    EXPECT_EQ(all[0].version, 7);
    EXPECT_FALSE(all[0].version_recorded) << "its place said so";
    EXPECT_THAT(all[0].places, ElementsAre("slot:kesta_backup0"));
    EXPECT_EQ(all[0].kept.time, 1000);
    EXPECT_EQ(all[0].kept.user, "root");
    EXPECT_EQ(all[0].kept.verb, "save");
    EXPECT_EQ(all[0].kept.comment, "why");
    EXPECT_EQ(all[0].kept.controller, 0);
}

TEST_F(Generations, SameContentsAreKeptOnce)
{
    keep(source("one"));
    keep(source("two"));
    const KeepReport again = keep(source("one", 3, "/opt/kesta_sys/bakup/accept.tar.Z"));
    EXPECT_THAT(again.kept, SizeIs(1));
    EXPECT_THAT(kept(), ElementsAre("one", "two")) << "the last one first";
    EXPECT_THAT(store().all()[0].places, ElementsAre("slot:kesta_backup0", "/opt/kesta_sys/bakup/accept.tar.Z"));
    EXPECT_EQ(store().all()[0].version, 3);
}

TEST_F(Generations, DamagedOnesAreNotKeptAndTold)
{
    const KeepReport report = keep(source("damaged"));
    EXPECT_THAT(report.kept, IsEmpty());
    EXPECT_THAT(report.notes, ElementsAre(HasSubstr("slot:kesta_backup0 holds a damaged archive")));
    EXPECT_THAT(kept(), IsEmpty());
}

TEST_F(Generations, WhatWasNotedWhenItWasSavedIsKnownAndNotTestedAgain)
{
    store().note_saved({sum("damaged by the test's rule"), 26, 12, "network", {900, 2, "ann", "save", "before"}});
    keep(source("damaged by the test's rule", 3));
    const std::vector<Generation> all = store().all();
    ASSERT_THAT(all, SizeIs(1));
    EXPECT_EQ(all[0].version, 12);
    EXPECT_TRUE(all[0].version_recorded);
    EXPECT_EQ(all[0].group, "network");
    ASSERT_TRUE(all[0].saved);
    EXPECT_EQ(all[0].saved->user, "ann");
    EXPECT_EQ(all[0].saved->comment, "before");
    EXPECT_EQ(all[0].kept.comment, "why");
}

TEST_F(Generations, FileThatIsRenamedOverIsKeptAsItIs)
{
    write(home / "flash", "one");
    GenerationSource linked = source("one");
    linked.file = Descriptor(open((home / "flash").c_str(), O_RDONLY | O_CLOEXEC));
    keep(std::move(linked));
    EXPECT_EQ(status(archive_of(sum("one"))).st_ino, status(home / "flash").st_ino);
    write(home / "new", "two");
    fs::rename(home / "new", home / "flash");
    keep(source("three"));
    EXPECT_EQ(status(archive_of(sum("one"))).st_mode & 07777, 0600U);
    EXPECT_THAT(kept(), ElementsAre("three", "one"));
}

// The command that wanted to replace it failed: the file is still in force, and somebody may write into it.
TEST_F(Generations, FileThatStayedInForceIsSharedNoMoreAfterTheNextCommand)
{
    write(home / "flash", "one");
    GenerationSource linked = source("one");
    linked.file = Descriptor(open((home / "flash").c_str(), O_RDONLY | O_CLOEXEC));
    keep(std::move(linked));
    keep(source("two"));
    write(home / "flash", "written in place");
    EXPECT_THAT(kept(), ElementsAre("two", "one"));
    EXPECT_THAT(store().check().problems, IsEmpty());
}

// ------------------------------------------------------------------------------------------ retention

TEST_F(Generations, OldestGoFirstBeyondTheNumber)
{
    for (const char *text : {"1", "2", "3", "4"}) {
        keep(source(text), {3, 1000});
    }
    EXPECT_THAT(kept(), ElementsAre("4", "3", "2"));
    EXPECT_THAT(keep(source("5"), {1, 1000}).dropped, SizeIs(3));
    EXPECT_THAT(kept(), ElementsAre("5"));
}

TEST_F(Generations, OldestGoFirstBeyondTheBytes)
{
    for (const char *text : {"aaaa", "bbbb", "cccc"}) {
        keep(source(text), {10, 8});
    }
    EXPECT_THAT(kept(), ElementsAre("cccc", "bbbb"));
    keep(source("larger than all that is allowed"), {10, 8});
    EXPECT_THAT(kept(), ElementsAre("larger than all that is allowed")) << "it is about to be overwritten";
}

TEST_F(Generations, AcceptedAndRunningVersionsStay)
{
    for (const int version : {3, 4, 5, 6, 7, 8}) {
        keep(source("v" + std::to_string(version), version), {2, 1000}, {3, 5});
    }
    EXPECT_THAT(kept(), ElementsAre("v8", "v5", "v3"));
}

TEST_F(Generations, LastOneOfEachGroupStays)
{
    store().note_saved({sum("network 1"), 9, 1, "network", {}});
    store().note_saved({sum("storage 1"), 9, 2, "storage", {}});
    for (const char *text : {"network 1", "storage 1", "unknown 1", "unknown 2", "unknown 3"}) {
        keep(source(text), {1, 1000});
    }
    EXPECT_THAT(kept(), ElementsAre("unknown 3", "storage 1", "network 1"));
}

TEST_F(Generations, NothingGoesWhereTheVersionsInForceAreUnknown)
{
    keep(source("1"));
    keep(source("2"));
    const KeepReport report = keep(source("3"), {1, 1000}, {std::nullopt, 3});
    EXPECT_THAT(report.notes, ElementsAre(HasSubstr("can't be told")));
    EXPECT_THAT(kept(), SizeIs(3));
}

// ------------------------------------------------------------------------------------- what goes wrong

TEST_F(Generations, CheckNamesEachFault)
{
    for (const char *text : {"good", "flipped", "gone", "without entry"}) {
        keep(source(text));
    }
    write(archive_of(sum("flipped")), "flippeD");
    fs::remove(archive_of(sum("gone")));
    fs::remove(entry_of(sum("without entry")));
    const GenerationsCheck check = store().check();
    EXPECT_EQ(check.good, 1U);
    EXPECT_EQ(check.bytes, 4U);
    std::vector<std::pair<GenerationFault, std::string>> found;
    for (const GenerationProblem &problem : check.problems) {
        found.emplace_back(problem.fault, problem.sha256);
        EXPECT_THAT(problem.text, HasSubstr("Generation " + problem.sha256.substr(0, 12)));
    }
    EXPECT_THAT(found, UnorderedElementsAre(std::pair(GenerationFault::damaged, sum("flipped")),
                                            std::pair(GenerationFault::no_file, sum("gone")),
                                            std::pair(GenerationFault::no_entry, sum("without entry"))));
}

TEST_F(Generations, RecordOfSavedArchivesIsCheckedAndWhatIsLeftOfItCounts)
{
    store().note_saved({sum("one"), 3, 12, "network", {900, 2, "ann", "save", ""}});
    store().note_saved({sum("two"), 3, 13, "network", {901, 2, "ann", "save", ""}});
    EXPECT_THAT(store().check().problems, IsEmpty());
    const std::string record = (fs::path(entry_of(sum("one"))).parent_path() / "saved.json").string();
    std::string text = read(record);
    const auto newest = text.rfind("\"version\"");
    ASSERT_NE(newest, std::string::npos);
    text.replace(newest, strlen("\"version\""), "\"verse\"  ");
    write(record, text);
    ASSERT_THAT(store().check().problems, SizeIs(1));
    EXPECT_EQ(store().check().problems[0].fault, GenerationFault::damaged);
    EXPECT_EQ(store().check().problems[0].path, record);
    EXPECT_THAT(store().saved(), SizeIs(1));
    store().note_saved({sum("three"), 5, 14, "network", {902, 2, "ann", "save", ""}});
    EXPECT_THAT(store().check().problems, IsEmpty());
    EXPECT_THAT(store().saved(), SizeIs(2));
}

TEST_F(Generations, EntriesAreMadeAnewFromTheFiles)
{
    store().note_saved({sum("one"), 3, 12, "network", {900, 2, "ann", "save", ""}});
    keep(source("one"));
    keep(source("two"));
    fs::remove(entry_of(sum("one")));
    write(entry_of(sum("two")), "{ cut");
    write(archive_of(sum("no archive of that name")), "another");
    const KeepReport report = keep(source("three"));
    EXPECT_THAT(report.notes, IsEmpty());
    EXPECT_THAT(kept(), UnorderedElementsAre("one", "two", "three"));
    EXPECT_EQ(store().all()[2].version + store().all()[1].version, 12) << "what was noted of it is known again";
    ASSERT_THAT(store().check().problems, SizeIs(1));
    EXPECT_EQ(store().check().problems[0].sha256, sum("no archive of that name"));
}

TEST_F(Generations, EntryWithoutAFileIsTakenAwayAndTold)
{
    keep(source("one"));
    fs::remove(archive_of(sum("one")));
    EXPECT_THAT(keep(source("two")).notes, ElementsAre(HasSubstr("is gone")));
    EXPECT_THAT(kept(), ElementsAre("two"));
    EXPECT_THAT(store().check().problems, IsEmpty());
}

TEST_F(Generations, DamagedOneIsKeptAnewWithItsContents)
{
    keep(source("one"));
    write(archive_of(sum("one")), "two");
    keep(source("one"));
    EXPECT_THAT(kept(), ElementsAre("one"));
    EXPECT_THAT(store().check().problems, IsEmpty());
}

TEST_F(Generations, LinksAndOtherThingsAreNotFollowed)
{
    fs::create_directory(home / "elsewhere");
    fs::create_directory_symlink(home / "elsewhere", folder());
    EXPECT_THROW(keep(source("one")), Failure);
    EXPECT_TRUE(fs::is_empty(home / "elsewhere"));
    fs::remove(folder());
    keep(source("one"));
    fs::remove(archive_of(sum("one")));
    write(home / "outside", "one");
    fs::create_symlink(home / "outside", archive_of(sum("one")));
    EXPECT_THAT(store().check().problems, SizeIs(1));
    fs::permissions(folder(), fs::perms::all);
    fs::remove(archive_of(sum("one")));
    keep(source("one"));
    EXPECT_EQ(status(folder()).st_mode & 07777, 0700U);
}

TEST_F(Generations, TwoCommandsTakeTurns)
{
    keep(source("one"));
    const int held = open(folder().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(held, LOCK_EX), 0);
    std::atomic<bool> released = false;
    std::atomic<bool> waited = false;
    std::thread second([&] {
        keep(source("two"));
        waited = released.load();
    });
    released = true;
    close(held);
    second.join();
    EXPECT_TRUE(waited);
    EXPECT_THAT(kept(), ElementsAre("two", "one"));
}
