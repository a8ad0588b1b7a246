#include "loaded_function.h"

#include <gmock/gmock.h>

#include "failure.h"

using namespace engine;
using testing::HasSubstr;

namespace {

void expect_told(const char *library, const char *name, const std::string &what)
{
    try {
        (void)find_in_library(library, name);
        ADD_FAILURE() << library << " has " << name;
    } catch (const Failure &failure) {
        EXPECT_EQ(failure.exit(), Exit::platform);
        EXPECT_EQ(failure.code(), "no-library");
        EXPECT_THAT(failure.what(), HasSubstr(what));
        EXPECT_THAT(failure.hint(), HasSubstr("Install the package"));
    }
}

}  // namespace

TEST(LoadedFunctions, WhatIsMissingIsTold)
{
    expect_told("libkesta_no_such.so.1", "archive_read_new", "libkesta_no_such.so.1 could not be used");
    expect_told("libc.so.6", "kesta_no_such_function", "kesta_no_such_function");
}

TEST(LoadedFunctions, AreTheLibrarysOwn)
{
    const LoadedFunction<int (*)(int)> absolute("libc.so.6", "abs");
    EXPECT_EQ(absolute(-5), 5);
    EXPECT_EQ(absolute(-6), 6);
}
