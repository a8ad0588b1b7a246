#include <errno.h>

#include "cluster_double.h"
#include "kesta/nv_image.h"
#include "kesta/nv_items.h"

using namespace test;
using testing::AllOf;
using testing::Each;
using testing::Ge;
using testing::Le;

namespace {

const std::string claim_a = std::string("\1\0\0\0\0\0\0\0\x11\0\0\0\0\0\0\0", 16);
const std::string claim_b = std::string("\1\0\0\0\0\0\0\0\x22\0\0\0\0\0\0\0", 16);
const std::string free_slot(16, '\0');
std::uint64_t slot(unsigned controller) { return etcd::first_slot + controller * etcd::slot_size; }

}  // namespace

class EtcdNv : public ClusterTest {
protected:
    Writer a{settings()};
    Writer b{settings()};
};

TEST_F(EtcdNv, SlotsAreWhereTheTableOfItemsHasThem)
{
    unsigned count = 0;
    unsigned slots = 0;
    const KESTA_NV_ITEM *items = kesta_nv_items(&count);
    for (unsigned i = 0; i < count; ++i) {
        if (items[i].kind == KESTA_NV_KIND_INNER_LOCK) {
            EXPECT_EQ(static_cast<std::uint64_t>(items[i].offset), slot(slots));
            EXPECT_EQ(items[i].size, etcd::slot_size);
            ++slots;
        }
    }
    EXPECT_EQ(slots, etcd::slot_count);
}

TEST_F(EtcdNv, RegionThatWasNeverWrittenIsZero)
{
    EXPECT_EQ(a.read(32764, 4), std::string(4, '\0'));
    EXPECT_EQ(store.value("/kesta/nv/2"), "(nothing)");
}

TEST_F(EtcdNv, WritesAreSeenByOthersAndKeptWithoutTrailingZeros)
{
    ASSERT_EQ(a.write(100, "one"), 0);
    ASSERT_EQ(b.write(200, "two"), 0);
    EXPECT_EQ(a.read(100, 103), "one" + std::string(97, '\0') + "two");
    EXPECT_EQ(store.value("/kesta/nv/2").size(), 203U);
    ASSERT_EQ(a.write(200, std::string(3, '\0')), 0);
    EXPECT_EQ(store.value("/kesta/nv/2").size(), 103U);
}

TEST_F(EtcdNv, WriteOfWhatNobodyElseChangedIsOneCall)
{
    ASSERT_EQ(a.write(0, "x"), 0);
    const int before = store.served("Txn") + store.served("Range");
    ASSERT_EQ(a.write(1, "y"), 0);
    EXPECT_EQ(store.served("Txn") + store.served("Range"), before + 1);
}

TEST_F(EtcdNv, StoredValueLargerThanARegionIsRefused)
{
    store.put("/kesta/nv/2", std::string(32769, 'x'));
    EXPECT_EQ(a.read(0, 4), "(" + std::to_string(-EIO) + ")");
    EXPECT_EQ(a.write(0, "x"), -EIO);
}

// A member that hung hands a write on when its writer has long been told that nobody answered.
TEST_F(EtcdNv, LateWriteDoesNotComeBackFromTheDead)
{
    ASSERT_EQ(a.write(0, "start"), 0);
    order_all({"Txn", Fate::late, 0, "", true});
    EXPECT_EQ(a.write(0, "stale"), -ETIMEDOUT);
    heal();
    ASSERT_EQ(b.write(0, "fresh"), 0);
    int released = 0;
    for (MemberDouble &member : members) {
        released += member.release();
    }
    EXPECT_GE(released, 1);
    EXPECT_EQ(b.read(0, 5), "fresh");
}

TEST_F(EtcdNv, LostAnswerIsSettledAndNothingComesBack)
{
    ASSERT_EQ(a.write(0, "start"), 0);
    // The first member carries it out, and nobody tells of it.
    order_all({"Txn", Fate::lost});
    order_all({"Txn", Fate::unheard, 0, "", true});
    EXPECT_EQ(a.write(0, "first"), -ETIMEDOUT);
    heal();
    ASSERT_EQ(b.write(0, "later"), 0);
    EXPECT_EQ(a.write(0, "first"), 0);  // as its caller repeats it
    EXPECT_EQ(b.read(0, 5), "later");
}

TEST_F(EtcdNv, LostAnswerIsSettledHoweverManyWritesCameAfterIt)
{
    ASSERT_EQ(a.write(0, "start"), 0);
    order_all({"Txn", Fate::lost, 0, "", false});
    order_all({"Txn", Fate::unheard, 0, "", true});
    EXPECT_EQ(a.write(0, "first"), -ETIMEDOUT);
    heal();
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(b.write(0, "l" + std::to_string(1000 + i)), 0);
        store.put("/kesta/elsewhere", std::to_string(i));
    }
    EXPECT_EQ(a.write(0, "first"), 0);
    EXPECT_EQ(b.read(0, 5), "l1099");
}

TEST_F(EtcdNv, WriteThatWasNotCarriedOutIsMadeWhenItIsRepeated)
{
    ASSERT_EQ(a.write(0, "start"), 0);
    order_all({"Txn", Fate::unheard, 0, "", true});
    EXPECT_EQ(a.write(0, "first"), -ETIMEDOUT);
    heal();
    ASSERT_EQ(b.write(8, "beside"), 0);
    EXPECT_EQ(a.write(0, "first"), 0);
    EXPECT_EQ(b.read(0, 14), std::string("first\0\0\0beside", 14));
}

TEST_F(EtcdNv, OutcomeThatNobodyCanTellIsAnErrorUntilSomebodyLooks)
{
    ASSERT_EQ(a.write(0, "start"), 0);
    order_all({"Txn", Fate::unheard, 0, "", true});
    EXPECT_EQ(a.write(0, "first"), -ETIMEDOUT);
    heal();
    ASSERT_EQ(b.write(0, "two"), 0);
    ASSERT_EQ(b.write(0, "three"), 0);
    store.compact();
    EXPECT_EQ(a.write(0, "first"), -ESTALE);
    EXPECT_EQ(a.write(0, "first"), -ESTALE);
    EXPECT_EQ(a.read(0, 5), "three");
    EXPECT_EQ(a.write(0, "first"), 0);
    EXPECT_EQ(b.read(0, 5), "first");
}

TEST_F(EtcdNv, WriteAfterALookIsNoRepetition)
{
    ASSERT_EQ(a.write(0, "start"), 0);
    order_all({"Txn", Fate::lost, 0, "", false});
    order_all({"Txn", Fate::unheard, 0, "", true});
    EXPECT_EQ(a.write(0, "again"), -ETIMEDOUT);
    heal();
    ASSERT_EQ(b.write(0, "other"), 0);
    EXPECT_EQ(a.read(0, 5), "other");
    EXPECT_EQ(a.write(0, "again"), 0);
    EXPECT_EQ(b.read(0, 5), "again");
}

TEST_F(EtcdNv, StalledHolderOverwritesNothingOfItsSuccessor)
{
    ASSERT_EQ(a.write(slot(0), claim_a), 0);
    ASSERT_EQ(a.write(104, "mine"), 0);
    EXPECT_EQ(b.read(slot(0), 16), claim_a);
    ASSERT_EQ(b.write(slot(0), free_slot), 0);  // swept
    ASSERT_EQ(b.write(slot(1), claim_b), 0);
    ASSERT_EQ(b.write(104, "next"), 0);
    EXPECT_EQ(a.write(104, "late"), -ESTALE);
    EXPECT_EQ(b.read(104, 4), "next");
    EXPECT_EQ(a.write(slot(0), free_slot), 0);  // given back: there is nothing to give back
    EXPECT_EQ(b.read(slot(1), 16), claim_b);
    EXPECT_EQ(a.write(104, "fine"), 0);  // it holds nothing any more
}

TEST_F(EtcdNv, SecondSweeperDoesNotEraseAFreshClaim)
{
    Writer dead(settings());
    ASSERT_EQ(dead.write(slot(0), claim_a), 0);
    EXPECT_EQ(a.read(slot(0), 64).substr(0, 16), claim_a);
    EXPECT_EQ(b.read(slot(0), 64).substr(0, 16), claim_a);
    ASSERT_EQ(a.write(slot(0), free_slot), 0);
    Writer fresh(settings());
    ASSERT_EQ(fresh.write(slot(0), claim_b), 0);
    EXPECT_EQ(b.write(slot(0), free_slot), -ESTALE);
    EXPECT_EQ(a.read(slot(0), 16), claim_b);
}

TEST_F(EtcdNv, SweepOfASlotThatIsFreeIsDone)
{
    Writer dead(settings());
    ASSERT_EQ(dead.write(slot(0), claim_a), 0);
    EXPECT_EQ(b.read(slot(0), 16), claim_a);
    EXPECT_EQ(a.read(slot(0), 16), claim_a);
    EXPECT_EQ(a.write(slot(0), free_slot), 0);
    EXPECT_EQ(b.write(slot(0), free_slot), 0);
}

TEST_F(EtcdNv, ClaimThatWasSweptUnansweredDoesNotComeBack)
{
    EXPECT_EQ(a.read(slot(0), 64), std::string(64, '\0'));
    order_all({"Txn", Fate::lost, 0, "", false});
    order_all({"Txn", Fate::unheard, 0, "", true});
    EXPECT_EQ(a.write(slot(0), claim_a), -ETIMEDOUT);
    heal();
    EXPECT_EQ(b.read(slot(0), 16), claim_a);
    ASSERT_EQ(b.write(slot(0), free_slot), 0);
    ASSERT_EQ(b.write(slot(1), claim_b), 0);
    EXPECT_EQ(a.write(slot(0), claim_a), 0);  // it was written, once
    EXPECT_EQ(b.read(slot(0), 16), free_slot);
    EXPECT_EQ(a.write(104, "late"), -ESTALE);
}

TEST_F(EtcdNv, UnansweredClaimIsWithdrawnWithoutASweep)
{
    EXPECT_EQ(a.read(slot(0), 64), std::string(64, '\0'));
    order_all({"Txn", Fate::lost, 0, "", false});
    order_all({"Txn", Fate::unheard, 0, "", true});
    EXPECT_EQ(a.write(slot(0), claim_a), -ETIMEDOUT);
    heal();
    EXPECT_EQ(a.write(slot(0), free_slot), 0);
    EXPECT_EQ(b.read(slot(0), 16), free_slot);
}

TEST_F(EtcdNv, ChildOfAHolderHoldsNothing)
{
    ASSERT_EQ(a.write(slot(0), claim_a), 0);
    etcd::LockFence fence;
    fence.written(slot(0), claim_a);
    fence.forget();
    EXPECT_EQ(fence.judge(104, "x", std::string(32768, '\0')), etcd::LockFence::Judgement::go);
}

// What each way of not answering comes to: the next member is asked, and the write is there once.
class EtcdFate : public ClusterTest, public testing::WithParamInterface<Fate> {};

TEST_P(EtcdFate, OneMemberThatFailsACallIsPassedBy)
{
    Writer a(settings());
    ASSERT_EQ(a.write(0, "start"), 0);
    for (MemberDouble &member : members) {
        for (const char *method : {"Range", "Txn"}) {
            heal();
            member.order({method, GetParam(), 14, "etcdserver: leader changed", true});
            const std::string bytes = std::string(method) + member.endpoint().substr(10);
            EXPECT_EQ(a.write(0, bytes), 0);
            EXPECT_EQ(a.read(0, bytes.size()), bytes);
        }
    }
}

TEST_P(EtcdFate, NobodyAnsweringIsTold)
{
    Writer a(settings());
    ASSERT_EQ(a.write(0, "start"), 0);
    order_all({"", GetParam(), 14, "etcdserver: request timed out", true});
    for (int i = 0; i < 2; ++i) {  // the second time it is a repetition
        EXPECT_EQ(a.write(0, "other"), -ETIMEDOUT);
        EXPECT_EQ(a.read(0, 5), "(" + std::to_string(-ETIMEDOUT) + ")");
    }
    heal();
    EXPECT_EQ(a.read(0, 5).size(), 5U);
    EXPECT_EQ(a.write(0, "after"), 0);
    EXPECT_EQ(a.read(0, 5), "after");
}

INSTANTIATE_TEST_SUITE_P(EachWay, EtcdFate,
                         testing::Values(Fate::dropped, Fate::unheard, Fate::lost, Fate::halved, Fate::trickled,
                                         Fate::garbled, Fate::flooded, Fate::misread, Fate::refused));

class EtcdRefusal : public ClusterTest, public testing::WithParamInterface<std::pair<Order, int>> {};

TEST_P(EtcdRefusal, IsTold)
{
    Writer a(settings());
    ASSERT_EQ(a.write(0, "start"), 0);
    Order order = GetParam().first;
    order.always = true;
    order.fate = Fate::refused;
    order_all(order);
    EXPECT_EQ(a.write(0, "other"), GetParam().second);
    heal();
    EXPECT_EQ(a.read(0, 5), "start");
}

INSTANTIATE_TEST_SUITE_P(
    EachOne, EtcdRefusal,
    testing::Values(std::pair{Order{"Txn", Fate::refused, 8, "etcdserver: mvcc: database space exceeded"}, -ENOSPC},
                    std::pair{Order{"Txn", Fate::refused, 7, "etcdserver: permission denied"}, -EACCES},
                    std::pair{Order{"Txn", Fate::refused, 3, "etcdserver: user name is empty"}, -EACCES},
                    std::pair{Order{"Txn", Fate::refused, 16, "etcdserver: invalid auth token"}, -EACCES},
                    std::pair{Order{"Txn", Fate::refused, 3, "etcdserver: request is too large"}, -EPROTO},
                    std::pair{Order{"Txn", Fate::refused, 8, "etcdserver: too many requests"}, -ETIMEDOUT},
                    // What such a call can't have is no answer: a key has no lease, and asks for no old revision.
                    std::pair{Order{"Txn", Fate::refused, 5, "etcdserver: requested lease not found"}, -ETIMEDOUT},
                    std::pair{Order{"Txn", Fate::refused, 11, "etcdserver: mvcc: required revision has been compacted"},
                              -ETIMEDOUT},
                    std::pair{Order{"Txn", Fate::refused, 14, "etcdserver: no leader"}, -ETIMEDOUT}));

TEST_F(EtcdNv, AfterALongSilenceTransfersAreShortUntilSomebodyAnswers)
{
    ASSERT_EQ(a.write(0, "start"), 0);
    order_all({"", Fate::dropped, 0, "", true});
    const std::int64_t begun = etcd::now_ms();
    while (etcd::now_ms() - begun < settings().times.silence_ms) {
        (void)a.read(0, 1);
    }
    EXPECT_LE(a.client().allow_transfer().deadline.left_ms(), settings().times.silent_transfer_ms);
    EXPECT_LE(a.client().allow_chunk().deadline.left_ms(), settings().times.silent_transfer_ms);
    EXPECT_EQ(a.read(0, 1), "(" + std::to_string(-ETIMEDOUT) + ")");
    heal();
    EXPECT_EQ(a.read(0, 5), "start");
    EXPECT_GT(a.client().allow_chunk().deadline.left_ms(), settings().times.silent_transfer_ms);
}

TEST_F(EtcdNv, ZerosAreWrittenToARegionThatIsNotThere)
{
    EXPECT_EQ(a.write(1000, std::string(300, '\0')), 0);
    EXPECT_EQ(a.write(1000, "x"), 0);
    EXPECT_EQ(b.read(1000, 1), "x");
}
