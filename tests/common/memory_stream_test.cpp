#include "common/memory_stream.h"

#include "support/hex.h"

#include <gmock/gmock.h>

namespace nfslib::testing {
namespace {

constexpr unsigned kSize = MemoryStream::getBufferSize();

std::string output(const MemoryStream& stream) { return hex(stream.getOutputBuffer()); }

TEST(Buffers, StayInsideWhatTheyView) {
  char bytes[10] = "abcdefghi";
  memory::mutable_buffer all(bytes, sizeof bytes);
  EXPECT_EQ(memory::mutable_buffer(all, 4).size(), 4U);
  EXPECT_EQ(memory::const_buffer(memory::const_buffer(all), 40).size(), 10U);
  EXPECT_EQ((all += 4).data(), all.end() - 6);
  EXPECT_TRUE((all += 40).empty());
  EXPECT_FALSE(all);

  char small[4] = {};
  memory::mutable_buffer target(small, sizeof small);
  EXPECT_EQ(memory::copy({bytes, 10}, target), 4U);
  EXPECT_EQ(std::string_view(small, 4), "abcd");
  EXPECT_TRUE(memory::append({bytes, 10}, target).empty());
  EXPECT_EQ(reinterpret_cast<char*>(target.data()), small + 4);
  memory::zero({small, 3});
  EXPECT_EQ(std::string_view(small, 4), std::string_view("\0\0\0d", 4));
}

TEST(Buffers, OrderIsByteWiseWithPrefixesFirst) {
  using memory::const_buffer;
  const const_buffer ab("ab", 2);
  EXPECT_TRUE(ab < const_buffer("abc", 3));
  EXPECT_FALSE(const_buffer("abc", 3) < ab);
  EXPECT_TRUE(const_buffer("a\x7f", 2) < const_buffer("a\x80", 2));
  EXPECT_TRUE(const_buffer() < ab);
  EXPECT_TRUE(const_buffer("abX", 2) == ab);
  EXPECT_FALSE(const_buffer("abX", 3) == ab);
  EXPECT_TRUE(const_buffer() == const_buffer("", 0));
}

TEST(MemoryStream, EncodesPrimitives) {
  MemoryStream out;
  out << 0x01020304U << 0x0102030405060708UL << true << false;
  EXPECT_EQ(output(out), "01020304 01020304 05060708 00000001 00000000");
  out.clearOutput();
  out << std::string("hello") << std::string_view("four") << std::string();
  EXPECT_EQ(output(out), "00000005 68656c6c 6f000000 00000004 666f7572 00000000");
  out.clearOutput();
  out << unhex("aabb") << memory::const_buffer("x", 1) << std::vector<unsigned>{7, 0x80000000U};
  EXPECT_EQ(output(out), "00000002 aabb0000 00000001 78000000 00000002 00000007 80000000");

  MemoryStream whole;
  whole << 1U << out;
  EXPECT_EQ(output(whole), "00000001 " + output(out));
}

TEST(MemoryStream, DecodesPrimitives) {
  MemoryStream in;
  setInput(in,
           "01020304 01020304 05060708 fffffffffffffffe 00000001 00000002"
           "00000005 68656c6c 6f000000 00000002 aabb0000 00000002 00000007 80000000");
  unsigned word = 0;
  unsigned long wide = 0;
  long negative = 0;
  bool yes = false;
  bool two = true;
  std::string text;
  std::vector<std::byte> bytes;
  std::vector<unsigned> words;
  in >> word >> wide >> negative >> yes >> two >> text >> bytes >> words;
  EXPECT_TRUE(in);
  EXPECT_EQ(word, 0x01020304U);
  EXPECT_EQ(wide, 0x0102030405060708UL);
  EXPECT_EQ(negative, -2);
  EXPECT_TRUE(yes);
  EXPECT_FALSE(two);
  EXPECT_EQ(text, "hello");
  EXPECT_EQ(bytes, unhex("aabb"));
  EXPECT_THAT(words, ::testing::ElementsAre(7U, 0x80000000U));
  EXPECT_EQ(in.getInputDataSize(), 0U);
}

TEST(MemoryStream, RawReadsTakeWhatIsThereAndDoNotFail) {
  MemoryStream in;
  setInput(in, "0102030405060708090a");
  std::byte two[2] = {};
  EXPECT_EQ(in.read(two, 2), 2U);
  EXPECT_EQ(hex({two, 2}), "0102");
  EXPECT_EQ(in.skipInput(3), 3U);
  in.skipOpaqueTail(8);
  EXPECT_EQ(in.getInputDataSize(), 5U);
  in.skipOpaqueTail(7);
  EXPECT_EQ(hex(in.readView(40)), "0708090a");
  EXPECT_EQ(in.skipInput(1), 0U);
  EXPECT_EQ(in.read(two, 2), 0U);
  EXPECT_TRUE(in);
}

TEST(MemoryStream, AShortIntegerFailsForGoodAndTakesTheRest) {
  MemoryStream stream;
  setInput(stream, "010203");
  unsigned word = 9;
  stream >> word;
  EXPECT_FALSE(stream);
  EXPECT_EQ(stream.getInputDataSize(), 0U);

  setInput(stream, "00000007");
  stream >> word;
  EXPECT_EQ(word, 7U);
  EXPECT_FALSE(stream);
  stream << word;  // the reply can still be made
  EXPECT_EQ(output(stream), "00000007");

  MemoryStream wide;
  setInput(wide, "01020304 050607");
  unsigned long value = 0;
  EXPECT_FALSE(wide >> value);
}

// Lengths that the rest of the input does not bear out. The word behind them must still be there:
// nothing of the body is taken.
template <class T>
void expectRefused(const char* input) {
  MemoryStream in;
  setInput(in, input);
  T value;
  in >> value;
  EXPECT_FALSE(in) << input;
  EXPECT_TRUE(value.empty()) << input;
  EXPECT_EQ(in.getInputDataSize(), 4U) << input;
}

TEST(MemoryStream, HostileLengthsFailWithoutAllocating) {
  for (const char* input :
       {"ffffffff 61626364", "7fffffff 61626364", "fffffffd 61626364", "00000005 61626364"}) {
    expectRefused<std::string>(input);
    expectRefused<std::vector<std::byte>>(input);
  }
  for (const char* input : {"40000001 00000001", "00000002 00000001"}) {
    expectRefused<std::vector<unsigned>>(input);
  }
}

TEST(MemoryStream, ReadStringNeverPassesTheDestination) {
  MemoryStream in;
  char name[4] = {};
  setInput(in, "00000003 61626300 00000005 6161616161000000");
  EXPECT_EQ(in.readString({name, sizeof name}), 3U);
  EXPECT_STREQ(name, "abc");
  EXPECT_TRUE(in);
  EXPECT_EQ(in.readString({name, sizeof name}), 0U);
  EXPECT_STREQ(name, "abc");
  EXPECT_FALSE(in);
}

TEST(MemoryStream, AnOversizedInputIsCutToTheArea) {
  MemoryStream in;
  const std::vector<std::byte> large(kSize + 5UL);
  in.setInputData({large.data(), large.size()});
  EXPECT_EQ(in.getInputDataSize(), kSize);
  in.setInputSize(kSize + 1);
  EXPECT_EQ(in.skipInput(kSize + 1), kSize);
}

TEST(MemoryStream, OutputIsCutAtTheEndOfTheArea) {
  MemoryStream out;
  out.writeZeros(kSize - 4);
  out << 0x0102030405060708UL;
  EXPECT_EQ(out.getOutputPosition(), kSize);
  EXPECT_EQ(out.getOutputDataSize(), kSize);
  const memory::const_buffer all = out.getOutputBuffer();
  EXPECT_EQ(hex({all.end() - 4, 4}), "01020304");
  out << 1U << std::string("more");
  EXPECT_EQ(out.getOutputDataSize(), kSize);
  EXPECT_TRUE(out.writeZeros(1).empty());
}

TEST(MemoryStream, SeeksBackToPatchAndTruncates) {
  MemoryStream out;
  out << 1U << 2U << 3U;
  out.seekOutput(0xFFFFFFFC, SeekOrigin::Current);
  out << 9U;
  EXPECT_EQ(output(out), "00000001 00000002 00000009");
  out.seekOutput(4, SeekOrigin::Begin);
  out << 8U;
  out.seekOutput(0, SeekOrigin::End);
  EXPECT_EQ(out.getOutputPosition(), 12U);
  EXPECT_EQ(output(out), "00000001 00000008 00000009");
  out.seekOutput(4, SeekOrigin::Begin);
  out.truncateOutput();
  EXPECT_EQ(output(out), "00000001");
  out.clearOutput();
  EXPECT_EQ(out.getOutputPosition() + out.getOutputDataSize(), 0U);

  // A position outside the area must not let a write leave it.
  out.seekOutput(0xFFFFFFF0, SeekOrigin::Begin);
  out << 1U;
  EXPECT_LE(out.getOutputDataSize(), kSize);
}

TEST(MemoryStream, WritesInPlaceAreZeroedAndCountedAgainstTheLimit) {
  MemoryStream out;
  out << 0xFFFFFFFFU << 0xFFFFFFFFU;
  out.clearOutput();
  out.limitOutput(6);
  const memory::mutable_buffer room = out.writeZeros(4);
  EXPECT_EQ(output(out), "00000000");
  EXPECT_EQ(out.outputSpace(), 2U);
  *room[1] = std::byte{0x61};
  out << 1U;
  EXPECT_EQ(output(out), "00610000 00000001");
  EXPECT_EQ(out.outputSpace(), 0U);
}

}  // namespace
}  // namespace nfslib::testing
