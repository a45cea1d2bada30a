// Runs a fuzz target over files, without libFuzzer:
//
//   TARGET FILE_OR_DIRECTORY...
//
// Of each file every beginning is run as well: input that ends early is what decoders get wrong.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

constexpr std::size_t kPrefixes = 512;  // of one file, at most

void replay(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  const std::vector<char> content{std::istreambuf_iterator<char>(in), {}};
  const std::size_t step = std::max<std::size_t>(1, content.size() / kPrefixes);
  for (std::size_t size = 0; size <= content.size(); size += step) {
    // A copy of that very size, so that a sanitizer sees the first byte beyond it.
    const std::vector<std::uint8_t> bytes(content.begin(),
                                          content.begin() + static_cast<std::ptrdiff_t>(size));
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  const std::vector<std::uint8_t> bytes(content.begin(), content.end());
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
  int files = 0;
  for (int i = 1; i < argc; ++i) {
    if (std::filesystem::is_directory(argv[i])) {
      for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
        replay(entry.path());
        ++files;
      }
    } else if (std::filesystem::is_regular_file(argv[i])) {
      replay(argv[i]);
      ++files;
    }
  }
  std::printf("replayed %d files\n", files);
  if (files == 0) std::fputs("no input: give files or directories\n", stderr);
  return files == 0 ? 1 : 0;
}
