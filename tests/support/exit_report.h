// Death tests of the fatal reports, which go to standard output: the child sends its standard
// output to standard error, where EXPECT_EXIT matches the regular expression.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#define EXPECT_EXIT_REPORT(statement, regex) \
  EXPECT_EXIT(                               \
      {                                      \
        dup2(2, 1);                          \
        statement;                           \
      },                                     \
      testing::ExitedWithCode(1), regex)
