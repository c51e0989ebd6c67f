// The library's headers as the compiler's GNU mode reads them, which is what a program gets that asks for no other: it
// has macros of its own, and one of them is the name of a field.

#include <gtest/gtest.h>

#define unix 1

#include "platform/web/functions.h"
#include "platform/web/servlet.h"

namespace {

TEST(GnuMode, ARequestKnowsItsListener) {
  EXPECT_TRUE(Request(false, true).unix);
  EXPECT_FALSE(Request(true, false).unix);
}

}  // namespace
