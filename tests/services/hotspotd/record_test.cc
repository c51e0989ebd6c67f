#include "services/hotspotd/record.h"

#include "tests/services/hotspotd/typed.h"

namespace {

std::string wrongWith(std::string_view text) {
  return hotspot::checkRecord(typed(text)).value_or("fine");
}

TEST(HotspotRecordTest, TakesGoodRecords) {
  EXPECT_EQ(wrongWith("{s1:'a',u2:1,M6:[]}"), "fine");
  EXPECT_EQ(wrongWith("{s1:'a b~',u2:65535,u5:0,bfe000a:1,M6:[{u1:1,u2:2},"
                      "{a3:[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,1],u4:128}],s10:'old',b11:1}"),
            "fine");
  EXPECT_EQ(hotspot::checkRecord(hotspot::defaultRecord()).value_or("fine"), "fine");
}

TEST(HotspotRecordTest, TheDefaultIsForTheMachineItselfAlone) {
  EXPECT_EQ(tn::writeText(hotspot::defaultRecord()),
            "{s1:'hotspot',u2:8090,M6:[{u1:2130706432,u2:4278190080},"
            "{a3:[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,1],u4:128}]}");
}

TEST(HotspotRecordTest, RefusesOthers) {
  const std::string name = "the name (string 1) has 1 to 64 printable ASCII characters";
  EXPECT_EQ(wrongWith("{u2:1,M6:[]}"), name);
  EXPECT_EQ(wrongWith("{s1:'',u2:1,M6:[]}"), name);
  EXPECT_EQ(wrongWith("{s1:'a\\n',u2:1,M6:[]}"), name);
  EXPECT_EQ(wrongWith("{s1:'" + std::string(65, 'a') + "',u2:1,M6:[]}"), name);
  EXPECT_EQ(wrongWith("{s1:'a',M6:[]}"), "the port (u32 2) is 1 to 65535");
  EXPECT_EQ(wrongWith("{s1:'a',u2:0,M6:[]}"), "the port (u32 2) is 1 to 65535");
  EXPECT_EQ(wrongWith("{s1:'a',u2:65536,M6:[]}"), "the port (u32 2) is 1 to 65535");
  EXPECT_EQ(wrongWith("{s1:'a',u2:1}"), "who may connect (messages 6) is missing");
  EXPECT_EQ(wrongWith("{s1:'a',u2:1,M6:[],u7:1}"), "field 7 is not known with this type");
  EXPECT_EQ(wrongWith("{s1:'a',u2:1,M6:[],q5:1}"), "field 5 is not known with this type");
  const std::string prefix = "a prefix has fields 1 and 2, or 3 and 4";
  for (const char* element : {"{}", "{u1:1}", "{u2:1}", "{u4:1}", "{u1:1,u4:1}"})
    EXPECT_EQ(wrongWith("{s1:'a',u2:1,M6:[" + std::string(element) + "]}"), prefix) << element;
  const std::string address = "a3:[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,1]";
  EXPECT_EQ(wrongWith("{s1:'a',u2:1,M6:[{u1:1,u2:1," + address + ",u4:1}]}"), prefix);
  EXPECT_EQ(wrongWith("{s1:'a',u2:1,M6:[{" + address + ",u4:129}]}"), "a prefix has at most 128 bits");
  EXPECT_EQ(wrongWith("{s1:'a',u2:1,M6:[{u1:1,u2:2,s3:'x'}]}"), "field 3 is not known with this type");
  std::string many = "{u1:1,u2:1}";
  for (std::size_t i = 0; i < hotspot::maxPrefixes; ++i)
    many += ",{u1:1,u2:1}";
  EXPECT_EQ(wrongWith("{s1:'a',u2:1,M6:[" + many + "]}"), "at most 64 prefixes can be allowed");
}

TEST(HotspotRecordTest, LaysFieldsOverOthers) {
  const tn::message base = typed("{s1:'a',u2:1,u5:9,M6:[{u1:1,u2:2}]}");
  const auto over = [&base](std::string_view text) { return tn::writeText(hotspot::recordFrom(base, typed(text))); };
  EXPECT_EQ(over("{}"), tn::writeText(base));
  EXPECT_EQ(over("{u2:7}"), "{s1:'a',u2:7,u5:9,M6:[{u1:1,u2:2}]}");
  EXPECT_EQ(over("{M6:[],bfe000a:1}"), "{s1:'a',u2:1,u5:9,M6:[],bfe000a:1}");
  // What is the bus's, or tells of the record's state, is none of the record.
  EXPECT_EQ(over("{uff0007:1,uff0020:2,Uff0001:[1],s10:'x',b11:1,uff0015:3,s7:'x'}"), tn::writeText(base));
}

}  // namespace
