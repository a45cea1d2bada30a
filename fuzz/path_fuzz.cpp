// NfsPath: the canonical form, whatever the text, and the arithmetic on it.

#include <nfslib/nfs_path.h>

#include "check.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace {

using nfslib::NfsPath;

void checkCanonical(const NfsPath& path) {
  const std::string& text = path.str();
  FUZZ_CHECK(!text.empty() && text.front() == '/');
  FUZZ_CHECK(text.size() == 1 || text.back() != '/');
  const std::vector<std::string_view> nodes = path.nodes();
  FUZZ_CHECK(nodes.empty() == path.isRootPath());
  for (const std::string_view node : nodes) {
    FUZZ_CHECK(!node.empty() && node != "." && node != "..");
    FUZZ_CHECK(node.find('/') == std::string_view::npos);
  }
  FUZZ_CHECK(NfsPath(text) == path);
  FUZZ_CHECK(NfsPath(nodes) == path);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // The first line is a path, the rest a name under it.
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::size_t split = std::min(input.find('\n'), input.size());
  const std::string text(input.substr(0, split));
  const std::string name(input.substr(std::min(split + 1, input.size())));

  const NfsPath path(text);
  checkCanonical(path);
  const NfsPath parent = path.getParentPath();
  checkCanonical(parent);
  FUZZ_CHECK(parent.str().size() <= path.str().size());
  FUZZ_CHECK(path.isRootPath() || parent / path.getFileName() == path);
  FUZZ_CHECK(path.isRootPath() == path.getFileName().empty());

  const NfsPath joined = path / name;
  checkCanonical(joined);
  FUZZ_CHECK(joined == NfsPath(path.str() + "/" + name));
  FUZZ_CHECK(!(joined < path && path < joined));
  return 0;
}
