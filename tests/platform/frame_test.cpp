#include "kavrel/platform/frame.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kavrel/error.h"
#include "support/checks.h"

namespace kavrel {
namespace {

using Bytes = std::vector<uint8_t>;

TEST(ByteFrameTest, StoredValueAndTextComeBackUnchanged) {
  for (const char* stored : {"21 0a", "  21  0A ", "2101", "61,0a-FF:00", "zz not hex"}) {
    auto f = ByteFrame::fromStored(db::Value(stored));
    EXPECT_EQ(f->text(), stored);
    EXPECT_EQ(f->storedValue(), db::Value(stored));
    EXPECT_EQ(ByteFrame::fromText(f->text())->storedValue(), db::Value(stored));
  }
  // Null stays Null; an empty column stays empty text.
  auto null = ByteFrame::fromStored(db::Value());
  EXPECT_TRUE(null->empty());
  EXPECT_TRUE(null->storedValue().isNull());
  EXPECT_EQ(ByteFrame::fromStored(db::Value(""))->storedValue(), db::Value(""));
  // An empty XML text is a missing frame.
  EXPECT_TRUE(ByteFrame::fromText("")->storedValue().isNull());
  // Bytes are written as upper-case pairs.
  auto f = ByteFrame::fromBytes({0x21, 0x0A, 0xFF});
  EXPECT_EQ(f->storedValue(), db::Value("21 0A FF"));
  EXPECT_EQ(f->bytes(), (Bytes{0x21, 0x0A, 0xFF}));
  EXPECT_TRUE(ByteFrame::fromBytes({})->storedValue().isNull());
}

TEST(ByteFrameTest, BytesOfHexadecimalPairs) {
  EXPECT_EQ(ByteFrame::fromText("21 0A")->bytes(), (Bytes{0x21, 0x0A}));
  EXPECT_EQ(ByteFrame::fromText("210a")->bytes(), (Bytes{0x21, 0x0A}));
  EXPECT_EQ(ByteFrame::fromText(" 61,0a-Ff:00 ")->bytes(), (Bytes{0x61, 0x0A, 0xFF, 0x00}));
  EXPECT_EQ(ByteFrame::fromText("\n\t21 22\r\n2324\n")->bytes(), (Bytes{0x21, 0x22, 0x23, 0x24}));
  EXPECT_TRUE(ByteFrame::fromText("")->bytes().empty());
  EXPECT_TRUE(ByteFrame::fromText(" , ")->bytes().empty());
}

TEST(ByteFrameTest, TextThatIsNoFrameIsError13NamingIt) {
  for (const char* bad : {"2G", "210", "21 0", "0x21", "21;22", "é1"}) {
    try {
      ByteFrame::fromText(bad)->bytes();
      ADD_FAILURE() << "accepted '" << bad << "'";
    } catch (const Error& e) {
      EXPECT_EQ(e.number(), 13) << bad;
      EXPECT_NE(e.description().find(std::string("'") + bad + "'"), std::string::npos) << e.description();
    }
  }
  EXPECT_TRUE(test::contains(test::thrownBy([] { ByteFrame::fromText("21 0G")->bytes(); }).description(),
                             "'G' at position 5"));
}

}  // namespace
}  // namespace kavrel
