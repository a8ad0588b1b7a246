// What there was before: found by what operators call it, filtered by time and version; and what is told of changes.
#include "history.h"

#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "change_log.h"
#include "failure.h"
#include "generation_catalogue.h"
#include "generation_entry.h"
#include "journal.h"

using namespace engine;
using testing::HasSubstr;
using testing::Not;

class History : public test::GenerationCatalogue {};

TEST_F(History, NumberOfAGenerationStaysItsOwn)
{
    keep(source("first"));
    keep(source("second"));
    keep(source("first"));
    const std::vector<Generation> all = store().all();
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[0].sha256, sum("first")) << "it was kept last";
    EXPECT_EQ(all[0].number, 1U);
    EXPECT_EQ(all[1].number, 2U);
    keep(source("third"));
    EXPECT_GT(store().all().front().number, 2U);
}

TEST_F(History, EntriesOfEarlierReleasesAreListed)
{
    keep(source("first", 3));
    const std::string entry = read(entry_of(sum("first")));
    std::string old = entry;
    for (const std::string field : {"\"number\": 1,", "\"change\": 0"}) {
        for (std::size_t at = old.find(field); at != std::string::npos; at = old.find(field)) {
            old.replace(at, field.size(), field.ends_with(',') ? "" : "\"unknown\": 0");
        }
    }
    ASSERT_NE(old, entry);
    const auto parsed = parse_entry(old, sum("first"));
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->number, 1U);
    EXPECT_EQ(parsed->version, 3);
    EXPECT_EQ(parsed->kept.change, 0U);
}

// Earlier releases read and write the same files.
TEST_F(History, RecordsKeepTheirBytes)
{
    Generation generation;
    generation.sha256 = "ab";
    generation.bytes = 18'446'744'073'709'551'615U;
    generation.order = 2;
    generation.version = -1;
    generation.group = "n\xc3\xa4 \xff\"\n";
    generation.places = {"slot:kesta_backup0"};
    generation.kept = {-5, -1, "root", "save", "", 7};
    generation.number = 1;
    const std::string entry =
        "{\n  \"format\": 1,\n  \"sha256\": \"ab\",\n  \"bytes\": 18446744073709551615,\n  \"order\": 2,\n"
        "  \"number\": 1,\n  \"version\": -1,\n  \"version_recorded\": false,\n"
        "  \"group\": \"n\xc3\xa4 \xef\xbf\xbd\\\"\\n\",\n  \"places\": [\n    \"slot:kesta_backup0\"\n  ],\n"
        "  \"kept\": {\n    \"time\": -5,\n    \"controller\": -1,\n    \"user\": \"root\",\n    \"verb\": \"save\",\n"
        "    \"comment\": \"\",\n    \"change\": 7\n  },\n  \"saved\": null\n}\n";
    EXPECT_EQ(entry_text(generation), entry);
    const auto parsed = parse_entry(entry, "ab");
    ASSERT_TRUE(parsed);
    EXPECT_EQ(entry_text(*parsed), entry);
    EXPECT_FALSE(parse_entry(entry.substr(0, entry.size() - 3), "ab"));
    const std::string saved =
        "{\n  \"format\": 1,\n  \"archives\": [\n    {\n      \"sha256\": \"ab\",\n      \"bytes\": 5,\n"
        "      \"version\": 3,\n      \"group\": \"g\",\n      \"saved\": {\n        \"time\": 9,\n"
        "        \"controller\": 0,\n        \"user\": \"\",\n        \"verb\": \"save\",\n        \"comment\": \"c\",\n"
        "        \"change\": 0\n      }\n    }\n  ]\n}\n";
    const SavedArchives known = parse_saved(saved);
    EXPECT_TRUE(known.whole);
    EXPECT_EQ(saved_text(known.archives), saved);
}

TEST_F(History, DroppedOneIsGoneWithItsEntry)
{
    keep(source("first"));
    keep(source("second"));
    store().forget(sum("first"));
    EXPECT_THAT(kept(), testing::ElementsAre("second"));
    EXPECT_FALSE(test::fs::exists(archive_of(sum("first"))));
    EXPECT_FALSE(test::fs::exists(entry_of(sum("first"))));
}

TEST(HistoryFilter, TimesAndVersionsAreThoseThatPeopleWrite)
{
    constexpr std::int64_t now = 1'763'800'000;
    EXPECT_EQ(parse_time("2026-11-21T20:49:00Z", now), 1'795'294'140);
    EXPECT_EQ(parse_time("1970-01-02", now), 86400);
    EXPECT_EQ(parse_time("90m", now), now - 5400);
    EXPECT_EQ(parse_time("12h", now), now - 43200);
    EXPECT_EQ(parse_time("7d", now), now - 7 * 86400);
    for (const char *bad : {"", "d", "7", "-7d", "7w", "2026-13-01", "2026-02-30", "2026-04-31T00:00:00Z",
                            "2026-11-21 ", "99999999999999999999d", "99999999999d"}) {
        EXPECT_THROW((void)parse_time(bad, now), Failure) << bad;
    }
    HistoryFilter filter;
    parse_versions("3-9", filter);
    EXPECT_EQ(filter.first_version, 3);
    EXPECT_EQ(filter.last_version, 9);
    parse_versions("7", filter);
    EXPECT_EQ(filter.first_version, 7);
    EXPECT_EQ(filter.last_version, 7);
    for (const char *bad : {"", "-", "3-", "-3", "3-1", "x", "99999999999"}) {
        EXPECT_THROW(parse_versions(bad, filter), Failure) << bad;
    }
}

TEST(Journal, NoValueMakesALineOfItsOwn)
{
    const std::string datagram =
        journal_datagram({{"MESSAGE", "save\nKESTA_RESULT=done"}, {"KESTA_GROUP", std::string("\x1b[2J\0x", 6)}});
    EXPECT_EQ(datagram, "MESSAGE=save\\x0aKESTA_RESULT=done\nKESTA_GROUP=\\x1b[2J\\x00x\n");
}

TEST_F(History, JournalGetsOneDatagramAndNobodyWaitsForIt)
{
    const std::string path = (home / "socket").string();
    EXPECT_FALSE(send_to_journal({{"MESSAGE", "x"}}, path)) << "there is none";
    const Descriptor own(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(bind(own.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
    EXPECT_TRUE(send_to_journal({{"MESSAGE", "saved"}, {"KESTA_VERB", "save"}}, path));
    char got[100];
    const ssize_t size = recv(own.get(), got, sizeof(got), MSG_DONTWAIT);
    ASSERT_GT(size, 0);
    EXPECT_EQ(std::string(got, static_cast<std::size_t>(size)), "MESSAGE=saved\nKESTA_VERB=save\n");
    int sent = 0;
    while (sent < 10000 && send_to_journal({{"MESSAGE", "again"}}, path)) {
        ++sent;
    }
    EXPECT_LT(sent, 10000) << "its queue is full";
}
