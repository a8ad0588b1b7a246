#include "linearizable.h"

#include <poll.h>

#include <atomic>
#include <random>
#include <thread>

#include "cluster_double.h"
#include "storm.h"

using namespace test;

namespace {

Operation wrote(unsigned value, std::int64_t start, std::int64_t end)
{
    return {Operation::Kind::write, value, start, end, false};
}
Operation saw(unsigned value, std::int64_t start, std::int64_t end)
{
    return {Operation::Kind::read, value, start, end, false};
}
Operation unanswered(unsigned value, std::int64_t start, std::int64_t end)
{
    return {Operation::Kind::write, value, start, end, true};
}

}  // namespace

TEST(Linearizable, WhatHappenedOneAfterTheOtherIs)
{
    EXPECT_TRUE(is_linearizable(History()));
    EXPECT_TRUE(is_linearizable({{saw(0, 0, 1), wrote(1, 2, 3), saw(1, 4, 5)}, {saw(1, 6, 7), wrote(2, 8, 9)}}));
}

TEST(Linearizable, OverlappingOperationsMayHappenInAnyOrder)
{
    EXPECT_TRUE(is_linearizable({{wrote(1, 0, 10)}, {wrote(2, 0, 10)}, {saw(2, 11, 12), saw(2, 13, 14)}}));
    EXPECT_TRUE(is_linearizable({{wrote(1, 0, 10)}, {saw(0, 1, 2), saw(1, 3, 4)}}));
    EXPECT_FALSE(is_linearizable({{wrote(1, 0, 10)}, {saw(1, 1, 2), saw(0, 3, 4)}}));
}

TEST(Linearizable, StaleReadIsNot)
{
    EXPECT_FALSE(is_linearizable({{wrote(1, 0, 1), wrote(2, 2, 3)}, {saw(1, 4, 5)}}));
    EXPECT_FALSE(is_linearizable({{wrote(1, 0, 1)}, {saw(0, 2, 3)}}));
}

TEST(Linearizable, ValueThatNobodyWroteIsNot) { EXPECT_FALSE(is_linearizable({{wrote(1, 0, 1)}, {saw(7, 0, 9)}})); }

TEST(Linearizable, UnansweredWriteHappensLaterOrNever)
{
    EXPECT_TRUE(is_linearizable({{unanswered(1, 0, 1), wrote(2, 2, 3)}, {saw(2, 4, 5)}}));
    EXPECT_TRUE(is_linearizable({{unanswered(1, 0, 1), wrote(2, 2, 3)}, {saw(1, 4, 5)}}));
    EXPECT_FALSE(is_linearizable({{unanswered(1, 0, 1)}, {saw(1, 2, 3), wrote(2, 4, 5)}, {saw(1, 6, 7)}}))
        << "it happens once";
    EXPECT_FALSE(is_linearizable({{unanswered(1, 5, 6)}, {saw(1, 0, 1)}})) << "not before it was begun";
}

// Calls are lost, refused, cut and garbled at random while four processes write and read.
class EtcdStorm : public ClusterTest {
protected:
    StormResult storm_for(int ms)
    {
        std::atomic<bool> ended{false};
        StormResult result;
        std::thread thread([&] { result = storm(settings(), ended); });
        std::mt19937 random(1);
        const Fate fates[] = {Fate::lost, Fate::dropped, Fate::refused, Fate::garbled, Fate::halved, Fate::late};
        for (const std::int64_t until = etcd::now_ms() + ms; etcd::now_ms() < until;) {
            for (MemberDouble &member : members) {
                if (random() % 8 == 0) {
                    member.clear_orders();  // an order that nobody came for is not added to
                    member.order({"", fates[random() % std::size(fates)]});
                }
                if (random() % 20 == 0) {
                    (void)member.release();
                }
            }
            std::this_thread::yield();
            (void)poll(nullptr, 0, 1);
        }
        heal();
        ended = true;
        thread.join();
        return result;
    }
};

TEST_F(EtcdStorm, HistoryOfEachRegisterIsLinearizable)
{
    const StormResult result = storm_for(1000);
    EXPECT_GT(result.done, 50);
    for (const History &history : result.registers) {
        EXPECT_TRUE(is_linearizable(history));
    }
}

TEST_F(EtcdStorm, PlantedStaleReadIsFound)
{
    StormResult result = storm_for(200);
    // A register's first written value, read again at the end by one who saw nothing else.
    History history = result.registers[0];
    unsigned first = 0;
    std::int64_t last = 0;
    for (const auto &process : history) {
        for (const Operation &one : process) {
            last = std::max(last, one.end);
            first = one.kind == Operation::Kind::write && !one.unknown && first == 0 ? one.value : first;
        }
    }
    ASSERT_NE(first, 0U);
    ASSERT_TRUE(is_linearizable(history));
    history.push_back({saw(first, last + 1, last + 2)});
    history.push_back({wrote(~1U, last + 3, last + 4), saw(first, last + 5, last + 6)});
    EXPECT_FALSE(is_linearizable(history));
}
