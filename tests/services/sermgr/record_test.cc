#include "services/sermgr/record.h"

#include <gtest/gtest.h>

#include "platform/bus/text.h"

namespace {

using sermgr::applyFields;
using sermgr::Prefix;
using sermgr::Record;

tn::message text(std::string_view typed) {
  tn::message read;
  EXPECT_FALSE(tn::readText(typed, read).has_value()) << typed;
  return read;
}

Record sample() {
  Record record;
  record.name = "http";
  record.enabled = false;
  record.port = 8080;
  record.tlsRef = 7;
  record.allowed = {Prefix::ofIpv4(0x7F000000, 8)};
  return record;
}

// The record after a command; the command must be right.
Record applied(std::string_view typed, Record record = sample()) {
  const auto problem = applyFields(record, text(typed));
  EXPECT_EQ(problem, std::nullopt) << typed;
  return record;
}

// The problem with a command; the record must stay as it is.
std::string problemOf(std::string_view typed) {
  Record record = sample();
  const auto problem = applyFields(record, text(typed));
  EXPECT_EQ(record, sample()) << typed;
  return problem.value_or("none");
}

TEST(RecordFields, ThatAreAbsentKeepTheirValue) {
  EXPECT_EQ(applied("{}"), sample());
  EXPECT_EQ(applied("{s1:'http'}"), sample());
  Record expected = sample();
  expected.port = 8081;
  EXPECT_EQ(applied("{s1:'http',u2:8081}"), expected);
}

TEST(RecordFields, AreEachTakenOver) {
  EXPECT_TRUE(applied("{bfe000a:0}").enabled);
  EXPECT_FALSE(applied("{bfe000a:1}").enabled);
  EXPECT_EQ(applied("{u2:1}").port, 1U);
  EXPECT_EQ(applied("{u2:65535}").port, 65535U);
  EXPECT_EQ(applied("{u5:0}").tlsRef, 0U);
  EXPECT_EQ(applied("{u5:4294967294}").tlsRef, 4294967294U);
  EXPECT_EQ(applied("{u5:4294967295}").tlsRef, std::nullopt);
}

TEST(RecordFields, LeaveTheNameAlone) {
  EXPECT_EQ(applied("{s1:'other'}").name, "http");
}

TEST(RecordFields, AllowedReplacesTheWholeList) {
  const Record record =
      applied("{M6:[{u1:0xC0A80000,u2:0xFFFF0000},{a3:[254,128,0,0,0,0,0,0,0,0,0,0,0,0,0,0],u4:10},{u1:0,u2:0}]}");
  ASSERT_EQ(record.allowed.size(), 3U);
  EXPECT_EQ(sermgr::prefixText(record.allowed[0]), "192.168.0.0/16");
  EXPECT_EQ(sermgr::prefixText(record.allowed[1]), "fe80::/10");
  EXPECT_EQ(sermgr::prefixText(record.allowed[2]), "0.0.0.0/0");
  EXPECT_TRUE(applied("{M6:[]}").allowed.empty());
}

TEST(RecordFields, OfTheBusAndOfAListedRecordAreSkipped) {
  EXPECT_EQ(applied("{s1:'http',Uff0001:[68,1],uff0007:5,uff0020:9,sff000a:'x',s10:'refused',b11:1}").port, 8080U);
  EXPECT_EQ(applied("{s10:'refused',b11:1,u12:20,u2:9}").port, 9U);
}

TEST(RecordProblems, OfPorts) {
  EXPECT_EQ(problemOf("{u2:0}"), "the port (u32 2) is 1 to 65535");
  EXPECT_EQ(problemOf("{u2:65536}"), "the port (u32 2) is 1 to 65535");
  EXPECT_EQ(problemOf("{u2:4294967295}"), "the port (u32 2) is 1 to 65535");
}

TEST(RecordProblems, OfFieldsThatARecordDoesNotHave) {
  EXPECT_EQ(problemOf("{s2:'8081'}"), "field 2 is not known with this type");
  EXPECT_EQ(problemOf("{u2:8081,q5:1}"), "field 5 is not known with this type");
  EXPECT_EQ(problemOf("{u3:1}"), "field 3 is not known with this type");
  EXPECT_EQ(problemOf("{mabcdef:{}}"), "field abcdef is not known with this type");
  EXPECT_EQ(problemOf("{m6:{u1:1,u2:0}}"), "field 6 is not known with this type");
}

TEST(RecordProblems, OfPrefixes) {
  constexpr std::string_view good = "{u1:1,u2:0xFFFFFFFF}";
  const auto second = [good](std::string_view element) {
    std::string typed = "{u2:9,M6:[";
    typed.append(good).append(",").append(element).append("]}");
    return problemOf(typed);
  };
  constexpr std::string_view either = "allowed prefix 2: either an IPv4 or an IPv6 address is needed";
  EXPECT_EQ(second("{}"), either);
  EXPECT_EQ(second("{u1:1,u2:0,a3:[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,1],u4:128}"), either);
  EXPECT_EQ(second("{u1:1,u4:32}"), either);
  EXPECT_EQ(second("{u1:1}"), "allowed prefix 2: an IPv4 address needs fields 1 and 2");
  EXPECT_EQ(second("{u2:0}"), "allowed prefix 2: an IPv4 address needs fields 1 and 2");
  EXPECT_EQ(second("{u1:1,u2:0xFF00FF00}"), "allowed prefix 2: the bits of an IPv4 mask stand together at its front");
  EXPECT_EQ(second("{a3:[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,1]}"), "allowed prefix 2: an IPv6 address needs fields 3 and 4");
  EXPECT_EQ(second("{u4:64}"), "allowed prefix 2: an IPv6 address needs fields 3 and 4");
  EXPECT_EQ(second("{a3:[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,1],u4:129}"),
            "allowed prefix 2: an IPv6 prefix has 0 to 128 bits");
  EXPECT_EQ(second("{s1:'127.0.0.1',u2:0}"), "allowed prefix 2: field 1 is not known with this type");
}

TEST(RecordProblems, OfTooManyPrefixes) {
  tn::message element = text("{u1:1,u2:0}");
  tn::message command;
  command.insert_vector(sermgr::field::allowed, std::vector<tn::message>(sermgr::maxPrefixes, element));
  Record record = sample();
  EXPECT_EQ(applyFields(record, command), std::nullopt);
  EXPECT_EQ(record.allowed.size(), sermgr::maxPrefixes);
  command.insert_vector(sermgr::field::allowed, std::vector<tn::message>(sermgr::maxPrefixes + 1, element));
  EXPECT_EQ(applyFields(record, command), "at most 256 prefixes can be allowed");
}

TEST(RecordNames, ArePrintableAndNotTooLong) {
  EXPECT_EQ(sermgr::checkName("a"), std::nullopt);
  EXPECT_EQ(sermgr::checkName("My server ~1!"), std::nullopt);
  EXPECT_EQ(sermgr::checkName(std::string(64, 'n')), std::nullopt);
  constexpr const char* problem = "the name (string 1) has 1 to 64 printable ASCII characters";
  using namespace std::string_view_literals;
  for (const std::string_view name : {""sv, "a\nb"sv, "\x7F"sv, "\xC3\xA9"sv, "a\0"sv, "\t"sv}) {
    EXPECT_EQ(sermgr::checkName(name), problem) << ::testing::PrintToString(name);
  }
  EXPECT_EQ(sermgr::checkName(std::string(65, 'n')), problem);
}

TEST(RecordMessages, HoldEveryField) {
  tn::message msg;
  sermgr::writeRecord(sample(), msg);
  EXPECT_EQ(msg, text("{s1:'http',bfe000a:1,u2:8080,u5:7,M6:[{u1:0x7F000000,u2:0xFF000000}]}"));
  Record plain;
  plain.name = "plain";
  tn::message second;
  sermgr::writeRecord(plain, second);
  EXPECT_EQ(second, text("{s1:'plain',bfe000a:0,u2:80,M6:[]}"));
}

TEST(RecordMessages, ComeBack) {
  Record record = sample();
  record.allowed.push_back({false, {0xFE, 0x80}, 10});
  tn::message msg;
  sermgr::writeRecord(record, msg);
  Record read;
  read.name = "http";
  EXPECT_EQ(applyFields(read, msg), std::nullopt);
  EXPECT_EQ(read, record);
}

}  // namespace
