// On a real cluster of three members: killed, hung, without a quorum, started anew, full, and with certificates of all
// kinds.
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "backup_area.h"
#include "backup_reader.h"
#include "backup_writer.h"
#include "certificate.h"
#include "cluster_double.h"
#include "linearizable.h"
#include "storm.h"

using namespace test;
namespace fs = std::filesystem;

namespace {

int run(const std::string &command)
{
    const int status = system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string output_of(const std::string &command)
{
    FILE *pipe = popen(command.c_str(), "r");
    char line[256] = "";
    (void)(fgets(line, sizeof(line), pipe) != nullptr);
    pclose(pipe);
    return std::string(line).substr(0, std::string(line).find('\n'));
}

// A cluster in memory, ended with the object.
class Cluster {
public:
    explicit Cluster(const std::string &options = "")
    {
        char name[] = "/dev/shm/kesta-etcd-XXXXXX";
        folder_ = mkdtemp(name);
        up_ = run(script("up") + " " + options + " > " + folder_ + "/up.log 2>&1") == 0;
    }
    ~Cluster()
    {
        (void)run(script("down"));
        fs::remove_all(folder_);
    }
    Cluster(const Cluster &) = delete;
    Cluster &operator=(const Cluster &) = delete;

    bool up() const { return up_; }
    std::string script(const std::string &verb) const
    {
        return std::string(KESTA_SOURCE_DIR "/scripts/etcd-cluster ") + verb + " " + folder_;
    }
    bool member(const std::string &verb, int number) const
    {
        return run(script(verb) + " " + std::to_string(number)) == 0;
    }
    int leader() const { return atoi(output_of(script("leader")).c_str()); }
    const std::string &folder() const { return folder_; }

    // For a user of it, with the certificate of that name.
    etcd::ClusterSettings settings(const std::string &user = "") const
    {
        std::ifstream file(folder_ + "/endpoints");
        std::string endpoints;
        std::getline(file, endpoints);
        etcd::ClusterSettings settings;
        std::string why;
        EXPECT_TRUE(etcd::parse_endpoints(endpoints, settings.endpoints, why)) << why;
        if (!user.empty()) {
            settings.tls_ca = folder_ + "/tls/ca.crt";
            settings.tls_cert = folder_ + "/tls/" + user + ".crt";
            settings.tls_key = folder_ + "/tls/" + user + ".key";
        }
        return settings;
    }

private:
    std::string folder_;
    bool up_ = false;
};

// Waits for the cluster to answer, as whoever repeats a transfer does.
int write_until_answered(Writer &writer, const std::string &bytes)
{
    int result = -ETIMEDOUT;
    for (const std::int64_t until = etcd::now_ms() + 20000; result == -ETIMEDOUT && etcd::now_ms() < until;) {
        result = writer.write(0, bytes);
    }
    return result;
}

std::string failed(int error) { return "(" + std::to_string(error) + ")"; }

// A storm during which a test does something to the members.
StormResult storm_while(const etcd::ClusterSettings &settings, const std::function<void()> &body)
{
    std::atomic<bool> ended{false};
    StormResult result;
    std::thread thread([&] { result = storm(settings, ended); });
    body();
    ended = true;
    thread.join();
    return result;
}

void expect_linearizable(const StormResult &result, const char *what)
{
    for (const History &history : result.registers) {
        EXPECT_TRUE(is_linearizable(history));
    }
    EXPECT_GT(result.done, 50);
    printf("%s: %d transfers, %d told as failed, longest %lld ms, longest gap %lld ms\n", what, result.done,
           result.failed, static_cast<long long>(result.longest_ms), static_cast<long long>(result.gap_ms));
}

}  // namespace

TEST(EtcdCluster, SurvivesItsLeaderKilledHungAndStartedAnew)
{
    Cluster cluster;
    ASSERT_TRUE(cluster.up());
    Writer writer(cluster.settings());
    ASSERT_EQ(write_until_answered(writer, "begun"), 0);
    const StormResult killed = storm_while(cluster.settings(), [&] {
        const int leader = cluster.leader();
        EXPECT_TRUE(cluster.member("kill", leader));
        EXPECT_EQ(write_until_answered(writer, "one is gone"), 0);
        EXPECT_TRUE(cluster.member("start", leader));
        EXPECT_EQ(write_until_answered(writer, "it is back"), 0);
    });
    expect_linearizable(killed, "leader killed");
    const StormResult hung = storm_while(cluster.settings(), [&] {
        const int leader = cluster.leader();
        EXPECT_TRUE(cluster.member("hang", leader));
        EXPECT_EQ(write_until_answered(writer, "one hangs"), 0);
        EXPECT_TRUE(cluster.member("go-on", leader));
        EXPECT_EQ(write_until_answered(writer, "it goes on"), 0);
    });
    expect_linearizable(hung, "leader hung");
}

TEST(EtcdCluster, LostQuorumIsToldInTimeAndNothingIsLostWithAllMembersKilled)
{
    Cluster cluster;
    ASSERT_TRUE(cluster.up());
    Writer writer(cluster.settings());
    ASSERT_EQ(write_until_answered(writer, "kept"), 0);
    EXPECT_TRUE(cluster.member("kill", 0) && cluster.member("kill", 1));
    EXPECT_EQ(writer.write(0, "lost"), -ETIMEDOUT);
    EXPECT_EQ(writer.read(0, 4), failed(-ETIMEDOUT));
    EXPECT_TRUE(cluster.member("kill", 2));
    EXPECT_EQ(writer.read(0, 4), failed(-ETIMEDOUT));
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(cluster.member("start", i));
    }
    EXPECT_EQ(write_until_answered(writer, "back"), 0);
    EXPECT_EQ(writer.read(0, 4), "back");
}

TEST(EtcdCluster, FullQuotaIsToldAndUploadsLeaveRoomForNvMemory)
{
    Cluster cluster("--quota 16777216");
    ASSERT_TRUE(cluster.up());
    Writer writer(cluster.settings());
    ASSERT_EQ(write_until_answered(writer, "first"), 0);
    etcd::Client client(cluster.settings());
    const std::string bytes(3 << 20, 'x');
    etcd::BackupSettings given;
    given.prefix = "/kesta/";
    given.limit_bytes = 16777216;
    etcd::BackupArea careful(client, given, [] {});
    int result = 0;
    for (int i = 0; i < 10 && result == 0; ++i) {
        etcd::BackupWriter archive("kept" + std::to_string(i));
        result = archive.write(careful, bytes, 0);
        result = result == 0 ? archive.publish(careful) : result;
    }
    EXPECT_EQ(result, -ENOSPC);
    EXPECT_EQ(writer.write(0, "goes on"), 0);
    given.limit_bytes = std::uint64_t{1} << 40U;  // a wrong setting: the members' own quota is met
    etcd::BackupArea careless(client, given, [] {});
    result = 0;
    for (int i = 0; i < 20 && result == 0; ++i) {
        etcd::BackupWriter archive("more" + std::to_string(i));
        result = archive.write(careless, bytes, 0);
        result = result == 0 ? archive.publish(careless) : result;
    }
    EXPECT_EQ(result, -ENOSPC);
    EXPECT_EQ(writer.write(0, "full"), -ENOSPC);
    EXPECT_EQ(writer.read(0, 7), "goes on");
}

TEST(EtcdCluster, CertificatesAndRolesDecideAndAreToldAsTheReason)
{
    Cluster cluster("--tls");
    ASSERT_TRUE(cluster.up());
    Writer writer(cluster.settings("cnt0"));
    ASSERT_EQ(write_until_answered(writer, "mine"), 0);
    EXPECT_EQ(Writer(cluster.settings("cnt3")).read(0, 4), "mine");

    // The role reaches the prefix, and nothing else.
    etcd::Client client(cluster.settings("cnt0"));
    etcd::NvRegion elsewhere(client, "/other/nv/2", false);
    EXPECT_EQ(elsewhere.write(0, "x", 1), -EACCES);

    // Who has a certificate of nobody's, one that is over, one of another authority, or none.
    const std::string tls = cluster.folder() + "/tls/";
    const auto certificate = [&](const std::string &name, const std::string &subject, const std::string &dates) {
        return run("cd " + tls + " && openssl ecparam -name prime256v1 -genkey -noout -out " + name +
                   ".key && openssl req -new -key " + name + ".key -subj /CN=" + subject + " -out " + name +
                   ".csr && printf 'extendedKeyUsage=clientAuth' > ext && openssl x509 -req -in " + name +
                   ".csr -CA ca.crt -CAkey ca.key -CAcreateserial " + dates + " -extfile ext -out " + name +
                   ".crt 2> /dev/null") == 0;
    };
    ASSERT_TRUE(certificate("stranger", "stranger", "-days 1"));
    EXPECT_EQ(Writer(cluster.settings("stranger")).read(0, 4), failed(-EACCES));
    ASSERT_TRUE(certificate("over", "cnt0", "-days -1"));
    Writer over(cluster.settings("over"));
    EXPECT_EQ(over.read(0, 4), failed(-EACCES)) << "it is not a member that is silent";
    EXPECT_THAT(over.client().problem(), testing::HasSubstr("certificate"));
    EXPECT_THAT(etcd::certificate_notice((tls + "over.crt").c_str(), time(nullptr)),
                testing::HasSubstr("has ended at"));
    EXPECT_THAT(etcd::certificate_notice((tls + "cnt0.crt").c_str(), time(nullptr) + 3600),
                testing::HasSubstr(", in 364 days"));
    EXPECT_EQ(etcd::certificate_notice((tls + "cnt0.key").c_str(), time(nullptr)), "");
    etcd::ClusterSettings other = cluster.settings("cnt0");
    ASSERT_EQ(run("cd " + tls +
                  " && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout "
                  "strange_ca.key -subj /CN=strange -days 1 -out strange_ca.crt 2> /dev/null"),
              0);
    other.tls_ca = tls + "strange_ca.crt";
    Writer mistrusting(other);
    EXPECT_EQ(mistrusting.read(0, 4), failed(-EACCES));
    EXPECT_THAT(mistrusting.client().problem(), testing::HasSubstr("the member's certificate is refused"));
    etcd::ClusterSettings mixed = cluster.settings("cnt0");
    mixed.tls_key = tls + "cnt1.key";
    Writer confused(mixed);
    EXPECT_EQ(confused.read(0, 4), failed(-EACCES));
    EXPECT_THAT(confused.client().problem(), testing::HasSubstr("tls_key"));
    etcd::ClusterSettings missing = cluster.settings("nobody");
    Writer absent(missing);
    EXPECT_EQ(absent.read(0, 4), failed(-EACCES));
    EXPECT_THAT(absent.client().problem(), testing::HasSubstr("nobody.crt"));
    EXPECT_EQ(Writer(cluster.settings()).read(0, 4), failed(-ETIMEDOUT)) << "plain text, to who speaks TLS";
}
