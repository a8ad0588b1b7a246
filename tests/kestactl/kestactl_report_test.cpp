// The page that kestactl report writes, opened in a browser.
#include "saved_group.h"

using namespace test;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class KestactlReport : public SavedGroup {
protected:
    KestactlReport()
    {
        define("");
        EXPECT_EQ(ctl(0, "save network").code, 0);
        EXPECT_EQ(ctl(0, "accept").code, 0);
    }
    std::string report(int code = 0) const
    {
        const Ran made = ctl(0, "report /opt/report.html");
        EXPECT_EQ(made.code, code) << made.err;
        return read_file(host_path(0, "opt/report.html"));
    }
    // The document after the browser has laid it out on a phone; the title says how wide that made it.
    std::string opened(const std::string &html) const
    {
        write_file(home / "page.html",
                   "<iframe width=360 height=800 style='border:0'></iframe><script>"
                   "const frame=document.querySelector('iframe');frame.srcdoc=" +
                       nlohmann::json(html).dump() +
                       ";frame.onload=()=>{const page=frame.contentDocument;document.title="
                       "page.documentElement.scrollWidth+' of '+page.documentElement.clientWidth+', '+"
                       "page.querySelectorAll('.map i').length+' squares';"
                       "document.body.innerHTML=page.body.innerHTML}</script>");
        const Ran browser = shell("HOME=" + home.string() +
                                  " chromium --headless --no-sandbox --disable-gpu --disable-dev-shm-usage"
                                  " --no-first-run --user-data-dir=" +
                                  (home / "profile").string() + " --virtual-time-budget=1000 --dump-dom file://" +
                                  (home / "page.html").string());
        EXPECT_EQ(browser.code, 0) << browser.err;
        return browser.out;
    }
};

TEST_F(KestactlReport, OpensOnAPhoneAndHoldsEverything)
{
    const std::string html = report();
    const std::string page = opened(html);
    EXPECT_TRUE(page.find("<title>360 of 360, 664 squares</title>") != std::string::npos ||
                page.find("<title>345 of 345, 664 squares</title>") != std::string::npos)
        << "something to scroll sideways: " << page.substr(page.find("<title>"), 50);
    EXPECT_THAT(page, AllOf(HasSubstr("Saved environments of CNT0"), HasSubstr("All places agree."),
                            HasSubstr("the same on flash and in slot kesta_backup0"), HasSubstr("all free"),
                            HasSubstr("numbering-version"), HasSubstr("kesta_backup1")));
    EXPECT_THAT(page, AllOf(HasSubstr("All controllers"), HasSubstr("What was there before"),
                            HasSubstr("The board's identity"), HasSubstr("the files of network are as they were saved"),
                            HasSubstr("CNT3")));
    // One file, and nothing fetched.
    EXPECT_THAT(html, AllOf(Not(HasSubstr("http")), Not(HasSubstr("src=")), Not(HasSubstr("<script")),
                            Not(HasSubstr("@import")), Not(HasSubstr("url("))));
}

TEST_F(KestactlReport, DisagreementStandsFirstWithWhatMendsIt)
{
    ASSERT_EQ(ctl(0, "version set flash 9").code, 0);
    ASSERT_EQ(ctl(1, "lock take").code, 0);
    write_file(dir / "shared/sysback/kesta_verback", std::string("\x63\0\0\0", 4));
    const std::string page = opened(report(1));
    EXPECT_THAT(page, AllOf(HasSubstr("backup-version"), HasSubstr("system backup area: 99")));
    EXPECT_THAT(page, AllOf(HasSubstr("Some places do not agree."), HasSubstr("kestactl version set flash 1"),
                            HasSubstr("command lock, CNT1")));
    EXPECT_LT(page.find("kestactl version set flash 1"), page.find("What was compared"));
}

TEST_F(KestactlReport, WhatCanNotBeHadIsSaid)
{
    ASSERT_EQ(ctl(0, "nv write wwn 'a<b>&\"c'").code, 0);
    write_file(host_path(0, "opt/faults"), "nv_read 1 on fail\n");
    fs::copy_file(KESTA_NO_WAIT_LIBRARY, host_path(0, "opt/libno_wait.so"));
    const Ran made =
        on(0, "LD_PRELOAD=/opt/libno_wait.so KESTA_PLATFORM_FAULT_FILE=/opt/faults kestactl report /opt/report.html");
    EXPECT_EQ(made.code, 4) << made.err;
    const std::string html = read_file(host_path(0, "opt/report.html"));
    EXPECT_THAT(html, AllOf(HasSubstr("Not to be had"), Not(HasSubstr("All places agree"))));
    EXPECT_THAT(report(1), HasSubstr("a&lt;b&gt;&amp;&quot;c")) << "what the image holds is text";

    const Ran refused = ctl(0, "report /no/such/folder/report.html");
    EXPECT_EQ(refused.code, 4);
    EXPECT_THAT(refused.err, HasSubstr("/no/such/folder/report.html"));
}

TEST_F(KestactlReport, StatusHasVersionsAndWhatIsUnfinished)
{
    const Ran status = ctl(0, "status");
    EXPECT_THAT(status.out, AllOf(HasSubstr("versions     this controller 1, backup 1, accepted 1\n"),
                                  HasSubstr("unfinished   nothing\n")));
}

TEST_F(KestactlReport, OnlyAPlainFileIsReplaced)
{
    const std::string before = file_on(0, "/etc/hosts");
    for (const char *plant : {"ln -s /etc/hosts /opt/page", "ln -s /opt/none /opt/page", "mkfifo /opt/page",
                              "mkdir /opt/page", "mknod /opt/page c 1 7 2>/dev/null || mkfifo /opt/page"}) {
        EXPECT_EQ(on(0, plant).code, 0);
        const Ran refused = ctl(0, "report /opt/page");
        EXPECT_EQ(refused.code, 1) << refused.out;
        EXPECT_THAT(refused.err, HasSubstr("only plain files are read or replaced"));
        EXPECT_EQ(on(0, "rm -r /opt/page").code, 0);
    }
    EXPECT_EQ(file_on(0, "/etc/hosts"), before);
    EXPECT_EQ(on(0, "ls /opt | grep none").out, "");
    const Ran full = ctl(0, "report /dev/full");
    EXPECT_EQ(full.code, 1);
    EXPECT_EQ(on(0, "test -c /dev/full").code, 0);
}

TEST_F(KestactlReport, WhatIsPlantedBesideTheNameIsNotWrittenThrough)
{
    EXPECT_EQ(on(0, "echo mine > /opt/mine && ln -s /opt/mine /opt/page.html.new").code, 0);
    EXPECT_EQ(ctl(0, "report /opt/page.html").code, 0);
    EXPECT_EQ(file_on(0, "/opt/mine"), "mine\n");
    EXPECT_EQ(on(0, "stat -c '%F %a' /opt/page.html").out, "regular file 644\n");
    EXPECT_EQ(on(0, "ls -A /opt | grep 'page.html.' ").out, "page.html.new\n") << "nothing of ours is left";
}

TEST_F(KestactlReport, NameThatIsNoneIsToldInWords)
{
    const Ran none = ctl(0, "report ''");
    EXPECT_EQ(none.code, 2);
    EXPECT_THAT(none.err, HasSubstr("A file needs a name"));
    const Ran nowhere = ctl(0, "report /no/such/folder/page.html");
    EXPECT_EQ(nowhere.code, 4);
    EXPECT_THAT(nowhere.err, HasSubstr("No such file or directory"));
    EXPECT_THAT(nowhere.err, Not(HasSubstr("filesystem")));
}
