// Three members of a cluster, and clients of it, with times that make tests quick.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <string>

#include "client.h"
#include "member_double.h"
#include "nv_region.h"
#include "store_double.h"

namespace test {

class ClusterTest : public testing::Test {
protected:
    std::string endpoints() const
    {
        return members[0].endpoint() + "," + members[1].endpoint() + "," + members[2].endpoint();
    }

    etcd::ClusterSettings settings() const
    {
        etcd::ClusterSettings settings;
        std::string why;
        EXPECT_TRUE(etcd::parse_endpoints(endpoints(), settings.endpoints, why));
        // Short, for those who wait for the end of a time; long enough for a machine that stands still for a moment.
        settings.times.connect_ms = 500;
        settings.times.request_ms = 200;
        settings.times.transfer_ms = 1000;
        settings.times.chunk_ms = 2000;
        settings.times.silence_ms = 1500;
        settings.times.silent_transfer_ms = 400;
        return settings;
    }

    // To all members: whichever is asked.
    void order_all(const Order &order)
    {
        for (MemberDouble &member : members) {
            member.order(order);
        }
    }
    void heal()
    {
        for (MemberDouble &member : members) {
            member.heal();
        }
    }

    StoreDouble store;
    std::array<MemberDouble, 3> members{MemberDouble(store), MemberDouble(store), MemberDouble(store)};
};

// A process of a controller: its own client, and its own view of the image's region.
class Writer {
public:
    explicit Writer(const etcd::ClusterSettings &settings, unsigned region = etcd::image_region)
        : client_(settings), region_(client_, "/kesta/nv/" + std::to_string(region), region == etcd::image_region)
    {
    }

    int write(std::uint64_t offset, const std::string &bytes)
    {
        return region_.write(offset, bytes.data(), bytes.size());
    }
    std::string read(std::uint64_t offset, std::size_t size)
    {
        std::string bytes(size, '?');
        const int result = region_.read(offset, bytes.data(), size);
        return result == 0 ? bytes : "(" + std::to_string(result) + ")";
    }
    etcd::Client &client() { return client_; }

private:
    etcd::Client client_;
    etcd::NvRegion region_;
};

}  // namespace test
