#include "core/server_record.h"

#include <gmock/gmock.h>
#include <vector>

namespace {

using testing::IsEmpty;
using testing::SizeIs;

constexpr tn::message_array_id allowedField{6};

IPAddr6 ipv4(std::uint32_t address) {
  IPAddr6 result;
  result.setIPv4(address);
  return result;
}

IPAddr6 ipv6(std::uint8_t first, std::uint8_t last) {
  IPAddr6::Bytes bytes{};
  bytes[0] = first;
  bytes[15] = last;
  return IPAddr6(bytes);
}

tn::message recordAllowing(const std::vector<tn::message>& elements) {
  tn::message record;
  EXPECT_TRUE(record.insert_vector(allowedField, elements));
  return record;
}

tn::message ipv4Element(std::uint32_t address, std::uint32_t mask) {
  tn::message element;
  element.insert(tn::u32_id(1), address);
  element.insert(tn::u32_id(2), mask);
  return element;
}

tn::message ipv6Element(const IPAddr6& address, std::uint32_t length) {
  tn::message element;
  element.insert(tn::addr6_id(3), address.bytes());
  element.insert(tn::u32_id(4), length);
  return element;
}

TEST(ServerRecord, AnEmptyRecordHasTheDefaults) {
  const ServerRecord record = readServerRecord({});
  EXPECT_TRUE(record.enabled);
  EXPECT_EQ(record.port, 80U);
  EXPECT_EQ(record.tlsRef, 0xFFFFFFFFU);
  EXPECT_THAT(record.allowed, IsEmpty());
  EXPECT_FALSE(hasTlsRef({}));
  EXPECT_FALSE(hasServerName({}));
  EXPECT_EQ(serverName({}), "");
}

TEST(ServerRecord, EveryFieldIsRead) {
  tn::message message;
  message.insert(tn::string_id(1), "www");
  message.insert(tn::bool_id(0xfe000a), true);
  message.insert(tn::u32_id(2), 8080);
  message.insert(tn::u32_id(5), 7);
  const ServerRecord record = readServerRecord(message);
  EXPECT_EQ(serverName(message), "www");
  EXPECT_TRUE(hasServerName(message));
  EXPECT_FALSE(record.enabled);
  EXPECT_EQ(record.port, 8080U);
  EXPECT_EQ(record.tlsRef, 7U);
  EXPECT_TRUE(hasTlsRef(message));
}

TEST(ServerRecord, DisabledFalseEnables) {
  tn::message message;
  message.insert(tn::bool_id(0xfe000a), false);
  EXPECT_TRUE(readServerRecord(message).enabled);
}

TEST(ServerRecord, AFieldOfAnotherTypeCountsAsAbsent) {
  tn::message message;
  message.insert(tn::u32_id(1), 5);
  message.insert(tn::u32_id(0xfe000a), 1);
  message.insert(tn::string_id(2), "8080");
  message.insert(tn::u64_id(5), 7);
  message.insert(tn::message_id(6), ipv4Element(0x0a000000, 0xff000000));
  const ServerRecord record = readServerRecord(message);
  EXPECT_FALSE(hasServerName(message));
  EXPECT_TRUE(record.enabled);
  EXPECT_EQ(record.port, 80U);
  EXPECT_EQ(record.tlsRef, 0xFFFFFFFFU);
  EXPECT_FALSE(hasTlsRef(message));
  EXPECT_THAT(record.allowed, IsEmpty());
}

TEST(ServerRecord, IPv4PrefixesHaveTheFirstOctetInTheTopByte) {
  const ServerRecord record = readServerRecord(recordAllowing({ipv4Element(0xC0A80100, 0xFFFFFF00)}));
  ASSERT_THAT(record.allowed, SizeIs(1));
  EXPECT_TRUE(record.allowed[0].has(ipv4(0xC0A80117)));
  EXPECT_FALSE(record.allowed[0].has(ipv4(0xC0A80217)));
  EXPECT_FALSE(record.allowed[0].has(ipv6(0x20, 1)));
}

TEST(ServerRecord, IPv6PrefixesTakeTheirLength) {
  const ServerRecord record = readServerRecord(recordAllowing({ipv6Element(ipv6(0x20, 1), 8)}));
  ASSERT_THAT(record.allowed, SizeIs(1));
  EXPECT_TRUE(record.allowed[0].has(ipv6(0x20, 77)));
  EXPECT_FALSE(record.allowed[0].has(ipv6(0x21, 1)));
  EXPECT_FALSE(record.allowed[0].has(ipv4(0x20000001)));
}

TEST(ServerRecord, LengthAboveTheAddressIsTheWholeAddress) {
  const ServerRecord record = readServerRecord(recordAllowing({ipv6Element(ipv6(0x20, 1), 0xFFFFFFFF)}));
  ASSERT_THAT(record.allowed, SizeIs(1));
  EXPECT_TRUE(record.allowed[0].has(ipv6(0x20, 1)));
  EXPECT_FALSE(record.allowed[0].has(ipv6(0x20, 2)));
}

TEST(ServerRecord, IPv4WinsOverIPv6InOneElement) {
  tn::message element = ipv4Element(0x7F000001, 0xFFFFFFFF);
  element.insert(tn::addr6_id(3), ipv6(0x20, 1).bytes());
  element.insert(tn::u32_id(4), 128);
  const ServerRecord record = readServerRecord(recordAllowing({element}));
  ASSERT_THAT(record.allowed, SizeIs(1));
  EXPECT_TRUE(record.allowed[0].has(ipv4(0x7F000001)));
  EXPECT_FALSE(record.allowed[0].has(ipv6(0x20, 1)));
}

TEST(ServerRecord, AnAddressWithoutMaskOrLengthStandsForItselfAlone) {
  tn::message bareIPv4;
  bareIPv4.insert(tn::u32_id(1), 0x0A000001);
  bareIPv4.insert(tn::string_id(2), "255.0.0.0");
  tn::message bareIPv6;
  bareIPv6.insert(tn::addr6_id(3), ipv6(0x20, 1).bytes());
  const ServerRecord record = readServerRecord(recordAllowing({bareIPv4, bareIPv6}));
  ASSERT_THAT(record.allowed, SizeIs(2));
  EXPECT_TRUE(record.allowed[0].has(ipv4(0x0A000001)));
  EXPECT_FALSE(record.allowed[0].has(ipv4(0x0A000002)));
  EXPECT_TRUE(record.allowed[1].has(ipv6(0x20, 1)));
  EXPECT_FALSE(record.allowed[1].has(ipv6(0x20, 2)));
}

TEST(ServerRecord, ElementsWithoutAnAddressAreSkippedAndTheOrderIsKept) {
  tn::message maskOnly;
  maskOnly.insert(tn::u32_id(2), 0);
  tn::message wrongTypes;
  wrongTypes.insert(tn::string_id(1), "10.0.0.0");
  wrongTypes.insert(tn::string_id(3), "::1");
  const ServerRecord record = readServerRecord(
      recordAllowing({{}, ipv4Element(0x0A000000, 0xFF000000), maskOnly, wrongTypes, ipv6Element(ipv6(0x20, 1), 128)}));
  ASSERT_THAT(record.allowed, SizeIs(2));
  EXPECT_TRUE(record.allowed[0].has(ipv4(0x0A123456)));
  EXPECT_TRUE(record.allowed[1].has(ipv6(0x20, 1)));
}

TEST(ServerRecord, AsManyPrefixesAsAMessageHoldsAreKept) {
  const std::vector<tn::message> elements(65535, ipv4Element(0x0A000000, 0xFFFFFFFF));
  const ServerRecord record = readServerRecord(recordAllowing(elements));
  EXPECT_THAT(record.allowed, SizeIs(elements.size()));
}

}  // namespace
