#include "archive/compressed_file.h"

#include <nfslib/exception.h>

#include "archive/decoded_source.h"
#include "archive/restart_points.h"
#include "archive/stream_decoder.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

namespace nfslib::hosts::archive {

namespace {

struct Method {
  const char* name;
  std::string_view begins;
  std::unique_ptr<StreamDecoder> (*make)(std::shared_ptr<FileBytes>, NeedMemory);
};

using namespace std::string_view_literals;
constexpr std::array kMethods{
    Method{"gzip", "\x1f\x8b\x08"sv, makeGzipDecoder},
    Method{"bzip2", "BZh"sv, makeBzip2Decoder},
    Method{"xz",
           "\xfd"
           "7zXZ\0"sv,
           makeXzDecoder},
    Method{"zstd", "\x28\xb5\x2f\xfd"sv, makeZstdDecoder},
};
// A frame of zstd that is to be skipped may be the first, with any low four bits.
constexpr std::string_view kSkippable = "\x2a\x4d\x18"sv;

const Method* methodOf(FileBytes& file) {
  std::array<char, 6> bytes{};
  const std::string_view first(bytes.data(), file.readAt(0, bytes.data(), bytes.size()));
  for (const Method& method : kMethods) {
    if (first.starts_with(method.begins)) return &method;
  }
  const bool isSkippable = first.size() > 4 && (static_cast<unsigned char>(first[0]) >> 4) == 5 &&
                           first.substr(1).starts_with(kSkippable);
  return isSkippable ? &kMethods.back() : nullptr;
}

// What the decoders of one file need. The first pass finds out; it holds that much meanwhile.
class DecoderMemory {
 public:
  DecoderMemory(std::shared_ptr<BlockCache> cache, std::string shown)
      : m_cache(std::move(cache)), m_shown(std::move(shown)) {}

  void need(std::uint64_t bytes) {
    const std::lock_guard lock(m_lock);
    if (bytes <= m_most) return;
    if (!m_isFirstPass) {
      throw SystemNfsException(EIO, "Cannot decompress " + m_shown +
                                        ": it was changed while it was in use. Open it again.");
    }
    if (bytes > m_cache->largestDecoder()) {
      throw SystemNfsException(
          ENOMEM, "Cannot decompress " + m_shown + ": that takes " + std::to_string(bytes) +
                      " bytes of memory, and an archive may use " +
                      std::to_string(m_cache->limit()) + ". Allow it more, at least " +
                      std::to_string(bytes + bytes / 4 + (std::uint64_t{1} << 20)) + ".");
    }
    m_held = {};
    m_held = m_cache->reserve(static_cast<std::size_t>(bytes));
    m_most = static_cast<std::size_t>(bytes);
  }

  void beginFirstPass() {
    const std::lock_guard lock(m_lock);
    m_isFirstPass = true;
  }
  void endFirstPass() {
    const std::lock_guard lock(m_lock);
    m_isFirstPass = false;
    m_held = {};
  }
  std::size_t most() const {
    const std::lock_guard lock(m_lock);
    return m_most;
  }

 private:
  const std::shared_ptr<BlockCache> m_cache;
  const std::string m_shown;
  // Guards what follows; the cache's lock is taken under it, and during the pass memory waited for,
  // which only readers of other sources hold then.
  mutable std::mutex m_lock;
  bool m_isFirstPass = false;
  std::size_t m_most = 0;
  BlockCache::Reservation m_held;
};

class FirstPass : public Decoder {
 public:
  FirstPass(std::unique_ptr<StreamDecoder> decoder, std::shared_ptr<RestartPoints> points,
            std::shared_ptr<DecoderMemory> memory,
            std::shared_ptr<std::atomic<std::uint64_t>> bytesRead)
      : m_points(std::move(points)),
        m_memory(std::move(memory)),
        m_bytesRead(std::move(bytesRead)),
        m_decoder(std::move(decoder)) {}
  FirstPass(const FirstPass&) = delete;
  FirstPass& operator=(const FirstPass&) = delete;
  ~FirstPass() override {
    m_decoder.reset();
    m_memory->endFirstPass();
  }

  std::size_t read(void* buffer, std::size_t size) override {
    const std::size_t count =
        m_decoder->read(buffer, std::min<std::uint64_t>(size, m_points->untilNext(m_offset)));
    m_offset += count;
    if (count > 0) m_points->offer(m_offset, *m_decoder);
    m_bytesRead->store(m_decoder->inputOffset(), std::memory_order_relaxed);
    return count;
  }

 private:
  const std::shared_ptr<RestartPoints> m_points;
  const std::shared_ptr<DecoderMemory> m_memory;
  const std::shared_ptr<std::atomic<std::uint64_t>> m_bytesRead;
  std::unique_ptr<StreamDecoder> m_decoder;
  std::uint64_t m_offset = 0;
};

}  // namespace

struct CompressedFile::Impl {
  const Method& method;
  std::shared_ptr<BlockCache> cache;
  std::shared_ptr<DecoderMemory> memory;
  std::function<std::unique_ptr<StreamDecoder>()> make;
  std::shared_ptr<RestartPoints> points;
  std::shared_ptr<std::atomic<std::uint64_t>> bytesRead =
      std::make_shared<std::atomic<std::uint64_t>>(0);
};

std::unique_ptr<CompressedFile> CompressedFile::open(std::shared_ptr<FileBytes> file,
                                                     std::shared_ptr<BlockCache> cache) {
  const Method* const method = methodOf(*file);
  if (method == nullptr) return nullptr;
  auto memory = std::make_shared<DecoderMemory>(cache, file->shown());
  auto make = [file, memory, method] {
    return method->make(file, [memory](std::uint64_t bytes) { memory->need(bytes); });
  };
  auto points = std::make_shared<RestartPoints>(cache, make);
  return std::unique_ptr<CompressedFile>(
      new CompressedFile(std::make_unique<Impl>(Impl{.method = *method,
                                                     .cache = std::move(cache),
                                                     .memory = std::move(memory),
                                                     .make = std::move(make),
                                                     .points = std::move(points)})));
}

CompressedFile::CompressedFile(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}

CompressedFile::~CompressedFile() = default;

const char* CompressedFile::method() const { return m_impl->method.name; }

std::unique_ptr<Decoder> CompressedFile::firstPass() {
  m_impl->memory->beginFirstPass();
  return std::make_unique<FirstPass>(m_impl->make(), m_impl->points, m_impl->memory,
                                     m_impl->bytesRead);
}

std::uint64_t CompressedFile::bytesRead() const {
  return m_impl->bytesRead->load(std::memory_order_relaxed);
}

std::shared_ptr<ByteSource> CompressedFile::source() {
  return makeDecodedSource(m_impl->cache, m_impl->points, m_impl->memory->most());
}

}  // namespace nfslib::hosts::archive
