#include <nfslib/nfs_path.h>

#include <algorithm>
#include <ostream>
#include <utility>

namespace nfslib {

namespace {

constexpr char kDelimiter = '/';

std::vector<std::string_view> split(std::string_view text) {
  std::vector<std::string_view> nodes;
  if (text.empty() || text == "/") return nodes;
  nodes.reserve(static_cast<std::size_t>(std::count(text.begin(), text.end(), kDelimiter)) + 1);
  for (std::size_t start = 0; start <= text.size();) {
    const std::size_t stop = std::min(text.find(kDelimiter, start), text.size());
    const std::string_view node = text.substr(start, stop - start);
    start = stop + 1;
    if (node.empty() || node == ".") continue;
    if (node != "..") {
      nodes.push_back(node);
    } else if (!nodes.empty()) {
      nodes.pop_back();
    }
  }
  return nodes;
}

std::string join(const std::vector<std::string_view>& nodes) {
  if (nodes.empty()) return {kDelimiter};
  std::size_t length = 0;
  for (const std::string_view node : nodes) length += node.size() + 1;
  std::string path;
  path.reserve(length);
  for (const std::string_view node : nodes) (path += kDelimiter) += node;
  return path;
}

// A name that adds one level and needs no second look: almost every name of every request.
bool isPlainComponent(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find(kDelimiter) == name.npos;
}

}  // namespace

NfsPath::NfsPath(const std::string& text) : m_path(join(split(text))) {}

NfsPath::NfsPath(const std::vector<std::string_view>& nodes) : m_path(join(nodes)) {}

bool NfsPath::isAtOrBelow(const NfsPath& top) const {
  if (top.isRootPath()) return true;
  const std::size_t length = top.m_path.size();
  return m_path.starts_with(top.m_path) &&
         (m_path.size() == length || m_path[length] == kDelimiter);
}

std::vector<std::string_view> NfsPath::nodes() const { return split(m_path); }

NfsPath NfsPath::getParentPath() const {
  const std::size_t last = m_path.rfind(kDelimiter);
  return last == 0 ? NfsPath(Canonical{}, "/") : NfsPath(Canonical{}, m_path.substr(0, last));
}

std::string NfsPath::getFileName() const { return m_path.substr(m_path.rfind(kDelimiter) + 1); }

std::string NfsPath::addEndingDelimIfNeeded(std::string&& s) {
  if (s.empty() || s.back() != kDelimiter) s += kDelimiter;
  return std::move(s);
}

std::string NfsPath::remoteFrontDelimIfExists(std::string&& s) {
  if (!s.empty() && s.front() == kDelimiter) s.erase(0, 1);
  return std::move(s);
}

NfsPath operator/(const NfsPath& dir, const std::string& name) {
  if (isPlainComponent(name)) {
    std::string path;
    path.reserve(dir.str().size() + 1 + name.size());
    if (!dir.isRootPath()) path = dir.str();
    (path += kDelimiter) += name;
    return {NfsPath::Canonical{}, std::move(path)};
  }
  return NfsPath(NfsPath::addEndingDelimIfNeeded(std::string(dir.str())) +
                 NfsPath::remoteFrontDelimIfExists(std::string(name)));
}

std::ostream& operator<<(std::ostream& out, const NfsPath& path) { return out << path.str(); }

}  // namespace nfslib
