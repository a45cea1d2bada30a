#include "model/tree_model.h"

#include <algorithm>
#include <functional>
#include <utility>

#include <unistd.h>

namespace nfslib::testing::model {

std::string Node::path() const {
  if (isGone()) return "(removed " + str(handle) + ")";
  const Place& place = places.front();
  if (place.dir == nullptr) return "";
  return place.dir->path() + "/" + place.name;
}

Node* find(const Node& dir, const std::string& name) {
  const auto at = dir.entries.find(name);
  return at == dir.entries.end() ? nullptr : at->second.get();
}

bool isEntryName(const std::string& name) {
  constexpr std::size_t kLongest = 255;
  return !name.empty() && name.size() <= kLongest && name != "." && name != ".." &&
         name.find_first_of(std::string("/\0", 2)) == std::string::npos;
}

bool isAtOrBelow(const Node& node, const Node& top) {
  const Node* at = &node;
  while (at != nullptr && at != &top) at = at->isGone() ? nullptr : at->places.front().dir;
  return at != nullptr;
}

std::shared_ptr<Node> Tree::make(FileType type) const {
  auto node = std::make_shared<Node>();
  node->type = type;
  node->mode = type == FileType::Regular ? 0644 : type == FileType::Directory ? 0755 : 0777;
  node->uid = ::geteuid();
  node->gid = ::getegid();
  node->modifyTime = m_now;
  return node;
}

unsigned Tree::add(Node& dir, const std::string& name, const std::shared_ptr<Node>& node,
                   unsigned refusal) {
  if (dir.isGone()) return kStale;
  if (!dir.is(FileType::Directory) || !isEntryName(name) || find(dir, name)) return refusal;
  attach(dir, name, node);
  return kOk;
}

unsigned Tree::remove(Node& dir, const std::string& name, unsigned whenNotEmpty) {
  if (dir.isGone()) return kStale;
  Node* node = find(dir, name);
  if (node == nullptr) return kNoEntry;
  if (!node->entries.empty()) {
    node->accessTime = {};  // to know, somebody had to look
    return whenNotEmpty;
  }
  detach(dir, name);
  return kOk;
}

Tree::Renamed Tree::rename(Node& from, const std::string& name, Node& to,
                           const std::string& newName) {
  if (from.isGone() || to.isGone()) return {kStale, "by an old handle"};
  Node* moved = find(from, name);
  if (moved == nullptr) return {kNoEntry, "of nothing"};
  if (!to.is(FileType::Directory)) return {kNoEntry, "into a file"};
  if (!isEntryName(newName)) return {kNoEntry, "to no name"};
  const bool isDirectory = moved->is(FileType::Directory);
  const Node* existing = find(to, newName);
  if (existing == moved) {
    return {kOk, &from == &to && name == newName ? "onto itself" : "over a name of the same file"};
  }
  if (isDirectory && isAtOrBelow(to, *moved)) return {kNoEntry, "into itself"};
  if (existing && existing->is(FileType::Directory) != isDirectory)
    return {kNoEntry, isDirectory ? "of a directory over a file" : "of a file over a directory"};
  if (existing && !existing->entries.empty()) return {kNoEntry, "over a directory with entries"};

  const bool movesEntries = &from != &to && !moved->entries.empty();
  const char* how = !isDirectory    ? "of a file"
                    : !movesEntries ? "of a directory"
                                    : "of a directory with entries to another";
  if (existing) {
    how = isDirectory ? "over an empty directory" : "over a file";
    detach(to, newName);
  }
  attach(to, newName, detach(from, name));
  // A directory that got another parent may count that as a change.
  if (isDirectory && &from != &to) moved->modifyTime = {};
  return {kOk, how};
}

unsigned Tree::write(Node& file, std::size_t offset, const std::string& data) {
  if (file.isGone()) return kStale;
  if (data.empty()) return kOk;
  if (!file.is(FileType::Regular)) return kGarbageCall;
  file.content.resize(std::max(file.content.size(), offset + data.size()));
  file.content.replace(offset, data.size(), data);
  file.modifyTime = m_now;
  return kOk;
}

void Tree::apply(const SetAttributes& wanted, Node& node) {
  const auto set = [](TimeRange& range, const SetAttributes::Time& time) {
    if (time.how == SetAttributes::How::ServerTime) range = {};
    if (time.how == SetAttributes::How::ClientTime) range = {time.seconds, time.seconds};
  };
  node.mode = wanted.mode.value_or(node.mode) & 0xFFFFU;
  node.uid = wanted.uid.value_or(node.uid);
  node.gid = wanted.gid.value_or(node.gid);
  if (wanted.size) node.content.resize(*wanted.size);
  set(node.accessTime, wanted.accessTime);
  set(node.modifyTime, wanted.modifyTime);
}

std::shared_ptr<Node> Tree::detach(Node& dir, const std::string& name) {
  std::shared_ptr<Node> node = std::move(dir.entries.extract(name).mapped());
  std::erase(node->places, Node::Place{&dir, name});
  dir.modifyTime = m_now;
  return node;
}

void Tree::attach(Node& dir, const std::string& name, const std::shared_ptr<Node>& node) {
  dir.entries[name] = node;
  node->places.push_back({&dir, name});
  dir.modifyTime = m_now;
}

std::string describe(FileType type, unsigned mode, unsigned names, const std::string& content) {
  std::string text =
      "type " + std::to_string(static_cast<unsigned>(type)) + ", mode " + std::to_string(mode);
  if (type == FileType::Directory) return text;
  // Contents are compared by size and hash: a failure has to be readable.
  return text + ", names " + std::to_string(names) + ", size " + std::to_string(content.size()) +
         ", content " + std::to_string(std::hash<std::string>{}(content));
}

void paint(const Node& dir, const std::string& path, Picture& picture) {
  for (const auto& [name, node] : dir.entries) {
    const std::string place = path + "/" + name;
    picture[place] =
        describe(node->type, node->mode, static_cast<unsigned>(node->places.size()), node->content);
    if (node->is(FileType::Directory)) paint(*node, place, picture);
  }
}

}  // namespace nfslib::testing::model
