#pragma once

#include <nfslib/metadata.h>

#include "common/nfs_handle.h"
#include "support/nfs3_client.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

// A tree as the clients of a writable export of NFS version 3 have to see it: plain data, and the
// changes with the statuses that they are answered with.

namespace nfslib::testing::model {

constexpr unsigned kOk = 0, kNoEntry = 2, kExists = 17, kNotEmpty = 66, kStale = 70;

// What a time may be: one value, once a client has set it, or whatever the host made of it.
struct TimeRange {
  std::uint32_t least = 0;
  std::uint32_t most = UINT32_MAX;
};

// One object, whatever it is called.
struct Node {
  struct Place {
    Node* dir = nullptr;  // nullptr for the root of the export
    std::string name;
    bool operator==(const Place&) const = default;
  };

  bool is(FileType wanted) const { return type == wanted; }
  bool isGone() const { return places.empty(); }
  std::string path() const;  // by its first name

  FileType type = FileType::Regular;
  NfsHandle handle;
  unsigned mode = 0, uid = 0, gid = 0;
  TimeRange accessTime, modifyTime;
  std::string content;  // of a file; the text of a symbolic link
  std::map<std::string, std::shared_ptr<Node>> entries;
  std::vector<Place> places;  // its names
};

// The object called `name`, or nullptr.
Node* find(const Node& dir, const std::string& name);
// Whether an entry can be called that.
bool isEntryName(const std::string& name);
// Whether `node` is `top` or lies below it.
bool isAtOrBelow(const Node& node, const Node& top);

class Tree {
 public:
  // The host sets no time before `start`.
  explicit Tree(std::uint32_t start) : m_now{start, UINT32_MAX} {}

  // An object without a name, as a host makes it.
  std::shared_ptr<Node> make(FileType type) const;

  // ---- Changes. Each returns the status, and does nothing when that is not kOk.

  // A new name of `node`, which may be its first; `refusal` is the status of whatever forbids it.
  unsigned add(Node& dir, const std::string& name, const std::shared_ptr<Node>& node,
               unsigned refusal);
  // REMOVE and RMDIR, which differ only in what they say of a directory that has entries.
  unsigned remove(Node& dir, const std::string& name, unsigned whenNotEmpty);
  struct Renamed {
    unsigned status;
    const char* how;  // which case of rename(2) it was
  };
  Renamed rename(Node& from, const std::string& name, Node& to, const std::string& newName);
  unsigned write(Node& file, std::size_t offset, const std::string& data);
  // What the reply of the change shows. A new size also moves the modification time, see `resized`.
  static void apply(const SetAttributes& wanted, Node& node);
  void resized(Node& file) const { file.modifyTime = m_now; }

 private:
  std::shared_ptr<Node> detach(Node& dir, const std::string& name);
  void attach(Node& dir, const std::string& name, const std::shared_ptr<Node>& node);

  const TimeRange m_now;
};

// Everything below a directory, by path, each with one line on type, mode, names and content.
using Picture = std::map<std::string, std::string>;
std::string describe(FileType type, unsigned mode, unsigned names, const std::string& content);
void paint(const Node& dir, const std::string& path, Picture& picture);

}  // namespace nfslib::testing::model
