#pragma once

#include <nfslib/file_system.h>

#include "support/nfs3_fixture.h"

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <vector>

// A tree and those who want something of it, for tests of who may do what in the modern profile.

namespace nfslib::testing {

// Passes on another tree, and decides by itself who may do what, once there is a `decide`.
class DecidingHost : public FileSystem, public IAccessControl {
 public:
  explicit DecidingHost(FileSystem& inner) : m_inner(inner) {}
  std::function<std::uint32_t(const Caller&, const std::string& path, std::uint32_t requested)>
      decide;

  std::shared_ptr<Directory> OpenRoot() override { return m_inner.OpenRoot(); }
  std::uint32_t GetGrantedRights(const Caller& caller, const NfsPath& path, const MetaData&,
                                 std::uint32_t requested) const override {
    return decide(caller, path.str(), requested);
  }

 private:
  FileSystem& m_inner;
};

struct CallerKind {
  const char* what;
  unsigned uid;
  unsigned group;      // supplementary
  unsigned modeShift;  // of the three mode bits that count for it
};
// Every object of the tree belongs to user 1000 and group 500.
constexpr unsigned kOwnerId = 1000, kGroupId = 500, kLetIn = 60;
constexpr std::array kCallers{
    CallerKind{"owner", kOwnerId, 1, 6},
    CallerKind{"group", 7, kGroupId, 3},
    CallerKind{"other", 8, 1, 0},
    CallerKind{"root", 0, 1, 0},
};
constexpr unsigned kR = 4, kW = 2, kX = 1;

// `Base` is the fixture of a protocol version.
template <class Base>
class RightsFixture : public Base {
 protected:
  RightsFixture() {
    this->service.setProfile(profileOf(NfsServerPolicy::modern()));
    build();
  }
  // "/d" and "/e" have the same names; only what is in "/d" is asked for.
  void build() {
    for (const char* path : {"/d", "/d/empty", "/e"}) this->dir(path);
    for (const char* path : {"/d/f", "/d/victim", "/e/x"}) this->file(path, "content");
    this->link("/d/link", "f");
    for (const char* path : {"/d/empty", "/e", "/d/f", "/d/victim", "/e/x"}) give(path, 0777);
    give("/d", 0777);
  }
  void give(const std::string& path, unsigned mode, unsigned uid = kOwnerId,
            unsigned gid = kGroupId) {
    MetaData md = this->attributes(path);
    md.mode = static_cast<std::uint16_t>(mode);
    md.uid = uid;
    md.gid = gid;
    if (isType(md, FileType::Directory)) {
      this->directoryAt(NfsPath(path))->SetMetaData(md);
    } else {
      this->parentOf(path)->OpenFile(NfsPath(path).getFileName())->SetMetaData(md);
    }
    if (this->view) this->view->dropMetaData(NfsPath(path));
  }
  // These bits for the caller, and the opposite for everybody else.
  static unsigned modeFor(const CallerKind& caller, unsigned bits) {
    return (0777U & ~(7U << caller.modeShift) & ~(0111U * bits)) | bits << caller.modeShift;
  }
  static void become(const CallerKind& kind, rpc::AuthOpaque& caller) {
    caller.uid = kind.uid;
    caller.gid = kLetIn;
    caller.groupCount = 1;
    caller.groups[0] = kind.group;
  }
  // Names, owners, modes and sizes of all that there is below `path`.
  std::string snapshot(const NfsPath& path = NfsPath("/")) {
    std::string text;
    for (const auto pass = this->directoryAt(path)->Enumerate(); pass->IsValid();
         pass->MoveNext()) {
      const auto& [name, md] = pass->Current();
      if (name == "." || name == "..") continue;
      text += (path / name).str() + " " + std::to_string(md.uid) + " " + std::to_string(md.gid) +
              " " + std::to_string(md.mode) + " " + std::to_string(md.size) + " " +
              std::to_string(md.linkCount) + " " + std::to_string(md.accessTime) + "\n";
      if (isType(md, FileType::Directory)) text += snapshot(path / name);
    }
    return text;
  }
};

}  // namespace nfslib::testing
