#include "backup_area.h"

#include <errno.h>

#include <thread>

#include "backup_reader.h"
#include "backup_writer.h"
#include "checksum.h"
#include "cluster_double.h"

using namespace test;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr const char *name = "kesta_backup0";

std::string bytes_of(std::size_t size, unsigned salt)
{
    std::string bytes(size, '\0');
    for (std::size_t at = 0; at < size; ++at) {
        bytes[at] = static_cast<char>((at + salt) * 2654435761U >> 13U);
    }
    return bytes;
}

std::string failed(int error) { return "(" + std::to_string(error) + ")"; }

// Large contents are told by their size and checksum: nobody reads them.
std::string brief(const std::string &bytes)
{
    return bytes.size() <= 100 ? bytes
                               : std::to_string(bytes.size()) + " bytes, " + std::to_string(etcd::checksum(bytes));
}

const std::string small = "sixteen bytes it";
const std::string large = bytes_of(300000, 1);
const std::string other = bytes_of(200000, 2);

// A process of a controller.
class Process {
public:
    explicit Process(const etcd::ClusterSettings &settings, etcd::BackupSettings given = plain_settings())
        : client_(settings), area_(client_, std::move(given), [this] { between_steps(); })
    {
    }

    static etcd::BackupSettings plain_settings()
    {
        etcd::BackupSettings settings;
        settings.prefix = "/kesta/";
        return settings;
    }

    int write(const std::string &bytes, const char *to = name)
    {
        etcd::BackupWriter writer(to);
        const int error = writer.write(area_, bytes, 0);
        const int published = writer.publish(area_);
        return error != 0 ? error : published;
    }
    // What is read, as brief() names it.
    std::string read(const char *from = name)
    {
        etcd::BackupReader reader;
        if (const int error = reader.open(area_, from); error != 0) {
            return failed(error);
        }
        return read(reader);
    }
    std::string read(etcd::BackupReader &reader)
    {
        std::string bytes(reader.size(), '?');
        const std::int64_t got = reader.read(area_, bytes.data(), bytes.size(), 0);
        return got < 0 ? failed(static_cast<int>(got)) : brief(bytes.substr(0, static_cast<std::size_t>(got)));
    }
    etcd::BackupArea &area() { return area_; }

    std::function<void()> between_steps = [] {
    };

private:
    etcd::Client client_;
    etcd::BackupArea area_;
};

}  // namespace

class EtcdBackup : public ClusterTest {
protected:
    // Nobody is silent for so long that calls become shorter.
    etcd::ClusterSettings settings() const
    {
        etcd::ClusterSettings patient = ClusterTest::settings();
        patient.times.silence_ms = 10000;
        return patient;
    }

    std::vector<std::string> chunks() { return store.keys("/kesta/sb/c/"); }
    std::vector<std::string> intents() { return store.keys("/kesta/sb/i/"); }

    Process a{settings()};
    Process b{settings()};
};

TEST_F(EtcdBackup, SmallFilesAreOneKeyAndLargeOnesHaveChunks)
{
    ASSERT_EQ(a.write(small), 0);
    EXPECT_EQ(b.read(), small);
    EXPECT_THAT(chunks(), IsEmpty());
    ASSERT_EQ(a.write(large), 0);
    EXPECT_EQ(b.read(), brief(large));
    EXPECT_THAT(chunks(), SizeIs(5));
    ASSERT_EQ(a.write(other), 0);
    EXPECT_EQ(b.read(), brief(other));
    EXPECT_THAT(chunks(), SizeIs(4));
    ASSERT_EQ(a.write(small), 0);
    EXPECT_THAT(chunks(), IsEmpty());
    EXPECT_THAT(intents(), IsEmpty());
    EXPECT_EQ(store.served("Compact"), 2);
    EXPECT_EQ(b.read("kesta_backup1"), failed(-ENOENT));
}

TEST_F(EtcdBackup, MirroredItemIsReadInOneCall)
{
    ASSERT_EQ(a.write(small), 0);
    const int before = store.served("Range");
    EXPECT_EQ(b.read(), small);
    EXPECT_EQ(store.served("Range"), before + 1);
}

TEST_F(EtcdBackup, PartsAreReadAndWritten)
{
    etcd::BackupWriter writer(name);
    for (std::size_t at = 0; at < large.size(); at += 50000) {
        ASSERT_EQ(writer.write(a.area(), large.substr(at, 50000), at), 0);
    }
    ASSERT_EQ(writer.write(a.area(), "##", 70000), 0);
    ASSERT_EQ(writer.publish(a.area()), 0);
    std::string expected = large;
    expected.replace(70000, 2, "##");
    EXPECT_EQ(b.read(), brief(expected));
    etcd::BackupReader reader;
    ASSERT_EQ(reader.open(b.area(), name), 0);
    std::string part(100, '?');
    EXPECT_EQ(reader.read(b.area(), part.data(), 100, 65500), 100);
    EXPECT_EQ(part, expected.substr(65500, 100));
    EXPECT_EQ(reader.read(b.area(), part.data(), 100, expected.size() - 10), 10);
    EXPECT_EQ(reader.read(b.area(), part.data(), 100, expected.size()), 0);
}

TEST_F(EtcdBackup, SizeIsRecordedBesideTheContents)
{
    ASSERT_EQ(a.write(large), 0);
    EXPECT_EQ(a.area().record_size(name, large.size()), 0);
    EXPECT_EQ(a.area().record_size(name, 7), 0);
    etcd::BackupReader reader;
    ASSERT_EQ(reader.open(b.area(), name), 0);
    EXPECT_EQ(reader.size(), 7U);
    ASSERT_EQ(a.write(large), 0);
    EXPECT_EQ(b.read(), brief(large));
    EXPECT_EQ(a.area().record_size("none", 7), -ENOENT);
}

// A chunk goes up, incomplete, by a try that is late and by another one; then it goes up with what came to it.
TEST_F(EtcdBackup, LateChunkDoesNotComeOverWhatItHasBecome)
{
    int steps = 0;
    a.between_steps = [&] {
        if (++steps == 1) {
            members[0].order({"Txn", Fate::late});
        }
    };
    etcd::BackupWriter writer(name);
    ASSERT_EQ(writer.write(a.area(), large.substr(0, 70000), 0), 0);
    ASSERT_EQ(writer.write(a.area(), large.substr(70000), 70000), 0);
    EXPECT_EQ(members[0].release(), 1);
    ASSERT_EQ(writer.publish(a.area()), 0);
    EXPECT_EQ(b.read(), brief(large));
}

TEST_F(EtcdBackup, DamageIsFoundAndReplaced)
{
    ASSERT_EQ(a.write(large), 0);
    const std::string chunk = chunks()[1];
    std::string stored = store.value(chunk);
    stored[100] = static_cast<char>(stored[100] ^ 1);
    store.put(chunk, stored);
    EXPECT_EQ(b.read(), brief(large)) << "at its revision it is whole";
    store.compact();
    EXPECT_EQ(b.read(), failed(-EIO));
    store.put("/kesta/sb/f/kesta_backup0", "no manifest");
    EXPECT_EQ(b.read(), failed(-EIO));
    ASSERT_EQ(a.write(other), 0);
    EXPECT_EQ(b.read(), brief(other));
    EXPECT_THAT(chunks(), SizeIs(4));
}

TEST_F(EtcdBackup, ReaderHasTheFileAsItWasWhenItIsReplacedMeanwhile)
{
    ASSERT_EQ(a.write(large), 0);
    etcd::BackupReader reader;
    ASSERT_EQ(reader.open(b.area(), name), 0);
    EXPECT_EQ(reader.size(), large.size());
    order_all({"Compact", Fate::refused, 3, "etcdserver: not now", true});
    ASSERT_EQ(a.write(other), 0);
    EXPECT_EQ(b.read(reader), brief(large));
}

TEST_F(EtcdBackup, CompactionDoesNotTakeAFileFromItsReader)
{
    ASSERT_EQ(a.write(large), 0);
    etcd::BackupReader reader;
    ASSERT_EQ(reader.open(b.area(), name), 0);
    ASSERT_EQ(a.write(other, "kesta_backup1"), 0);
    EXPECT_EQ(b.read(reader), brief(large));
}

TEST_F(EtcdBackup, ContentsThatWentAwayAreReadAnewWhereTheirSizeIsTheSame)
{
    ASSERT_EQ(a.write(large), 0);
    etcd::BackupReader reader;
    ASSERT_EQ(reader.open(b.area(), name), 0);
    EXPECT_EQ(reader.size(), large.size());
    const std::string again = bytes_of(large.size(), 9);
    ASSERT_EQ(a.write(again), 0);
    EXPECT_EQ(b.read(reader), brief(again));
    ASSERT_EQ(a.write(large), 0);
    EXPECT_EQ(b.read(reader), failed(-ESTALE)) << "once is enough";
}

TEST_F(EtcdBackup, ContentsOfAnotherSizeAreToldAsStale)
{
    ASSERT_EQ(a.write(large), 0);
    etcd::BackupReader reader;
    ASSERT_EQ(reader.open(b.area(), name), 0);
    EXPECT_EQ(reader.size(), large.size());
    ASSERT_EQ(a.write(other), 0);
    EXPECT_EQ(b.read(reader), failed(-ESTALE));
}

TEST_F(EtcdBackup, LostAnswerOfAPublicationIsSettledByTheManifest)
{
    for (const std::string &bytes : {small, large}) {
        ASSERT_EQ(a.write("before"), 0);
        std::string error;
        // All but the publication go through: it is the last transaction.
        etcd::BackupWriter writer(name);
        ASSERT_EQ(writer.write(a.area(), bytes, 0), 0);
        members[0].order({"Txn", Fate::answered});
        members[0].order({"Txn", Fate::lost});
        EXPECT_EQ(writer.publish(a.area()), 0);
        EXPECT_EQ(b.read(), brief(bytes));
        heal();
    }
    EXPECT_THAT(intents(), IsEmpty());
}

TEST_F(EtcdBackup, UnansweredSmallFileDoesNotComeBack)
{
    ASSERT_EQ(a.write("before"), 0);
    members[0].order({"Txn", Fate::answered});  // its look
    order_all({"Txn", Fate::lost});
    order_all({"Txn", Fate::unheard, 0, "", true});
    etcd::BackupWriter writer(name);
    ASSERT_EQ(writer.write(a.area(), "first", 0), 0);
    EXPECT_EQ(writer.publish(a.area()), -ETIMEDOUT);
    heal();
    ASSERT_EQ(b.write("later"), 0);
    EXPECT_EQ(a.write("first"), 0);  // as its caller repeats it
    EXPECT_EQ(b.read(), "later");
    EXPECT_EQ(a.read(), "later");
    EXPECT_EQ(a.write("first"), 0);  // after a look it is meant so
    EXPECT_EQ(b.read(), "first");
}

TEST_F(EtcdBackup, RepetitionThatFailsItselfLetsNothingComeBackEither)
{
    ASSERT_EQ(a.write("before"), 0);
    members[0].order({"Txn", Fate::answered});  // its look
    order_all({"Txn", Fate::lost});
    order_all({"Txn", Fate::unheard, 0, "", true});
    EXPECT_EQ(a.write("first"), -ETIMEDOUT);  // and it is there
    EXPECT_EQ(a.write("first"), -ETIMEDOUT);  // nothing was sent
    heal();
    ASSERT_EQ(b.write("later"), 0);
    EXPECT_EQ(a.write("first"), 0);
    EXPECT_EQ(b.read(), "later");
}

TEST_F(EtcdBackup, SizeIsNotRecordedForContentsThatWereNotPublished)
{
    ASSERT_EQ(a.write(large), 0);
    etcd::BackupWriter writer(name);
    ASSERT_EQ(writer.write(a.area(), other, 0), 0);
    order_all({"Txn", Fate::unheard, 0, "", true});
    EXPECT_EQ(writer.publish(a.area()), -ETIMEDOUT);
    heal();
    EXPECT_EQ(a.area().record_size(name, other.size()), -ETIMEDOUT);
    EXPECT_EQ(b.read(), brief(large));
}

TEST_F(EtcdBackup, AbandonedUploadIsRemovedByTheNextWriterOnceItsLeaseIsOver)
{
    ASSERT_EQ(a.write(large), 0);
    {
        Process dies(settings());
        etcd::BackupWriter writer(name);
        ASSERT_EQ(writer.write(dies.area(), other, 0), 0);
    }
    EXPECT_THAT(chunks(), SizeIs(9));
    EXPECT_EQ(b.read(), brief(large));
    ASSERT_EQ(a.write(large), 0);
    EXPECT_THAT(chunks(), SizeIs(9)) << "its writer may live";
    store.end_leases();
    ASSERT_EQ(a.write(large), 0);
    EXPECT_THAT(chunks(), SizeIs(5));
    {
        Process dies(settings());
        etcd::BackupWriter writer(name);
        ASSERT_EQ(writer.write(dies.area(), other, 0), 0);
    }
    store.end_leases();
    ASSERT_EQ(a.write(small), 0);
    EXPECT_THAT(chunks(), IsEmpty());
}

TEST_F(EtcdBackup, WriterWhoseLeaseEndedPublishesNothing)
{
    ASSERT_EQ(a.write(small), 0);
    etcd::BackupWriter writer(name);
    ASSERT_EQ(writer.write(a.area(), large, 0), 0);
    store.end_leases();
    ASSERT_EQ(b.write(other), 0);
    EXPECT_EQ(writer.publish(a.area()), -ESTALE);
    EXPECT_EQ(b.read(), brief(other));
    EXPECT_THAT(chunks(), SizeIs(4));
}

TEST_F(EtcdBackup, LastOfTwoWritersCountsAndNothingIsLeftOfTheFirst)
{
    etcd::BackupWriter writer(name);
    ASSERT_EQ(writer.write(a.area(), large, 0), 0);
    ASSERT_EQ(b.write(other), 0);
    ASSERT_EQ(writer.publish(a.area()), 0);
    EXPECT_EQ(b.read(), brief(large));
    EXPECT_THAT(chunks(), SizeIs(5));
}

TEST_F(EtcdBackup, FullStoreIsToldWhileWritingAndKeepsWhatWasThere)
{
    ASSERT_EQ(a.write(other), 0);
    store.fill();
    etcd::BackupWriter writer(name);
    EXPECT_EQ(writer.write(a.area(), large, 0), -ENOSPC);
    EXPECT_EQ(writer.publish(a.area()), -ENOSPC);
    EXPECT_EQ(b.read(), brief(other));
}

TEST_F(EtcdBackup, FileIsNotTakenForAbsentBecauseAMemberSaysSo)
{
    ASSERT_EQ(a.write(small), 0);
    order_all({"Range", Fate::refused, 5, "etcdserver: requested lease not found", true});
    EXPECT_EQ(a.read(), failed(-ETIMEDOUT));
    heal();
    EXPECT_EQ(a.read(), small);
}

TEST_F(EtcdBackup, UploadBeyondItsShareOfTheQuotaIsRefusedBeforeItBegins)
{
    etcd::BackupSettings given = Process::plain_settings();
    given.limit_bytes = 10 << 20;
    given.quota_share = 60;
    Process c(settings(), given);
    const auto share = std::int64_t{(10 << 20) / 100 * 60};
    const auto needed = static_cast<std::int64_t>(2 * large.size());
    store.set_in_use(share - needed + 1);
    EXPECT_EQ(c.write(large), -ENOSPC);
    EXPECT_THAT(chunks(), IsEmpty());
    EXPECT_EQ(c.write(small), 0) << "items go through";
    store.set_in_use(share - needed);
    EXPECT_EQ(c.write(large), 0);
}

TEST_F(EtcdBackup, LongUploadKeepsItsLeaseAlive)
{
    etcd::BackupSettings given = Process::plain_settings();
    given.lease_s = 0;  // it is due at each step
    Process c(settings(), given);
    EXPECT_EQ(c.write(large), 0);
    EXPECT_GE(store.served("LeaseKeepAlive"), 5);
    EXPECT_EQ(b.read(), brief(large));
}

// The process that writes an archive is killed at each of its calls in turn: what was there stays, or what it wrote is
// there, whole; and the next writer leaves nothing of it.
TEST_F(EtcdBackup, WriterThatIsKilledAtAnyCallLeavesOldOrNewWhole)
{
    int killed_at = 0;
    for (bool over = false; !over; ++killed_at) {
        ASSERT_EQ(a.write(other), 0);
        {
            etcd::ClusterSettings soon = settings();
            soon.times = {20, 10, 20, 20, 10, 10};
            Process dies(soon);
            for (MemberDouble &member : members) {
                for (int i = 0; i < killed_at; ++i) {
                    member.order({"", Fate::answered});
                }
                member.order({"", Fate::unheard, 0, "", true});
            }
            etcd::BackupWriter writer(name);
            over = writer.write(dies.area(), large, 0) == 0 && writer.publish(dies.area()) == 0 && killed_at > 12;
        }
        heal();
        const std::string there = b.read();
        ASSERT_TRUE(there == brief(other) || there == brief(large)) << "killed at call " << killed_at << ": " << there;
        store.end_leases();
        ASSERT_EQ(a.write(large), 0);
        ASSERT_THAT(chunks(), SizeIs(5)) << "killed at call " << killed_at;
        ASSERT_THAT(intents(), IsEmpty());
    }
    EXPECT_GE(killed_at, 12);
}
