#include "services/userd/password.h"

#include <gmock/gmock.h>
#include <set>
#include <type_traits>

namespace userd {
namespace {

using namespace std::string_view_literals;

TEST(Password, IsRecognisedByItsHashAlone) {
  const auto hash = hashPassword(Secret("correct horse"));
  ASSERT_TRUE(hash.has_value());
  EXPECT_TRUE(isPasswordHash(*hash));
  EXPECT_TRUE(isRight(Secret("correct horse"), *hash));
  EXPECT_FALSE(isRight(Secret("correct hors"), *hash));
  EXPECT_FALSE(isRight(Secret("correct horse "), *hash));
  EXPECT_FALSE(isRight(Secret(), *hash));
}

TEST(Password, HasASaltOfItsOwn) {
  EXPECT_NE(hashPassword(Secret("correct horse")), hashPassword(Secret("correct horse")));
}

TEST(Password, IsLookedAtToItsLastByte) {
  const std::string longest(Secret::maxBytes, 'x');
  const auto hash = hashPassword(Secret(longest));
  ASSERT_TRUE(hash.has_value());
  EXPECT_TRUE(isRight(Secret(longest), *hash));
  EXPECT_FALSE(isRight(Secret(longest.substr(1)), *hash));
  EXPECT_FALSE(isRight(Secret(longest.substr(1) + "y"), *hash));
}

TEST(Password, NeverMatchesWhatIsNoHash) {
  for (const char* const text : {"", "*", "$y$", "x", "$y$j9T$", "$1$salt$hash", "correct horse"})
    EXPECT_FALSE(isRight(Secret("correct horse"), text)) << text;
}

// One that costs more memory than the machine has would end the service.
TEST(Password, HashIsOfThisServicesMethodAndCost) {
  const std::string tail = "2ZOvYOjdh0c7T7LwuM1Hs0$yvZnWo8iV/ngouMpKBZocvGw1VzobzkGe/Nm3LEnY1/";
  EXPECT_TRUE(isPasswordHash("$y$j9T$" + tail));
  EXPECT_FALSE(isPasswordHash("$y$jFT$" + tail));
  EXPECT_FALSE(isPasswordHash("$6$" + tail));
  EXPECT_FALSE(isPasswordHash("$y$j9T$short$hash"));
  EXPECT_FALSE(isPasswordHash("$y$j9T$" + std::string(300, 'a')));
  EXPECT_FALSE(isPasswordHash("$y$j9T$ " + tail));
}

TEST(Password, CanBeWantedWithinLimitsOnly) {
  EXPECT_FALSE(checkNewPassword("12345678").has_value());
  EXPECT_FALSE(checkNewPassword(std::string(256, 'x')).has_value());
  EXPECT_FALSE(checkNewPassword("gr\xc3\xbc\xc3\x9f dich").has_value());
  for (const std::string_view text : {""sv, "1234567"sv, "12345678\0"sv, "1234\n5678"sv,
                                      "1234\x7f"
                                      "5678"sv})
    EXPECT_TRUE(checkNewPassword(text).has_value()) << text;
  EXPECT_TRUE(checkNewPassword(std::string(257, 'x')).has_value());
}

TEST(Password, WithANulIsNoPassword) {
  EXPECT_FALSE(acceptedPassword("correct horse\0"sv).has_value());
  EXPECT_TRUE(acceptedPassword("short").has_value());
}

TEST(Password, IsMadeAtRandomFromLettersThatAreNotMistaken) {
  std::set<std::string> made;
  for (int i = 0; i < 100; ++i) {
    const auto password = makePassword();
    ASSERT_TRUE(password.has_value());
    EXPECT_THAT(std::string(password->text()), ::testing::MatchesRegex("([a-km-np-z2-9]{4}-){4}[a-km-np-z2-9]{4}"));
    made.insert(std::string(password->text()));
  }
  EXPECT_EQ(made.size(), 100U);
}

TEST(Secret, IsWipedWhereItLeaves) {
  static_assert(!std::is_copy_constructible_v<Secret> && !std::is_copy_assignable_v<Secret>);
  Secret from("correct horse");
  const char* const bytes = from.c_str();
  const Secret to = std::move(from);
  EXPECT_EQ(to.text(), "correct horse");
  EXPECT_EQ(std::string_view(bytes, 13), std::string_view("\0\0\0\0\0\0\0\0\0\0\0\0\0", 13));
}

TEST(Secret, IsWipedAtItsEnd) {
  alignas(Secret) unsigned char place[sizeof(Secret)];
  auto* const secret = new (place) Secret("correct horse");
  const std::string_view bytes(secret->c_str(), 13);
  EXPECT_EQ(bytes, "correct horse");
  secret->~Secret();
  EXPECT_EQ(bytes, std::string_view("\0\0\0\0\0\0\0\0\0\0\0\0\0", 13));
}

}  // namespace
}  // namespace userd
