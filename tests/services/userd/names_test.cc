#include <gmock/gmock.h>

#include "tests/services/userd/service_fixture.h"

namespace userd {
namespace {

class NamesTest : public ServiceTest {
 protected:
  std::string query(std::uint32_t number = 1) {
    return ask(nameHandlerId, tn::command::getObj, "{ufe0001:" + std::to_string(number) + "}");
  }
};

TEST_F(NamesTest, TellsTheNameOfTheFirstUser) {
  EXPECT_EQ(query(), "{s1:'admin'}");
  EXPECT_EQ(ask(userHandlerId, tn::command::setObj, "{ufe0001:1,s1:'owner'}"), "{}");
  EXPECT_EQ(query(), "{s1:'owner'}");
}

TEST_F(NamesTest, TellsNoNameThatIsNotToBeShown) {
  addBob();
  EXPECT_EQ(query(2), "{b1c:1}");
  EXPECT_EQ(ask(userHandlerId, tn::command::setObj, "{s1:'bob',b1c:0,bfe000a:1}"), "{}");
  EXPECT_EQ(query(2), "{bfe000a:1}");
  EXPECT_EQ(ask(userHandlerId, tn::command::setObj, "{s1:'bob',bfe000a:0}"), "{}");
  EXPECT_EQ(query(2), "{s1:'bob'}");
}

TEST_F(NamesTest, KnowsOnlyWhoIsThere) {
  EXPECT_EQ(query(0), "fe0006 no such user");
  EXPECT_EQ(query(2), "fe0006 no such user");
  EXPECT_EQ(ask(nameHandlerId, tn::command::getObj), "fe0006 no such user");
  EXPECT_EQ(ask(nameHandlerId, tn::command::get), "fe0007 unknown command");
}

}  // namespace
}  // namespace userd
