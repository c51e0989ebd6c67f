#include "services/hotspotd/form.h"

#include <gtest/gtest.h>

namespace {

using hotspot::formField;

TEST(HotspotFormTest, FindsAField) {
  EXPECT_EQ(formField("code=abc", "code"), "abc");
  EXPECT_EQ(formField("a=1&code=abc&b=2", "code"), "abc");
  EXPECT_EQ(formField("code=", "code"), "");
  EXPECT_EQ(formField("code", "code"), "");
  EXPECT_EQ(formField("code=a=b", "code"), "a=b");
  EXPECT_EQ(formField("&&code=x&&", "code"), "x");
}

TEST(HotspotFormTest, AnAbsentFieldIsEmpty) {
  EXPECT_EQ(formField("", "code"), "");
  EXPECT_EQ(formField("codes=1&cod=2&Code=3", "code"), "");
}

TEST(HotspotFormTest, TheFirstOfOneNameCounts) {
  EXPECT_EQ(formField("code=a&code=b", "code"), "a");
}

TEST(HotspotFormTest, Decodes) {
  using namespace std::string_literals;
  EXPECT_EQ(formField("c%6Fde=a+b%2B%26%3d%00", "code"), "a b+&=\0"s);
  EXPECT_EQ(formField("code=%C3%A4", "code"), "\xc3\xa4");
}

TEST(HotspotFormTest, MalformedIsNothing) {
  for (const char* form : {"code=%", "code=%4", "code=%zz", "code=% 1", "code=%-1", "code=a&x=%", "%=1", "code=%4&1"})
    EXPECT_EQ(formField(form, "code"), std::nullopt) << form;
}

}  // namespace
