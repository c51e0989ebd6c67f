#include "jsproxy/session_crypto.h"

#include <gmock/gmock.h>

#include "jsproxy/json_form.h"
#include "jsproxy/session.h"
#include "platform/bus/files.h"
#include "platform/bus/message.h"
#include "tests/core/output_capture.h"
#include "tests/crypto/hex.h"
#include "tests/jsproxy/browser.h"

namespace {

using core_test::OutputCapture;
using jsproxy_test::Browser;
using testing::ElementsAre;
using testing::IsEmpty;

template <typename Bytes>
Bytes filled(std::string_view hex) {
  Bytes secret;
  const auto bytes = fromHex(hex);
  std::copy(bytes.begin(), bytes.end(), secret.bytes().begin());
  return secret;
}

MasterKey someMaster() {
  return filled<MasterKey>("000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f");
}

std::string hexOf(std::span<const std::uint8_t> bytes) {
  return toHex(bytes);
}

// ---- Keys

// The vectors of RFC 7748, 6.1, turned round: numbers are big-endian here.
TEST(KeyExchange, BothSidesOfThePublishedExample) {
  const auto alice = filled<Scalar>("6a2cb91da5fb77b12a99c0eb872f4cdf4566b25172c1163c7da518730a6d0770");
  PublicValue bobPublic;
  const auto bob = fromHex("4f2b886f147efcad4d67785bc843833f3735e4ecc2615bd3b4c17d7b7ddb9ede");
  std::copy(bob.begin(), bob.end(), bobPublic.begin());
  const KeyExchange result = exchangeKeys(alice, bobPublic);
  EXPECT_EQ(hexOf(result.publicValue), "6a4e9baa8ea9a4ebf41a38260d3abf0d5af73eb4dc7d8b7454a7308909f02085");
  EXPECT_EQ(hexOf(result.master.bytes()), "4217161e3c9bf076339ed147c9217ee0250f3580f43b8e72e12dcea45b9d5d4a");
}

TEST(KeyExchange, APointOfSmallOrderGivesZero) {
  PublicValue zero{};
  const KeyExchange result = exchangeKeys(randomScalar(), zero);
  EXPECT_EQ(hexOf(result.master.bytes()), std::string(64, '0'));
}

TEST(KeyExchange, RandomScalarsAreClampedAndDiffer) {
  std::string last;
  for (int round = 0; round < 50; ++round) {
    const Scalar scalar = randomScalar();
    EXPECT_EQ(scalar.bytes()[31] & 7, 0);
    EXPECT_EQ(scalar.bytes()[0] & 0xC0, 0x40);
    EXPECT_NE(hexOf(scalar.bytes()), last);
    last = hexOf(scalar.bytes());
  }
}

TEST(KeyExchange, WithoutTheDeviceTheScalarIsMadeFromRand) {
  OutputCapture errors(STDERR_FILENO);
  srand(7);
  const Scalar scalar = randomScalar("/dev/no such device");
  EXPECT_THAT(errors.takeLines(), ElementsAre("urandom: No such file or directory"));
  srand(7);
  std::array<std::uint8_t, 32> expected;
  for (auto& byte : expected)
    byte = static_cast<std::uint8_t>(rand());
  expected[31] &= 0xF8;
  expected[0] = static_cast<std::uint8_t>((expected[0] & 0x7F) | 0x40);
  EXPECT_EQ(hexOf(scalar.bytes()), hexOf(expected));
}

TEST(KeyExchange, ADeviceThatGivesTooLittleIsNone) {
  OutputCapture errors(STDERR_FILENO);
  const Scalar scalar = randomScalar("/dev/null");
  EXPECT_EQ(errors.takeLines().size(), 1U);
  EXPECT_EQ(scalar.bytes()[0] & 0xC0, 0x40);
}

// Computed with another implementation of SHA-1 from the parts that RFC 3079 names.
TEST(SessionKeys, AreTheAsymmetricStartKeys) {
  const MasterKey master = someMaster();
  EXPECT_EQ(hexOf(deriveSessionKey(master, true).bytes()), "72b3ede3aa453851a3621d2c1a0947d9");
  EXPECT_EQ(hexOf(deriveSessionKey(master, false).bytes()), "07bd0177337f919b623681bbcfad52b8");
  const SessionKeys keys = deriveSessionKeys(master);
  EXPECT_EQ(hexOf(keys.send.bytes()), hexOf(deriveSessionKey(master, true).bytes()));
  EXPECT_EQ(hexOf(keys.receive.bytes()), hexOf(deriveSessionKey(master, false).bytes()));
}

TEST(SessionKeys, TheFirst768BytesOfTheKeystreamAreDiscarded) {
  const SessionKey key = deriveSessionKey(someMaster(), true);
  RC4 plain(key.bytes());
  plain.skip(768);
  RC4 started = startCipher(key);
  for (int i = 0; i < 100; ++i)
    EXPECT_EQ(started.gen(), plain.gen());
}

TEST(SessionKeys, ASecretThatMovesLeavesNothingBehind) {
  MasterKey from = someMaster();
  const MasterKey to = std::move(from);
  EXPECT_EQ(hexOf(from.bytes()), std::string(64, '0'));
  EXPECT_EQ(hexOf(to.bytes()), hexOf(someMaster().bytes()));
}

TEST(KeyExchange, TheAnswerIsText) {
  PublicValue value{};
  value[0] = 0x80;
  value[31] = 1;
  const std::string text = keyExchangeAnswer(0x010200FF, value);
  std::string bytes;
  ASSERT_TRUE(textToBytes(text, bytes));
  EXPECT_EQ(hexOf(asBytes(bytes)), "010200ff00000000" + hexOf(value));
  EXPECT_EQ(text.find('\0'), std::string::npos);
}

// The example of docs/tunnel.md.
TEST(SessionKeys, TheDocumentedExample) {
  const auto browser = filled<Scalar>("602122232425262728292a2b2c2d2e2f303132333435363738393a3b3c3d3e38");
  const auto server = filled<Scalar>("606162636465666768696a6b6c6d6e6f707172737475767778797a7b7c7d7e78");
  PublicValue nine{};
  nine.back() = 9;
  const PublicValue ofBrowser = exchangeKeys(browser, nine).publicValue;
  EXPECT_EQ(hexOf(ofBrowser), "5c6e7972339c07f321a750e48ca7b8375ca292e582aed4f7ecb3378e0cbf64bf");
  const KeyExchange exchange = exchangeKeys(server, ofBrowser);
  EXPECT_EQ(hexOf(exchange.publicValue), "189e2efbe8bc077f575241416030d4dbac45073058cead373be373b14edeb9a3");
  EXPECT_EQ(hexOf(exchange.master.bytes()), "4b4f74c1efe8b33a053a0a133b2caa013546f8d8243309cfe767ce09033337a8");
  const SessionKeys keys = deriveSessionKeys(exchange.master);
  EXPECT_EQ(hexOf(keys.receive.bytes()), "23a46ba88821af34862ad378f946f766");
  EXPECT_EQ(hexOf(keys.send.bytes()), "4c56db8c46992f730c530cfa8b57367f");
  JsSession session(5, IPAddr6(), keys, 0);
  const auto frame = fromHex("0000000500000001c4927ebc3f3f3c9bd77c01341fce1d733fcebd93345ec35c97972cb225dfff67");
  std::string payload;
  EXPECT_TRUE(decryptFrame(session, frame, payload));
  EXPECT_EQ(payload, "{s1:'admin',s3:'secret'}");
  EXPECT_EQ(session.receiving.base(), 33U);
  std::string answer;
  EXPECT_TRUE(textToBytes(putEncrypted(session, tn::message(), Form::json), answer));
  EXPECT_EQ(hexOf(asBytes(answer)), "00000005000000018d2914a14dcb04a6ffe7");
}

// ---- Frames

class FrameTest : public testing::Test {
 protected:
  FrameTest() { browser.agree(session.id, someMaster()); }

  // The payload, or "failed".
  std::string receive(std::string_view bytes) {
    std::string payload;
    return decryptFrame(session, asBytes(bytes), payload) ? payload : "failed";
  }

  static tn::message someMessage() {
    tn::message msg;
    msg.insert(tn::u32_id(1), 5);
    msg.insert(tn::string_id(3), "it's");
    return msg;
  }

  // A message whose flattened form has that many bytes.
  static tn::message messageOf(std::size_t size) {
    constexpr std::size_t around = 2 + 4 + 2;
    tn::message msg;
    const std::size_t first = (size - 2 * around + 2) / 2;
    EXPECT_TRUE(msg.insert(tn::string_id(1), std::string(first, 'a')));
    EXPECT_TRUE(msg.insert(tn::string_id(2), std::string(size - msg.max_length() - 6, 'b')));
    EXPECT_EQ(msg.max_length(), size);
    return msg;
  }

  OutputCapture log{STDOUT_FILENO};
  JsSession session{0x01020304, IPAddr6(), deriveSessionKeys(someMaster()), 0};
  Browser browser;
};

TEST_F(FrameTest, FramesAreDecipheredInAnyOrder) {
  const std::string first = browser.frame("first");
  const std::string second = browser.frame("the second one");
  EXPECT_EQ(receive(second), "the second one");
  EXPECT_EQ(receive(first), "first");
  EXPECT_EQ(session.receiving.base(), 1U + 5 + 8 + 14 + 8);
  EXPECT_THAT(session.receiving.received(), IsEmpty());
  EXPECT_EQ(session.receiving.buffered(), 0U);
  EXPECT_THAT(log.takeLines(), IsEmpty());
}

TEST_F(FrameTest, APayloadMayBeEmpty) {
  EXPECT_EQ(browser.frame("").size(), 16U);
  EXPECT_EQ(receive(browser.frameAt(1, "")), "");
  EXPECT_EQ(session.receiving.base(), 9U);
}

TEST_F(FrameTest, ATooShortFrameFailsInSilence) {
  const std::string whole = browser.frameAt(1, "");
  for (std::size_t size = 0; size < 16; ++size)
    EXPECT_EQ(receive(std::string_view(whole).substr(0, size)), "failed") << size;
  EXPECT_THAT(log.takeLines(), IsEmpty());
  EXPECT_EQ(receive(whole), "");
}

TEST_F(FrameTest, AFrameForAnotherSessionFailsInSilence) {
  browser.id = 0x01020305;
  EXPECT_EQ(receive(browser.frameAt(1, "x")), "failed");
  EXPECT_THAT(log.takeLines(), IsEmpty());
}

TEST_F(FrameTest, PositionZeroIsBeforeTheFirst) {
  EXPECT_EQ(receive(Browser::header(session.id, 0) + std::string(8, 'x')), "failed");
  EXPECT_THAT(log.takeLines(), ElementsAre("bad seq"));
}

TEST_F(FrameTest, ACopyFails) {
  const std::string frame = browser.frame("once");
  EXPECT_EQ(receive(frame), "once");
  EXPECT_EQ(receive(frame), "failed");
  EXPECT_THAT(log.takeLines(), ElementsAre("bad seq"));
  // Also when it was taken early.
  const std::string late = browser.frameAt(100, "late");
  EXPECT_EQ(receive(late), "late");
  EXPECT_EQ(receive(late), "failed");
  EXPECT_THAT(log.takeLines(), ElementsAre("bad seq"));
}

TEST_F(FrameTest, AnOverlappingFrameFails) {
  EXPECT_EQ(receive(browser.frameAt(50, "0123456789")), "0123456789");
  EXPECT_EQ(receive(browser.frameAt(60, "x")), "failed");
  EXPECT_EQ(receive(browser.frameAt(40, "xxx")), "failed");
  EXPECT_THAT(log.takeLines(), ElementsAre("bad seq", "bad seq"));
  EXPECT_EQ(receive(browser.frameAt(40, "xx")), "xx");
  EXPECT_EQ(receive(browser.frameAt(68, "y")), "y");
}

TEST_F(FrameTest, AFrameTooFarAheadFails) {
  EXPECT_EQ(receive(browser.frameAt(0x20002, "x")), "failed");
  EXPECT_THAT(log.takeLines(), ElementsAre("bad seq"));
  EXPECT_EQ(receive(browser.frameAt(0x20001, "x")), "x");
}

TEST_F(FrameTest, FalsePaddingIsShownAndUsesNothingUp) {
  const std::string bad = browser.rawFrame(1, "payload        x");
  EXPECT_EQ(receive(bad), "failed");
  const std::string dump = tn::hexdump(asBytes(bad).subspan(8));
  EXPECT_THAT(log.takeLines(), ElementsAre("bad padding", "<" + dump + ">"));
  EXPECT_EQ(session.receiving.base(), 1U);
  EXPECT_THAT(session.receiving.received(), IsEmpty());
  EXPECT_EQ(session.receiving.buffered(), 16U);
  EXPECT_EQ(receive(browser.frameAt(1, "payload")), "payload");
}

TEST_F(FrameTest, EveryBitOfThePaddingCounts) {
  for (std::size_t byte = 0; byte < 8; ++byte) {
    for (unsigned bit = 0; bit < 8; ++bit) {
      std::string frame = browser.frameAt(1, "x");
      frame[frame.size() - 8 + byte] = static_cast<char>(frame[frame.size() - 8 + byte] ^ (1U << bit));
      EXPECT_EQ(receive(frame), "failed");
    }
  }
  EXPECT_EQ(receive(browser.frameAt(1, "x")), "x");
}

// The log has no room for more; what is dropped there would be told of as a number alone.
TEST_F(FrameTest, OfALongFrameABeginningIsShown) {
  EXPECT_EQ(receive(browser.rawFrame(1, std::string(100000, 'x'))), "failed");
  const auto lines = log.takeLines();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[1].size(), 4096U * 3 - 1 + 2);
}

TEST_F(FrameTest, TheLongestBodyIsTaken) {
  const std::string payload(0x20000 - 16, 'x');
  EXPECT_EQ(receive(browser.frame(payload)), payload);
  EXPECT_EQ(session.receiving.buffered(), 0U);
}

// ---- To the browser

TEST_F(FrameTest, TheJsonForm) {
  const std::string text = putEncrypted(session, someMessage(), Form::json);
  EXPECT_EQ(text.find('\0'), std::string::npos);
  EXPECT_EQ(browser.openText(text), "{u1:5,s3:'it\\'s'}");
  EXPECT_EQ(session.sendPosition, 1U + 17 + 8);
  EXPECT_EQ(browser.openText(putEncrypted(session, tn::message(), Form::json)), "{}");
  EXPECT_EQ(session.sendPosition, 1U + 17 + 8 + 2 + 8);
}

TEST_F(FrameTest, TheBinaryFormBeginsWithItsLength) {
  const tn::message msg = someMessage();
  const std::string payload = browser.open(putEncrypted(session, msg, Form::binary));
  ASSERT_EQ(payload.size(), msg.max_length());
  EXPECT_EQ(loadBe16(asBytes(payload).data()), payload.size());
  EXPECT_EQ(hexOf(asBytes(payload).subspan(2)), hexOf(msg.flattened().subspan(2)));
  tn::message back;
  EXPECT_TRUE(back.unflatten(asBytes(payload)));
  EXPECT_EQ(back, msg);
  EXPECT_EQ(session.sendPosition, 1U + payload.size() + 8);
}

TEST_F(FrameTest, TheBinaryFormOfAnEmptyMessage) {
  EXPECT_EQ(browser.open(putEncrypted(session, tn::message(), Form::binary)), std::string("\0\2", 2));
}

TEST_F(FrameTest, TheLongestBinaryMessage) {
  const std::string payload = browser.open(putEncrypted(session, messageOf(65535), Form::binary));
  EXPECT_EQ(payload.size(), 65535U);
  EXPECT_EQ(session.sendPosition, 1U + 65535 + 8);
  EXPECT_THAT(log.takeLines(), IsEmpty());
}

TEST_F(FrameTest, ALongerBinaryMessageIsRefused) {
  EXPECT_EQ(putEncrypted(session, messageOf(65536), Form::binary), "");
  EXPECT_THAT(log.takeLines(), ElementsAre("putEncrypted too long msg 65536"));
  EXPECT_EQ(session.sendPosition, 1U);
  EXPECT_EQ(browser.openText(putEncrypted(session, someMessage(), Form::json)), "{u1:5,s3:'it\\'s'}");
}

TEST_F(FrameTest, TheJsonFormHasNoLimit) {
  const tn::message msg = messageOf(120000);
  std::string expected;
  writeJson(expected, msg.flattened());
  EXPECT_EQ(browser.openText(putEncrypted(session, msg, Form::json)), expected);
  EXPECT_EQ(session.sendPosition, 1U + expected.size() + 8);
}

TEST_F(FrameTest, BothFormsShareOneKeystream) {
  EXPECT_EQ(browser.openText(putEncrypted(session, someMessage(), Form::json)), "{u1:5,s3:'it\\'s'}");
  EXPECT_EQ(browser.open(putEncrypted(session, someMessage(), Form::binary)).size(), someMessage().max_length());
  EXPECT_EQ(browser.openText(putEncrypted(session, someMessage(), Form::json)), "{u1:5,s3:'it\\'s'}");
}

// Byte for byte, as another implementation computed it.
TEST_F(FrameTest, GoldenBytes) {
  tn::message msg;
  msg.insert(tn::u32_id(1), 5);
  EXPECT_EQ(hexOf(asBytes(putEncrypted(session, msg, Form::binary))), "01020304000000015b22398908c225c21ab6c6029c207b");
  EXPECT_EQ(hexOf(asBytes(putEncrypted(session, msg, Form::json))),
            "01020304c480c480c48010304cc281c2a4c2895f354ac290c2b42ec3a47d2c");
  const auto frame = fromHex("010203040000000122e6d751607176fd0e6e5d471e51");
  std::string payload;
  EXPECT_TRUE(decryptFrame(session, frame, payload));
  EXPECT_EQ(payload, "{u1:5}");
}

}  // namespace
