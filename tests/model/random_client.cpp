#include "model/random_client.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <iterator>
#include <set>
#include <sstream>
#include <utility>

namespace nfslib::testing::model {

namespace {

constexpr std::array kNames{"a", "b", "c", "d", "e", "f"};
constexpr std::size_t kFewNodes = 25, kManyNodes = 45;
constexpr unsigned kLargePage = 32'768;  // holds what all clients share at once

const std::vector<std::string>& refusedNames() {
  static const std::vector<std::string> names{
      "", ".", "..", "a/b", "/", "../a", std::string("a\0b", 3), std::string(256, 'n')};
  return names;
}

std::uint32_t secondsNow() {
  using namespace std::chrono;
  return static_cast<std::uint32_t>(
      duration_cast<seconds>(system_clock::now().time_since_epoch()).count());
}

template <class... Words>
[[noreturn]] void fail(const Words&... words) {
  std::ostringstream text;
  (text << ... << words);
  throw std::runtime_error(text.str());
}

template <class Got, class Wanted>
void same(const char* what, const Got& got, const Wanted& wanted) {
  if (got != wanted) fail(what, " is ", got, " instead of ", wanted);
}

void within(const char* what, std::uint32_t got, const TimeRange& wanted) {
  if (got >= wanted.least && got <= wanted.most) return;
  fail(what, " is ", got, " instead of ", wanted.least, " to ", wanted.most);
}

void sameContent(const std::string& got, const std::string& wanted) {
  if (got == wanted) return;
  const auto differ = std::mismatch(got.begin(), got.end(), wanted.begin(), wanted.end());
  fail(got.size(), " bytes instead of ", wanted.size(), ", from byte ", differ.first - got.begin(),
       " on other ones");
}

}  // namespace

std::span<const RandomClient::Operation> RandomClient::operations() {
  using It = RandomClient&;
  using Statuses = std::vector<unsigned>;
  constexpr bool kGrows = true, kStays = false;
  const Statuses any{kOk, kStale}, named{kOk, kNoEntry, kStale}, created{kOk, kExists, kStale},
      emptied{kOk, kNoEntry, kNotEmpty, kStale}, ofOneType{kOk, kStale, kGarbageCall};
  static const std::vector<Operation> table{
      {"LOOKUP", 8, kStays, named, [](It it) { return it.lookup(); }},
      {"GETATTR", 10, kStays, any,
       [](It it) { return it.getAttributes(it.m_client, *it.pickNode()); }},
      {"SETATTR", 10, kStays, any, [](It it) { return it.setAttributes(); }},
      {"CREATE", 16, kGrows, created, [](It it) { return it.create(FileType::Regular); }},
      {"MKDIR", 8, kGrows, created, [](It it) { return it.create(FileType::Directory); }},
      {"SYMLINK", 8, kGrows, created, [](It it) { return it.create(FileType::SymbolicLink); }},
      {"LINK", 12, kGrows, named, [](It it) { return it.link(); }},
      {"WRITE", 10, kStays, ofOneType, [](It it) { return it.write(); }},
      {"READ", 7, kStays, ofOneType, [](It it) { return it.read(); }},
      {"COMMIT", 10, kStays, any, [](It it) { return it.commit(); }},
      {"REMOVE", 8, kStays, named, [](It it) { return it.remove(false); }},
      {"RMDIR", 7, kStays, emptied, [](It it) { return it.remove(true); }},
      {"RENAME", 24, kStays, named, [](It it) { return it.rename(); }},
      {"READDIR", 6, kStays, ofOneType,
       [](It it) { return it.list(it.m_client, it.pickDirectory(), false); }},
      {"READDIRPLUS", 6, kStays, ofOneType,
       [](It it) { return it.list(it.m_client, it.pickDirectory(), true); }},
      {"READLINK", 6, kStays, ofOneType, [](It it) { return it.readLink(); }},
  };
  return table;
}

RandomClient::RandomClient(const ClientSetup& setup)
    : m_setup(setup),
      m_random(setup.seed),
      m_client(setup.port),
      m_other(setup.port),
      m_tree(secondsNow() - 1),  // file systems read a coarser clock
      m_exportRoot(m_tree.make(FileType::Directory)) {
  m_exportRoot->places.push_back({});
  m_exportRoot->handle = m_client.mount(setup.exportPath);
  m_own = m_exportRoot;
  if (setup.name.empty()) {
    m_own->mode = checked(m_client.getAttributes(m_own->handle)).attributes.mode;
  } else {
    const auto adopt = [&](const std::string& name, const Nfs3Reply& reply) {
      auto node = m_tree.make(FileType::Directory);
      node->handle = checked(reply).handle;
      m_tree.add(*m_exportRoot, name, node, kExists);
      return node;
    };
    m_shared = adopt("shared", m_client.lookup(m_own->handle, "shared"));
    m_own = adopt(setup.name, m_client.makeDirectory(m_own->handle, setup.name, {}));
  }
  m_nodes.push_back(m_own);
}

void RandomClient::run(unsigned operations) {
  for (const unsigned last = m_number + operations; m_number != last; ++m_number) {
    const Operation& operation = pickOperation();
    m_operation.clear();
    try {
      const unsigned status = operation.run(*this);
      ++m_tally[std::string(operation.name) + " " + std::to_string(status)];
      sortOut();
    } catch (const std::exception& e) {
      fail("seed ", m_setup.seed, ", operation ", m_number, ", ", operation.name, " ", m_operation,
           ": ", e.what());
    }
  }
}

Picture RandomClient::expected() const {
  Picture picture;
  paint(*m_exportRoot, "", picture);
  return picture;
}

Picture RandomClient::seen(Nfs3Client& client, const NfsHandle& dir, const std::string& path) {
  Picture picture;
  for (const Nfs3Entry& entry : client.list(dir, kLargePage).entries) {
    if (entry.name == "." || entry.name == "..") continue;
    const std::string place = path + "/" + entry.name;
    const auto type = static_cast<FileType>(entry.attributes.type);
    std::string content;
    if (type == FileType::Directory) {
      picture.merge(seen(client, entry.handle, place));
    } else if (type == FileType::SymbolicLink) {
      content = checked(client.readLink(entry.handle)).data;
    } else {
      content =
          checked(client.read(entry.handle, 0, static_cast<unsigned>(entry.attributes.size))).data;
    }
    picture[place] =
        model::describe(type, entry.attributes.mode, entry.attributes.linkCount, content);
  }
  return picture;
}

// ---- Choosing

const RandomClient::Operation& RandomClient::pickOperation() {
  const auto table = operations();
  unsigned total = 0;
  for (const Operation& row : table) total += row.weight;
  for (;;) {
    unsigned left = roll(total);
    auto row = table.begin();
    for (; left >= row->weight; ++row) left -= row->weight;
    // Large trees mostly stay as they are and small ones mostly grow, so that names collide.
    const bool isUnwanted = row->grows ? m_nodes.size() > kManyNodes : m_nodes.size() < kFewNodes;
    if (!isUnwanted || oneIn(4)) return *row;
  }
}

const std::shared_ptr<Node>& RandomClient::pickNode() {
  if (m_gone.empty() || !oneIn(12)) return m_nodes[roll(static_cast<unsigned>(m_nodes.size()))];
  // Mostly one whose name a successor may have by now.
  const auto recent = std::min(m_gone.size(), std::size_t{oneIn(4) ? 1000U : 8U});
  return m_gone[m_gone.size() - 1 - roll(static_cast<unsigned>(recent))];
}

Node& RandomClient::pick(FileType usual) {
  for (int tries = 0; tries < 10; ++tries) {
    Node& node = *pickNode();
    if (node.is(usual) || node.isGone() || oneIn(5)) return node;
  }
  return *m_own;
}

std::string RandomClient::pickName(Node& dir) {
  if (&dir == m_shared.get()) return m_setup.name + kNames[roll(kNames.size())];
  if (oneIn(15)) return refusedNames()[roll(static_cast<unsigned>(refusedNames().size()))];
  if (!dir.entries.empty() && oneIn(4)) {
    return std::next(dir.entries.begin(), roll(static_cast<unsigned>(dir.entries.size())))->first;
  }
  return kNames[roll(kNames.size())];
}

Node::Place RandomClient::pickNewPlace() {
  Node& dir = pickDirectory();
  return {&dir, pickName(dir)};
}

Node::Place RandomClient::pickPlace() {
  const auto& node = pickNode();
  if (node->isGone()) return {node.get(), pickName(*node)};
  if (node == m_own || oneIn(4)) return pickNewPlace();
  return node->places[roll(static_cast<unsigned>(node->places.size()))];
}

SetAttributes RandomClient::pickAttributes(FileType type) {
  const auto time = [&] {
    constexpr std::array kHow{SetAttributes::How::ServerTime, SetAttributes::How::ClientTime};
    SetAttributes::Time chosen;
    if (oneIn(3)) chosen = {kHow[roll(2)], 1'000'000'000 + roll(400'000'000)};
    return chosen;
  };
  SetAttributes wanted;
  wanted.accessTime = time();
  wanted.modifyTime = time();
  const auto owner = [&] { return 1000 + roll(4); };
  if (m_setup.setsOwners && oneIn(4)) wanted.uid = owner();
  if (m_setup.setsOwners && oneIn(4)) wanted.gid = owner();
  if (type == FileType::SymbolicLink) return wanted;  // not every system gives those a mode
  // Bits above the 16 that there are fall away.
  if (oneIn(2)) wanted.mode = roll(01000) | (oneIn(4) ? 0x3'0000U : 0U);
  if (type == FileType::Regular && oneIn(3)) wanted.size = oneIn(4) ? 0 : pickOffset();
  return wanted;
}

// ---- Operations

unsigned RandomClient::create(FileType type) {
  const Node::Place place = pickNewPlace();
  Node& dir = *place.dir;
  const auto node = m_tree.make(type);
  const unsigned how = roll(3);
  SetAttributes wanted = pickAttributes(type);
  const bool isExclusive = type == FileType::Regular && how == 2;
  if (isExclusive) wanted = {};
  Tree::apply(wanted, *node);
  bool isPossible = true;
  if (type == FileType::SymbolicLink) {
    constexpr std::array kTargets{"a", "../b", "/etc/passwd", "nowhere at all", ""};
    node->content = kTargets[roll(kTargets.size())];
    isPossible = !node->content.empty();
  }
  describe("in " + dir.path() + " of " + place.name);

  const MetaData before = hostAttributes(dir);
  const unsigned status = isPossible     ? m_tree.add(dir, place.name, node, kExists)
                          : dir.isGone() ? kStale
                                         : kExists;
  const Nfs3Reply reply = type == FileType::Regular
                              ? m_client.create(dir.handle, place.name, how, wanted)
                          : type == FileType::Directory
                              ? m_client.makeDirectory(dir.handle, place.name, wanted)
                              : m_client.makeSymlink(dir.handle, place.name, wanted, node->content);
  same("status", reply.status, status);
  if (status == kOk) {
    node->handle = reply.handle;
    // An id that was used before would let a handle of then lead to the object of now.
    for (const auto* known : {&m_nodes, &m_gone}) {
      for (const auto& other : *known) {
        if (other->handle == reply.handle) fail("a handle is given out again");
      }
    }
    compare(reply.attributes, *node);
    if (wanted.size && !wanted.setsModifyTime()) m_tree.resized(*node);
    m_nodes.push_back(node);
  }
  if (status != kStale) compare(reply.wcc, dir, before);
  confirm(dir, place.name, status == kOk ? node.get() : nullptr);
  return status;
}

unsigned RandomClient::link() {
  std::shared_ptr<Node> file = pickNode();
  for (int tries = 0; !file->is(FileType::Regular) && tries < 5; ++tries) file = pickNode();
  const Node::Place place = pickNewPlace();
  Node& dir = *place.dir;
  describe("of " + file->path() + " as " + dir.path() + "/" + place.name);

  const MetaData before = hostAttributes(dir);
  const unsigned status = file->isGone() || dir.isGone() ? kStale
                          : !file->is(FileType::Regular)
                              ? kNoEntry
                              : m_tree.add(dir, place.name, file, kNoEntry);
  const Nfs3Reply reply = m_client.link(file->handle, dir.handle, place.name);
  same("status", reply.status, status);
  if (status != kStale) {
    compareFresh(reply.attributes, *file);
    compare(reply.wcc, dir, before);
  }
  confirm(dir, place.name, file.get());
  return status;
}

unsigned RandomClient::setAttributes() {
  Node& node = *pickNode();
  const SetAttributes wanted = pickAttributes(node.type);
  describe("of " + node.path());

  const MetaData before = hostAttributes(node);
  const unsigned status = node.isGone() ? kStale : kOk;
  // No change time guards anything here, least of all one that is wrong.
  const auto guard = oneIn(3) ? std::optional<std::uint32_t>(12345) : std::nullopt;
  const Nfs3Reply reply = m_client.setAttributes(node.handle, wanted, guard);
  same("status", reply.status, status);
  if (status != kOk) return status;
  const bool isResized = wanted.size && *wanted.size != node.content.size();
  Tree::apply(wanted, node);
  same("size before", reply.wcc.before.size, before.size);
  same("change time before", reply.wcc.before.changeTime, before.changeTime);
  compare(reply.wcc.after, node);
  if (isResized && !wanted.setsModifyTime()) m_tree.resized(node);
  const Node::Place place = node.places.front();
  if (&node == m_own.get()) {
    getAttributes(m_other, node);
  } else {
    confirm(*place.dir, place.name, &node);
  }
  return status;
}

unsigned RandomClient::write() {
  Node& node = pick(FileType::Regular);
  const unsigned offset = oneIn(3) ? static_cast<unsigned>(node.content.size()) : pickOffset();
  std::string data(oneIn(10) ? 0 : 1 + pickOffset() / 4, '\0');
  for (char& byte : data) byte = static_cast<char>(m_random());
  const unsigned stable = roll(3);
  describe(node.path() + ", " + std::to_string(data.size()) + " bytes at " +
           std::to_string(offset));

  const MetaData before = hostAttributes(node);
  const unsigned status = m_tree.write(node, offset, data);
  const Nfs3Reply reply = m_client.write(node.handle, offset, data, stable);
  same("status", reply.status, status);
  if (status != kOk) return status;
  compare(reply.wcc, node, before);
  same("count", reply.count, data.size());
  same("committed", reply.committed, stable);
  same("verifier", reply.verifier, 0U);
  // By another name, where there is one.
  const Node::Place place = node.places.back();
  if (place.dir != nullptr && &node != m_own.get()) confirm(*place.dir, place.name, &node);
  return status;
}

unsigned RandomClient::read() {
  Node& node = pick(FileType::Regular);
  const unsigned offset = oneIn(2) ? 0 : pickOffset();
  const unsigned count = 2 * pickOffset();
  describe(node.path() + ", " + std::to_string(count) + " bytes at " + std::to_string(offset));

  node.accessTime = {};
  const std::uint64_t size = hostAttributes(node).size;  // directories have one as well
  const std::uint64_t length = offset < size ? std::min<std::uint64_t>(count, size - offset) : 0;
  const unsigned status = node.isGone()                               ? kStale
                          : node.is(FileType::Regular) || length == 0 ? kOk
                                                                      : kGarbageCall;
  const Nfs3Reply reply = m_client.read(node.handle, offset, count);
  same("status", reply.status, status);
  if (status != kOk) return status;
  compareFresh(reply.attributes, node);
  same("end of file", reply.eof, offset + std::uint64_t{count} >= size);
  same("count", reply.count, length);
  sameContent(reply.data, length == 0 ? "" : node.content.substr(offset, length));
  return status;
}

unsigned RandomClient::commit() {
  Node& node = *pickNode();
  describe(node.path());
  const MetaData before = hostAttributes(node);
  const Nfs3Reply reply = m_client.commit(node.handle, roll(1000), roll(1000));
  same("status", reply.status, node.isGone() ? kStale : kOk);
  if (node.isGone()) return kStale;
  compare(reply.wcc, node, before);
  same("verifier", reply.verifier, 0U);
  return kOk;
}

unsigned RandomClient::remove(bool asDirectory) {
  const Node::Place place = pickPlace();
  Node& dir = *place.dir;
  const Node* victim = find(dir, place.name);
  describe("of " + dir.path() + "/" + place.name);

  const MetaData before = hostAttributes(dir);
  const unsigned status = m_tree.remove(dir, place.name, asDirectory ? kNotEmpty : kNoEntry);
  const Nfs3Reply reply = asDirectory ? m_client.removeDirectory(dir.handle, place.name)
                                      : m_client.remove(dir.handle, place.name);
  same("status", reply.status, status);
  if (status != kStale) compare(reply.wcc, dir, before);
  confirm(dir, place.name, victim);
  if (victim != nullptr) getAttributes(m_other, *victim);  // by the names that it has left, if any
  return status;
}

unsigned RandomClient::rename() {
  Node::Place from = pickPlace();
  Node::Place to = pickNewPlace();
  const unsigned kind = roll(10);
  const auto choose = [&](const auto& isWanted, auto use) {
    for (const auto& node : m_nodes) {
      if (node != m_own && isWanted(*node) && oneIn(2)) use(*node);
    }
  };
  if (kind == 0) {
    choose([](const Node& node) { return node.places.size() > 1; },
           [&](const Node& file) { from = file.places.front(), to = file.places.back(); });
  }
  Node* moved = find(*from.dir, from.name);
  if (kind == 1) to = from;
  if (kind == 2 && m_shared) to = {m_shared.get(), pickName(*m_shared)};
  if (kind == 3 && moved && moved->is(FileType::Directory)) {
    to.dir = moved;
    choose(
        [&](const Node& node) { return node.is(FileType::Directory) && isAtOrBelow(node, *moved); },
        [&](Node& below) { to.dir = &below; });
  }
  if (kind == 4) to = {from.dir, pickName(*from.dir)};
  if (kind == 5) {
    choose([](const Node& node) { return node.is(FileType::Directory) && node.entries.empty(); },
           [&](const Node& dir) { to = dir.places.front(); });
  }
  if (kind == 6 || kind == 7) to = pickPlace();
  const Node* replaced = find(*to.dir, to.name);
  describe("of " + from.dir->path() + "/" + from.name + " to " + to.dir->path() + "/" + to.name);

  const MetaData before = hostAttributes(*from.dir);
  const MetaData toBefore = hostAttributes(*to.dir);
  const Tree::Renamed wanted = m_tree.rename(*from.dir, from.name, *to.dir, to.name);
  m_operation += std::string(" (") + wanted.how + ")";
  const Nfs3Reply reply = m_client.rename(from.dir->handle, from.name, to.dir->handle, to.name);
  same("status", reply.status, wanted.status);
  ++m_tally[std::string("RENAME ") + wanted.how];
  if (wanted.status != kStale) {
    compare(reply.wcc, *from.dir, before);
    compare(reply.toWcc, *to.dir, toBefore);
  }
  confirm(*from.dir, from.name, moved);
  confirm(*to.dir, to.name, moved);
  if (replaced != nullptr) getAttributes(m_other, *replaced);
  // The handles of everything that moved along are as good as before.
  if (moved && moved->is(FileType::Directory)) {
    for (const auto& node : m_nodes) {
      if (isAtOrBelow(*node, *moved) && oneIn(3)) getAttributes(m_other, *node);
    }
  }
  return wanted.status;
}

unsigned RandomClient::lookup() {
  Node& dir = pickDirectory();
  const std::string name = pickName(dir);
  // The other names that are refused lead elsewhere here.
  return lookup(m_client, dir, isEntryName(name) ? name : std::string("a\0b", 3));
}

unsigned RandomClient::lookup(Nfs3Client& client, Node& dir, const std::string& name) {
  if (m_operation.empty()) describe("of " + dir.path() + "/" + name);
  const Node* found = find(dir, name);
  const unsigned status = dir.isGone() ? kStale : found ? kOk : kNoEntry;
  const Nfs3Reply reply = client.lookup(dir.handle, name);
  same("status of LOOKUP", reply.status, status);
  if (status != kOk) return status;
  same("handle", str(reply.handle), str(found->handle));
  compareFresh(reply.attributes, *found);
  compareFresh(reply.dirAttributes, dir);
  return status;
}

unsigned RandomClient::getAttributes(Nfs3Client& client, const Node& node) {
  if (m_operation.empty()) describe("of " + node.path());
  const Nfs3Reply reply = client.getAttributes(node.handle);
  same("status of GETATTR", reply.status, node.isGone() ? kStale : kOk);
  if (!node.isGone()) compareFresh(reply.attributes, node);
  return reply.status;
}

unsigned RandomClient::list(Nfs3Client& client, Node& dir, bool plus) {
  if (m_operation.empty()) describe("of " + dir.path());
  const bool isShared = &dir == m_shared.get();
  const unsigned status = dir.isGone() ? kStale : !dir.is(FileType::Directory) ? kGarbageCall : kOk;
  // Cookies are ordinals: while others change a directory, only a page of its own is sure.
  const unsigned page = isShared ? kLargePage : plus ? 300 + roll(1000) : 200 + roll(300);
  const Nfs3Listing listing = client.list(dir.handle, page, plus);
  same(plus ? "status of READDIRPLUS" : "status of READDIR", listing.status, status);
  if (status != kOk) return status;
  dir.accessTime = {};
  compareFresh(listing.dirAttributes, dir);
  std::set<std::string> names;
  for (const Nfs3Entry& entry : listing.entries) {
    if (entry.name == "." || entry.name == "..") continue;
    if (isShared && !entry.name.starts_with(m_setup.name)) continue;
    const Node* node = find(dir, entry.name);
    if (node == nullptr || !names.insert(entry.name).second) {
      fail("an entry that is not there, or a second time: ", entry.name);
    }
    same("listed fileid", entry.fileId, node->handle.objectId);
    if (!plus) continue;
    same("listed handle", str(entry.handle), str(node->handle));
    compareFresh(entry.attributes, *node);
  }
  same("number of entries listed", names.size(), dir.entries.size());
  return status;
}

unsigned RandomClient::readLink() {
  Node& node = pick(FileType::SymbolicLink);
  describe(node.path());
  const unsigned status = node.isGone()                     ? kStale
                          : node.is(FileType::SymbolicLink) ? kOk
                                                            : kGarbageCall;
  node.accessTime = {};
  const Nfs3Reply reply = m_client.readLink(node.handle);
  same("status", reply.status, status);
  if (status != kOk) return status;
  compareFresh(reply.attributes, node);
  sameContent(reply.data, node.content);
  return status;
}

// ---- Comparing

MetaData RandomClient::hostAttributes(const Node& node) const {
  if (node.isGone()) return {};
  std::vector<std::string> way;
  for (const Node* at = &node; at->places.front().dir != nullptr; at = at->places.front().dir)
    way.push_back(at->places.front().name);
  std::shared_ptr<Directory> dir = m_setup.host.OpenRoot();
  if (way.empty()) return dir->GetMetaData();
  for (auto name = way.rbegin(); name != std::prev(way.rend()); ++name)
    dir = dir->OpenSubdir(*name);
  return dir->GetEntryByName(way.front()).metaData;
}

void RandomClient::compare(const nfs3::fattr3& got, const Node& node) const {
  same("type", got.type, static_cast<unsigned>(node.type));
  same("mode", got.mode, node.mode);
  same("uid", got.uid, node.uid);
  same("gid", got.gid, node.gid);
  same("fileid", got.fileId, node.handle.objectId);
  same("fsid", got.fileSystemId, node.handle.fileSystemId);
  same("used", got.used, got.size);
  if (!node.is(FileType::Directory)) {
    same("size", got.size, node.content.size());
    same("number of names", got.linkCount, node.places.size());
  }
  within("access time", got.accessTime, node.accessTime);
  within("modification time", got.modifyTime, node.modifyTime);
}

void RandomClient::compareFresh(const nfs3::fattr3& got, const Node& node) const {
  if (&node == m_shared.get()) return;  // the others are at it
  compare(got, node);
  const MetaData host = hostAttributes(node);
  same("size, as the host knows it,", got.size, host.size);
  same("number of names, as the host knows it,", got.linkCount, host.linkCount);
  same("change time, as the host knows it,", got.changeTime, host.changeTime);
  same("modification time, as the host knows it,", got.modifyTime, host.modifyTime);
}

void RandomClient::compare(const WccReply& got, const Node& node, const MetaData& before) const {
  if (&node == m_shared.get()) return;
  same("size before", got.before.size, before.size);
  same("modification time before", got.before.modifyTime, before.modifyTime);
  same("change time before", got.before.changeTime, before.changeTime);
  compareFresh(got.after, node);
}

void RandomClient::confirm(Node& dir, const std::string& name, const Node* object) {
  const std::string change = m_operation;
  m_operation += ", as a second client sees it";
  const unsigned kind = roll(4);
  if (kind == 0 && object != nullptr) {
    getAttributes(m_other, *object);
  } else if (kind <= 1 && isEntryName(name)) {
    lookup(m_other, dir, name);
  } else {
    list(m_other, dir, kind == 2);
  }
  m_operation = change;
}

void RandomClient::sortOut() {
  const auto gone = std::partition(m_nodes.begin(), m_nodes.end(),
                                   [](const auto& node) { return !node->isGone(); });
  m_gone.insert(m_gone.end(), gone, m_nodes.end());
  m_nodes.erase(gone, m_nodes.end());
}

}  // namespace nfslib::testing::model
