#include "kavrel/platform/frame.h"

#include <gtest/gtest.h>

#include "kavrel/error.h"
#include "support/checks.h"

namespace kavrel {
namespace {

using Bytes = std::vector<uint8_t>;

TEST(ByteFrameTest, StoredTextComesBackUnchangedAndBytesAreWrittenAsPairs) {
  for (const char* stored : {"21 0a", "  21  0A ", "2101", "61,0a-FF:00", "zz not hex"}) {
    auto f = ByteFrame::fromStored(db::Value(stored));
    EXPECT_EQ(f->text(), stored);
    EXPECT_EQ(ByteFrame::fromText(f->text())->storedValue(), db::Value(stored));
  }
  // Null stays Null; an empty column stays empty text; an empty XML text is
  // a missing frame.
  EXPECT_TRUE(ByteFrame::fromStored(db::Value())->empty());
  EXPECT_TRUE(ByteFrame::fromStored(db::Value())->storedValue().isNull());
  EXPECT_EQ(ByteFrame::fromStored(db::Value(""))->storedValue(), db::Value(""));
  EXPECT_TRUE(ByteFrame::fromText("")->storedValue().isNull());
  EXPECT_EQ(ByteFrame::fromBytes({0x21, 0x0A, 0xFF})->storedValue(), db::Value("21 0A FF"));
  EXPECT_TRUE(ByteFrame::fromBytes({})->storedValue().isNull());
}

TEST(ByteFrameTest, BytesOfHexadecimalPairsAndError13ForTextThatIsNoFrame) {
  for (auto [text, bytes] : {std::pair<const char*, Bytes>{"21 0A", {0x21, 0x0A}}, {"210a", {0x21, 0x0A}},
                             {" 61,0a-Ff:00 ", {0x61, 0x0A, 0xFF, 0x00}},
                             {"\n\t21 22\r\n2324\n", {0x21, 0x22, 0x23, 0x24}}, {"", {}}, {" , ", {}}})
    EXPECT_EQ(ByteFrame::fromText(text)->bytes(), bytes) << text;
  for (const char* bad : {"2G", "210", "21 0", "0x21", "21;22", "é1"}) {
    Error e = test::thrownBy([&] { ByteFrame::fromText(bad)->bytes(); });
    EXPECT_EQ(e.number(), 13) << bad;
    EXPECT_TRUE(test::contains(e.description(), std::string("'") + bad + "'"));
  }
  EXPECT_TRUE(test::contains(test::thrownBy([] { ByteFrame::fromText("21 0G")->bytes(); }).description(),
                             "'G' at position 5"));
}

}  // namespace
}  // namespace kavrel
