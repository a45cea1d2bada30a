// Random access to what is compressed: the bytes are right, none is decoded twice without need,
// memory stays under its limit, and damage costs what is damaged.

#include <nfslib/exception.h>

#include "archive/block_cache.h"
#include "archive/compressed_file.h"
#include "archive/damaged_data.h"
#include "archive/decoded_source.h"
#include "archive/deflated_member.h"
#include "archive/file_bytes.h"
#include "support/failure_of.h"
#include "support/scratch_directory.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <archive.h>
#include <archive_entry.h>
#include <gmock/gmock.h>
#include <zlib.h>

namespace nfslib {

namespace {

using namespace hosts::archive;
using nfslib::testing::failureOf;
using nfslib::testing::ScratchDirectory;
using ::testing::HasSubstr;

constexpr std::size_t operator""_KiB(unsigned long long n) { return n << 10; }
constexpr std::size_t operator""_MiB(unsigned long long n) { return n << 20; }

constexpr std::size_t kPiece = 4_KiB;
// Restart points stand about this far apart.
constexpr std::size_t kInterval = 4_MiB;

// Compresses to about a third.
std::string text(std::size_t size, unsigned seed = 1) {
  std::minstd_rand random(seed);
  std::string result;
  result.reserve(size + 16);
  while (result.size() < size) {
    const auto number = random();
    result.append(number % 3 == 0 ? "a word of it " : "");
    result.append(std::to_string(number % 100'000));
  }
  result.resize(size);
  return result;
}

// What libarchive's filter `method` makes of `data`, as one stream. `option` is one of the
// filter's.
std::string compressed(const std::string& method, const std::string& data,
                       const std::string& option = {}) {
  const std::unique_ptr<archive, decltype(&::archive_write_free)> out(::archive_write_new(),
                                                                      ::archive_write_free);
  std::string result(data.size() + 1_MiB, '\0');
  std::size_t used = 0;
  ::archive_write_set_format_raw(out.get());
  ::archive_write_add_filter_by_name(out.get(), method.c_str());
  if (!option.empty()) ::archive_write_set_options(out.get(), option.c_str());
  ::archive_write_set_bytes_in_last_block(out.get(), 1);
  ::archive_write_open_memory(out.get(), result.data(), result.size(), &used);
  const std::unique_ptr<archive_entry, decltype(&::archive_entry_free)> entry(::archive_entry_new(),
                                                                              ::archive_entry_free);
  ::archive_entry_set_filetype(entry.get(), AE_IFREG);
  ::archive_write_header(out.get(), entry.get());
  ::archive_write_data(out.get(), data.data(), data.size());
  if (::archive_write_close(out.get()) != ARCHIVE_OK) {
    throw std::runtime_error(::archive_error_string(out.get()));
  }
  result.resize(used);
  return result;
}

std::string deflated(const std::string& data) {
  z_stream stream{};
  ::deflateInit2(&stream, 1, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY);
  std::string result(::deflateBound(&stream, data.size()), '\0');
  std::vector<Bytef> in(data.begin(), data.end());
  std::vector<Bytef> out(result.size());
  stream.next_in = in.data();
  stream.avail_in = static_cast<uInt>(in.size());
  stream.next_out = out.data();
  stream.avail_out = static_cast<uInt>(out.size());
  ::deflate(&stream, Z_FINISH);
  result.assign(out.begin(), out.begin() + static_cast<std::ptrdiff_t>(stream.total_out));
  ::deflateEnd(&stream);
  return result;
}

std::string readAt(ByteSource& source, std::uint64_t offset, std::size_t size) {
  std::string bytes(size, '\0');
  bytes.resize(source.readAt(offset, bytes.data(), size));
  return bytes;
}

std::string readAll(Decoder& decoder) {
  std::string all, piece(100'000, '\0');
  while (const std::size_t count = decoder.read(piece.data(), piece.size())) {
    all.append(piece, 0, count);
  }
  return all;
}

// The code of the SystemNfsException that `call` throws, 0 when it throws none.
template <class Call>
int errorOf(Call call) {
  try {
    call();
  } catch (const SystemNfsException& e) {
    return e.code().value();
  }
  return 0;
}

// Whether `source` has the bytes of `data` in pieces of 4 KiB, in windows of `window` pieces whose
// order is shuffled.
bool hasInPieces(ByteSource& source, const std::string& data, std::size_t window) {
  std::minstd_rand random(7);
  std::vector<std::size_t> offsets;
  for (std::size_t at = 0; at < data.size(); at += kPiece) offsets.push_back(at);
  for (std::size_t i = 0; i < offsets.size(); i += window) {
    const auto first = offsets.begin() + static_cast<std::ptrdiff_t>(i);
    const auto count = std::min(window, offsets.size() - i);
    std::shuffle(first, first + static_cast<std::ptrdiff_t>(count), random);
  }
  return std::all_of(offsets.begin(), offsets.end(), [&](std::size_t at) {
    return readAt(source, at, kPiece) == data.substr(at, kPiece);
  });
}

bool hasAtRandomOffsets(ByteSource& source, const std::string& data, int count, unsigned seed) {
  std::minstd_rand random(seed);
  for (int i = 0; i < count; ++i) {
    const std::size_t at = random() % data.size();
    const std::size_t size = random() % 300'000;
    if (readAt(source, at, size) != data.substr(at, size)) return false;
  }
  return true;
}

class ArchiveDecodingTest : public ::testing::Test {
 protected:
  std::shared_ptr<FileBytes> fileOf(const std::string& bytes) {
    const std::string path = m_scratch.path() / std::to_string(++m_files);
    std::ofstream(path, std::ios::binary) << bytes;
    return std::make_shared<FileBytes>(path);
  }
  // After its first pass, which has to yield `data`.
  std::shared_ptr<ByteSource> indexed(const std::string& bytes, const std::string& data) {
    const auto file = CompressedFile::open(fileOf(bytes), cache);
    if (!file) throw std::runtime_error("not recognised");
    EXPECT_TRUE(readAll(*file->firstPass()) == data);
    EXPECT_EQ(file->bytesRead(), bytes.size());
    EXPECT_EQ(decoded(), 0U) << "the pass does not count";
    return file->source();
  }
  void limit(std::size_t bytes) { cache = std::make_shared<BlockCache>(bytes); }
  std::uint64_t decoded() const { return cache->statistics().bytesDecoded; }

  std::shared_ptr<BlockCache> cache = std::make_shared<BlockCache>(256_MiB);

 private:
  ScratchDirectory m_scratch;
  int m_files = 0;
};

// A method, and what makes its streams so that they have several places to begin at.
struct Method {
  const char* name;
  const char* option;
  std::size_t streamBytes = std::size_t{1} << 40;
};

class MethodTest : public ArchiveDecodingTest, public ::testing::WithParamInterface<Method> {
 protected:
  static std::string stream(const std::string& data) {
    std::string result;
    for (std::size_t at = 0; at == 0 || at < data.size(); at += GetParam().streamBytes) {
      result +=
          compressed(GetParam().name, data.substr(at, GetParam().streamBytes), GetParam().option);
    }
    return result;
  }
  // Of `data`, made once for all tests, since some methods take their time.
  static const std::string& streamOfData() {
    static std::map<std::string, std::string> made;
    std::string& result = made[GetParam().name];
    if (result.empty()) result = stream(data());
    return result;
  }
  static const std::string& data() {
    static const std::string made = text(5_MiB + 1234);
    return made;
  }
};

TEST_P(MethodTest, StreamsOneAfterTheOtherAndZerosBehindThem) {
  const std::string more = text(700'000, 2);
  const std::string bytes =
      streamOfData() + stream("") + stream("x") + stream(more) + std::string(1024, '\0');
  const std::string all = data() + "x" + more;
  const auto source = indexed(bytes, all);
  EXPECT_TRUE(hasAtRandomOffsets(*source, all, 40, 3));
  EXPECT_EQ(readAt(*source, all.size() - 3, 100), all.substr(all.size() - 3));
  EXPECT_EQ(readAt(*source, all.size(), 100), "");
  EXPECT_EQ(readAt(*source, UINT64_MAX, 100), "");
  EXPECT_STREQ(CompressedFile::open(fileOf(bytes), cache)->method(), GetParam().name);
}

TEST_P(MethodTest, FrontToBackIsDecodedOnce) {
  const std::string& bytes = streamOfData();
  for (const std::size_t window : {1U, 8U}) {
    limit(32_MiB);
    const auto source = indexed(bytes, data());
    EXPECT_TRUE(hasInPieces(*source, data(), window));
    EXPECT_EQ(decoded(), data().size()) << window;
  }
}

TEST_P(MethodTest, SeveralThreadsThatReadOnTogetherDecodeItOnce) {
  const auto source = indexed(streamOfData(), data());
  std::atomic<std::size_t> next = 0;
  std::atomic<bool> isRight = true;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (std::size_t at = 0; (at = next.fetch_add(32_KiB)) < data().size();) {
        if (readAt(*source, at, 32_KiB) != data().substr(at, 32_KiB)) isRight = false;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_TRUE(isRight);
  // A decoder may begin at a point that lies ahead of the one that comes up to it.
  EXPECT_LE(decoded(), data().size() + 1_MiB);
}

TEST_P(MethodTest, ThreadsThatReadAnywhereStayUnderTheLimit) {
  limit(18_MiB);
  const auto source = indexed(streamOfData(), data());
  std::atomic<int> right = 0;
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < 6; ++i) {
    threads.emplace_back([&, i] { right += hasAtRandomOffsets(*source, data(), 8, i) ? 1 : 0; });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(right, 6);
  EXPECT_LE(cache->statistics().mostBytesHeld, cache->limit());
}

TEST_P(MethodTest, ReadingBackwardsBeginsAtTheNearestRestartPoint) {
  const std::string data = text(10_MiB);
  const auto source = indexed(stream(data), data);
  // From far away, so that no block or decoder of the one before is near.
  for (const std::size_t at : {9_MiB, 5_MiB}) {
    const std::uint64_t before = decoded();
    EXPECT_EQ(readAt(*source, at, kPiece), data.substr(at, kPiece));
    EXPECT_LE(decoded() - before, kInterval + 2_MiB) << at;
  }
}

TEST_P(MethodTest, DamageAndTruncationLeaveWhatStandsBefore) {
  const std::string& bytes = streamOfData();
  std::string damaged = bytes;
  std::minstd_rand random(5);
  std::generate_n(damaged.begin() + static_cast<std::ptrdiff_t>(bytes.size() / 2), 200'000,
                  [&] { return static_cast<char>(random() >> 8); });
  for (const std::string& broken : {damaged, bytes.substr(0, bytes.size() / 2)}) {
    const auto file = CompressedFile::open(fileOf(broken), cache);
    const std::unique_ptr<Decoder> pass = file->firstPass();
    EXPECT_EQ(errorOf([&] { readAll(*pass); }), EIO);
    const auto source = file->source();
    const auto whole = [&] { readAt(*source, 0, data().size()); };
    EXPECT_EQ(errorOf(whole), EIO);
    EXPECT_THAT(failureOf(whole), HasSubstr("Cannot decompress ["));
    // Twice: what is known of the damage must not hide what stands before it.
    for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(readAt(*source, 0, 1_MiB), data().substr(0, 1_MiB));
      EXPECT_EQ(readAt(*source, 1'500'000, kPiece), data().substr(1'500'000, kPiece));
      EXPECT_EQ(errorOf([&] { readAt(*source, data().size() - 10, 1); }), EIO);
    }
  }
}

// Of what cannot be checked before the end some may be wrong; it must end, and in one of two ways.
TEST_P(MethodTest, RandomDamageIsAnError) {
  const std::string data = text(60'000);
  const std::string bytes = stream(data) + stream(data);
  std::minstd_rand random(11);
  int failures = 0;
  for (int i = 0; i < 150; ++i) {
    std::string broken = bytes;
    for (int k = 0; k < 3; ++k) {
      broken[8 + random() % (bytes.size() - 8)] = static_cast<char>(random());
    }
    if (i % 3 == 0) broken.resize(8 + random() % (bytes.size() - 8));
    const auto file = CompressedFile::open(fileOf(broken), cache);
    if (!file) continue;
    failures += errorOf([&] { readAll(*file->firstPass()); }) != 0 ? 1 : 0;
    errorOf([&] { readAt(*file->source(), 50'000, 100'000); });
  }
  EXPECT_GT(failures, 75);
}

// A checksum tells only at the end that something before it is wrong; then that end is not served.
TEST_F(ArchiveDecodingTest, AWrongChecksumFailsTheLastBytes) {
  const std::string data = text(200'000);
  for (const auto& [method, fromEnd] : {std::pair{"gzip", 6U}, std::pair{"bzip2", 60U}}) {
    std::string bytes = compressed(method, data);
    bytes[bytes.size() - fromEnd] ^= 1;
    const auto file = CompressedFile::open(fileOf(bytes), cache);
    EXPECT_EQ(errorOf([&] { readAll(*file->firstPass()); }), EIO) << method;
    EXPECT_EQ(errorOf([&] { readAt(*file->source(), data.size() - 1, 1); }), EIO) << method;
  }
}

// At each of them the block would be decoded once more from its beginning.
TEST_F(ArchiveDecodingTest, ABlockFullOfWhatLooksLikeItsEndIsDamaged) {
  std::minstd_rand random(3);
  std::string data(900'000, '\0');
  for (char& c : data) c = static_cast<char>(random() >> 8);
  std::string bytes = compressed("bzip2", data);
  const std::string mark = "\x17\x72\x45\x38\x50\x90";
  for (std::size_t at = bytes.size() / 2; at < bytes.size() - 100; at += mark.size()) {
    bytes.replace(at, mark.size(), mark);
  }
  const auto file = CompressedFile::open(fileOf(bytes), cache);
  EXPECT_THAT(failureOf([&] { readAll(*file->firstPass()); }), HasSubstr("a block is damaged"));
  EXPECT_LT(file->bytesRead(), bytes.size());
}

INSTANTIATE_TEST_SUITE_P(Methods, MethodTest,
                         ::testing::Values(Method{"gzip", "compression-level=1"},
                                           Method{"bzip2", "compression-level=1"},
                                           // Several blocks of a MiB each.
                                           Method{"xz", "compression-level=0,threads=2"},
                                           Method{"zstd", "compression-level=1", 1_MiB}),
                         [](const auto& given) { return std::string(given.param.name); });

TEST_F(ArchiveDecodingTest, ADictionaryThatIsTooLargeIsAnErrorThatNamesTheLimit) {
  limit(4_MiB);
  const std::string data = text(100'000);
  for (const auto& [method, option] : std::vector<std::pair<std::string, std::string>>{
           {"xz", "compression-level=5"}, {"zstd", "compression-level=19"}}) {
    const auto file = CompressedFile::open(fileOf(compressed(method, data, option)), cache);
    const auto read = [&] { readAll(*file->firstPass()); };
    EXPECT_EQ(errorOf(read), ENOMEM) << method;
    EXPECT_THAT(failureOf(read), HasSubstr("may use 4194304. Allow it more")) << method;
  }
}

TEST_F(ArchiveDecodingTest, OnlyCompressedFilesAreOpened) {
  for (const char* other : {"", "BZ", "PK\3\4 a zip file", "plain"}) {
    EXPECT_EQ(CompressedFile::open(fileOf(other), cache), nullptr) << other;
  }
  EXPECT_THAT(failureOf([] { FileBytes("/nowhere/at all"); }),
              HasSubstr("Cannot open [/nowhere/at all]: No such file"));
  EXPECT_THAT(failureOf([] { FileBytes("/dev"); }), HasSubstr("[/dev]: it is not a regular file"));
}

TEST_F(ArchiveDecodingTest, ADeflatedMemberStandsAnywhereInItsFile) {
  const std::string data = text(6_MiB);
  const std::string stream = deflated(data);
  const auto file = fileOf("before" + stream + "behind");
  const auto source = makeDeflatedMember(file, cache, 6, data.size());
  EXPECT_TRUE(hasInPieces(*source, data, 8));
  EXPECT_EQ(decoded(), data.size());
  EXPECT_EQ(readAt(*source, data.size() - 1, 10), data.substr(data.size() - 1));

  // Reading has left restart points.
  limit(2_MiB);
  const auto again = makeDeflatedMember(file, cache, 6, data.size());
  EXPECT_TRUE(hasInPieces(*again, data, 1));
  const std::uint64_t before = decoded();
  EXPECT_EQ(readAt(*again, 5_MiB, 10), data.substr(5_MiB, 10));
  EXPECT_LE(decoded() - before, kInterval);

  const auto shorter = makeDeflatedMember(file, cache, 6, 1000);
  EXPECT_EQ(readAt(*shorter, 0, 5000), data.substr(0, 1000));
  const auto longer = makeDeflatedMember(file, cache, 6, UINT64_MAX);
  EXPECT_EQ(readAt(*longer, data.size() - 5, 5), data.substr(data.size() - 5));
  EXPECT_EQ(errorOf([&] { readAt(*longer, data.size() - 5, 6); }), EIO);
}

// Yields `size` bytes that tell where they stand.
class Counter : public Decoder {
 public:
  explicit Counter(std::uint64_t size, std::uint64_t offset = 0) : m_size(size), m_offset(offset) {}
  static char at(std::uint64_t offset) { return static_cast<char>(offset / kPiece * 37); }

  std::size_t read(void* buffer, std::size_t size) override {
    size = std::min<std::uint64_t>({size, m_size - m_offset, 3 * kPiece - m_offset % kPiece});
    for (std::size_t i = 0; i < size; ++i) static_cast<char*>(buffer)[i] = at(m_offset + i);
    m_offset += size;
    return size;
  }

 protected:
  const std::uint64_t m_size;
  std::uint64_t m_offset;
};

// Its restart points hold `pointBytes` each.
class CounterWithPoints : public Counter {
 public:
  CounterWithPoints(std::uint64_t size, std::size_t pointBytes, std::uint64_t offset = 0)
      : Counter(size, offset), m_pointBytes(pointBytes) {}
  Restart restart() override {
    return {.make =
                [size = m_size, bytes = m_pointBytes, offset = m_offset] {
                  return std::make_unique<CounterWithPoints>(size, bytes, offset);
                },
            .bytes = m_pointBytes};
  }

 private:
  const std::size_t m_pointBytes;
};

bool pieceIsRight(ByteSource& source, std::uint64_t at) {
  return readAt(source, at, kPiece) == std::string(kPiece, Counter::at(at));
}

// Members of one stream, each read by somebody of its own.
TEST_F(ArchiveDecodingTest, SixteenMembersSideBySideKeepTheirDecoders) {
  static constexpr std::size_t kDistance = 4_MiB, kMember = 1_MiB, kDecoder = 300_KiB;
  limit(9_MiB);  // for 16 decoders and a block each, but not for the members
  const auto source = makeDecodedSource(
      cache, [] { return std::make_unique<CounterWithPoints>(16 * kDistance, 1_KiB); }, kDecoder);
  EXPECT_TRUE(pieceIsRight(*source, 16 * kDistance - kPiece));  // which leaves restart points
  const std::uint64_t before = decoded();
  for (std::size_t at = 0; at < kMember; at += kPiece) {
    for (std::size_t member = 0; member < 16; ++member) {
      ASSERT_TRUE(pieceIsRight(*source, member * kDistance + at));
    }
  }
  EXPECT_LE(decoded() - before, 16 * kMember);
  EXPECT_LE(cache->statistics().mostBytesHeld, cache->limit());
}

TEST_F(ArchiveDecodingTest, RestartPointsStandFurtherApartBeforeTheyTakeTooMuch) {
  constexpr std::size_t kLast = 64_MiB - kPiece;
  limit(4_MiB);  // of which five of these points may have a part
  const auto source = makeDecodedSource(
      cache, [] { return std::make_unique<CounterWithPoints>(64_MiB, 90_KiB); }, 100_KiB);
  EXPECT_TRUE(pieceIsRight(*source, kLast));
  for (std::size_t at = kLast - 20_MiB; at > 20_MiB; at -= 20_MiB) {
    const std::uint64_t before = decoded();
    EXPECT_TRUE(pieceIsRight(*source, at));
    EXPECT_LE(decoded() - before, 4 * kInterval + BlockCache::kBlockBytes);
  }
  EXPECT_LE(cache->statistics().mostBytesHeld, cache->limit());
}

TEST_F(ArchiveDecodingTest, SixteenSourcesShareTheLimit) {
  static constexpr std::size_t kMember = 1_MiB;
  limit(5_MiB);
  std::vector<std::shared_ptr<ByteSource>> members;
  for (int i = 0; i < 16; ++i) {
    members.push_back(makeDecodedSource(
        cache, [] { return std::make_unique<Counter>(kMember); }, 100_KiB));
  }
  for (std::size_t at = 0; at < kMember; at += kPiece) {
    for (const auto& member : members) ASSERT_TRUE(pieceIsRight(*member, at));
  }
  EXPECT_EQ(decoded(), 16 * kMember);
  EXPECT_LE(cache->statistics().mostBytesHeld, cache->limit());
  members.clear();
  EXPECT_EQ(cache->statistics().bytesHeld, 0U) << "what goes gives everything back";
}

TEST_F(ArchiveDecodingTest, AReadFarAheadKeepsWhatOthersAskForBehindIt) {
  limit(40_MiB);
  const auto counter = [] { return std::make_unique<Counter>(64_MiB); };
  const auto other = makeDecodedSource(cache, counter, 1_KiB);
  readAt(*other, 0, 64_MiB);
  ASSERT_GT(cache->statistics().bytesHeld, 39_MiB) << "no room is unused";
  const std::uint64_t before = decoded();
  const auto source = makeDecodedSource(cache, counter, 1_KiB);
  for (const std::size_t at : {7_MiB, 6_MiB, 0_MiB, 3_MiB}) EXPECT_TRUE(pieceIsRight(*source, at));
  EXPECT_EQ(decoded() - before, 7_MiB + BlockCache::kBlockBytes);
}

TEST_F(ArchiveDecodingTest, ALimitBelowOneDecoderIsAnError) {
  limit(1_MiB);
  const auto source = makeDecodedSource(
      cache, [] { return std::make_unique<Counter>(1_MiB); }, 1_MiB);
  EXPECT_EQ(errorOf([&] { readAt(*source, 0, 1); }), ENOMEM);
  EXPECT_THAT(failureOf([&] { readAt(*source, 0, 1); }), HasSubstr("may use 1048576"));
  EXPECT_EQ(cache->statistics().bytesHeld, 0U);
}

TEST_F(ArchiveDecodingTest, OneDecodesWhatManyWant) {
  const auto source = makeDecodedSource(
      cache, [] { return std::make_unique<Counter>(8_MiB); }, 1_KiB);
  std::vector<std::thread> threads;
  std::atomic<int> right = 0;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] { right += pieceIsRight(*source, 5_MiB) ? 1 : 0; });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(right, 8);
  EXPECT_EQ(decoded(), 5_MiB + BlockCache::kBlockBytes);
}

TEST_F(ArchiveDecodingTest, AFailureThatMayPassIsTriedAgainAndDamageIsNot) {
  struct Failing : Counter {
    explicit Failing(int& left, bool isDamage)
        : Counter(1_MiB), m_left(left), m_isDamage(isDamage) {}
    std::size_t read(void* buffer, std::size_t size) override {
      if (m_offset >= 200_KiB && m_left > 0) {
        --m_left;
        if (m_isDamage) throw DamagedData("It is damaged.");
        throw SystemNfsException(EIO, "The disk does not answer.");
      }
      return Counter::read(buffer, size);
    }
    int& m_left;
    bool m_isDamage;
  };
  for (const bool isDamage : {false, true}) {
    int left = 2;
    const auto source = makeDecodedSource(
        cache, [&] { return std::make_unique<Failing>(left, isDamage); }, 1_KiB);
    EXPECT_EQ(errorOf([&] { readAt(*source, 0, 1_MiB); }), EIO);
    EXPECT_TRUE(pieceIsRight(*source, 196_KiB)) << "before the damage";
    EXPECT_EQ(errorOf([&] { readAt(*source, 800_KiB, 1); }), isDamage ? EIO : 0);
    EXPECT_EQ(left, isDamage ? 1 : 0);
  }
}

// As a libarchive reader over a compressed file does.
TEST_F(ArchiveDecodingTest, ASourceMayReadFromAnotherOfTheSameCache) {
  struct Over : Decoder {
    explicit Over(std::shared_ptr<ByteSource> source) : m_source(std::move(source)) {}
    std::size_t read(void* buffer, std::size_t size) override {
      const std::size_t count = m_source->readAt(m_offset, buffer, size);
      m_offset += count;
      return count;
    }
    std::shared_ptr<ByteSource> m_source;
    std::uint64_t m_offset = 0;
  };
  limit(2_MiB);
  const auto inner = makeDecodedSource(
      cache, [] { return std::make_unique<Counter>(4_MiB); }, 100_KiB);
  const auto outer = makeDecodedSource(
      cache, [&] { return std::make_unique<Over>(inner); }, 400_KiB);
  std::vector<std::thread> threads;
  std::atomic<int> wrong = 0;
  for (std::size_t i = 0; i < 6; ++i) {
    threads.emplace_back([&, i] {
      for (std::size_t k = 0; k < 8; ++k) {
        // Where all memory is busy a read may fail; it must not wait for itself, nor be wrong.
        const int error = errorOf([&] {
          if (!pieceIsRight(*outer, ((i * 7 + k * 5) % 32) * 128_KiB)) ++wrong;
        });
        if (error != 0 && error != ENOMEM) ++wrong;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_LE(cache->statistics().mostBytesHeld, cache->limit());
}

}  // namespace

}  // namespace nfslib
