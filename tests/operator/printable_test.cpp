// What reaches a terminal of a text that somebody else wrote.
#include <gtest/gtest.h>

#include "printable.h"

using engine::printable;

TEST(Printable, TextsStayAsTheyAre)
{
    for (const std::string text : {"", "plain", "two\nlines\tand a tab", "\xc3\xa4\xe2\x82\xac\xf0\x9f\x92\xbe"}) {
        EXPECT_EQ(printable(text), text);
    }
}

TEST(Printable, ControlsAreShown)
{
    EXPECT_EQ(printable("a\x1b[31mb"), "a\\x1b[31mb");
    EXPECT_EQ(printable(std::string("a\0b", 3)), "a\\x00b");
    EXPECT_EQ(printable("\r\b\x7f"), "\\x0d\\x08\\x7f");
    EXPECT_EQ(printable("\xc2\x9b"
                        "31m"),
              "\\u009b31m")
        << "a control sequence in eight bits";
    EXPECT_EQ(printable("\xe2\x80\xae"
                        "abc"),
              "\\u202eabc")
        << "turns the direction of writing";
    EXPECT_EQ(printable("\xe2\x81\xa6\xe2\x80\xa8"), "\\u2066\\u2028");
}

TEST(Printable, BytesThatAreNoUtf8AreShown)
{
    EXPECT_EQ(printable("\x9b"
                        "31m\xff"),
              "\\x9b31m\\xff");
    EXPECT_EQ(printable("\xc3"), "\\xc3") << "cut";
    EXPECT_EQ(printable("\xe2\x82x"), "\\xe2\\x82x");
    EXPECT_EQ(printable("\xc0\x9b"), "\\xc0\\x9b") << "a longer form of a shorter character";
    EXPECT_EQ(printable("\xed\xa0\x80"), "\\xed\\xa0\\x80") << "half a pair";
    EXPECT_EQ(printable("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80") << "beyond the last character";
}
