// Keeping killed before each call that changes a file: what was kept is whole, and the next command completes it.
#include <fcntl.h>

#include "generation_catalogue.h"
#include "killed_at.h"

using namespace engine;
using namespace test;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class KilledGenerations : public GenerationCatalogue {
protected:
    void begin_anew() const
    {
        fs::remove_all(folder());
        write(home / "flash", "new");
        keep(source("old 1"));
        keep(source("old 2"));
    }
    // Keeps a copy and a file as it is, and drops the oldest.
    void work() const
    {
        std::vector<GenerationSource> sources;
        sources.push_back(source("copied"));
        sources.push_back(source("new"));
        sources.back().file = Descriptor(open((home / "flash").c_str(), O_RDONLY | O_CLOEXEC));
        store().keep(sources, {}, {3, 1000}, [] { return VersionsInForce{0, 0}; });
    }
    std::vector<std::string> left_over() const
    {
        std::vector<std::string> names;
        for (const auto &entry : fs::directory_iterator(folder())) {
            if (entry.path().filename().string().rfind(".unfinished", 0) == 0) {
                names.push_back(entry.path());
            }
        }
        return names;
    }
};

TEST_F(KilledGenerations, AtEachCallThatChangesAFile)
{
    int kills = 0;
    for (int n = 1;; ++n) {
        begin_anew();
        if (!killed_at(n, [this] { work(); })) {
            break;
        }
        ++kills;
        for (const GenerationProblem &problem : store().check().problems) {
            EXPECT_EQ(problem.fault, GenerationFault::no_entry) << n << ": " << problem.text;
        }
        EXPECT_EQ(read(archive_of(sum("old 2"))), "old 2") << n;
        EXPECT_EQ(read(home / "flash"), "new") << n;
        work();
        EXPECT_THAT(kept(), ElementsAre("new", "copied", "old 2")) << n;
        EXPECT_THAT(store().check().problems, IsEmpty()) << n;
        EXPECT_THAT(left_over(), IsEmpty()) << n;
    }
    EXPECT_GT(kills, 15);
}

TEST_F(KilledGenerations, WhileTheFirstIsKept)
{
    for (int n = 1;; ++n) {
        fs::remove_all(folder());
        if (!killed_at(n, [this] { keep(source("one")); })) {
            break;
        }
        keep(source("one"));
        EXPECT_THAT(kept(), ElementsAre("one")) << n;
        EXPECT_THAT(store().check().problems, IsEmpty()) << n;
    }
}

TEST_F(KilledGenerations, WhileASaveIsNoted)
{
    for (int n = 1;; ++n) {
        fs::remove_all(folder());
        store().note_saved({sum("one"), 3, 1, "network", {}});
        if (!killed_at(n, [this] { store().note_saved({sum("two"), 3, 2, "network", {}}); })) {
            break;
        }
        keep(source("one"));
        EXPECT_EQ(store().all()[0].version, 1) << n;
        EXPECT_THAT(left_over(), IsEmpty()) << n;
    }
}
