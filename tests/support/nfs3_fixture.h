#pragma once

#include <nfslib/exception.h>
#include <nfslib/hosts/memory_file_system.h>
#include <nfslib/nfs_mount_spec.h>

#include "fs/nfs_file_system.h"
#include "nfs3/attributes.h"
#include "nfs3/nfs3_program.h"
#include "server/nfs_service.h"
#include "support/observed_host.h"
#include "support/recorded_log.h"
#include "support/stream_call.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>

namespace nfslib::testing {

// The procedures of RFC 1813 by number.
enum Procedure : unsigned {
  kNull = 0,
  kGetAttr = 1,
  kSetAttr = 2,
  kLookup = 3,
  kAccess = 4,
  kReadLink = 5,
  kRead = 6,
  kWrite = 7,
  kCreate = 8,
  kMkDir = 9,
  kSymlink = 10,
  kRemove = 12,
  kRmDir = 13,
  kRename = 14,
  kLink = 15,
  kReadDir = 16,
  kReadDirPlus = 17,
  kFsStat = 18,
  kFsInfo = 19,
  kPathConf = 20,
  kCommit = 21,
};

// A tree that is exported and served. Fill the tree, then call serve().
class Nfs3Test : public ::testing::Test {
 protected:
  static constexpr unsigned kOk = 0;
  static constexpr unsigned kNoEntry = 2;
  static constexpr unsigned kStale = 70;

  Nfs3Test() = default;
  // For a test whose calls are too many to keep their lines.
  explicit Nfs3Test(LogLevel discarded) : log{discarded} {}
  explicit Nfs3Test(std::uint64_t capacity) : tree{capacity} {}

  // ---- The tree, past the server and the observer

  std::shared_ptr<Directory> directoryAt(const NfsPath& path) {
    std::shared_ptr<Directory> at = tree.OpenRoot();
    for (const std::string_view name : path.nodes()) at = at->OpenSubdir(std::string(name));
    return at;
  }
  std::shared_ptr<Directory> parentOf(const std::string& path) {
    return directoryAt(NfsPath(path).getParentPath());
  }
  void dir(const std::string& path) { parentOf(path)->CreateSubdir(NfsPath(path).getFileName()); }
  void file(const std::string& path, const std::string& content) {
    const auto fresh = parentOf(path)->CreateFile(NfsPath(path).getFileName());
    if (!content.empty()) fresh->Write(0, content.data(), content.size());
  }
  void link(const std::string& path, const std::string& target) {
    parentOf(path)->CreateSymlink(NfsPath(path).getFileName(), target);
  }
  MetaData attributes(const std::string& path) {
    if (NfsPath(path).isRootPath()) return tree.OpenRoot()->GetMetaData();
    return parentOf(path)->GetEntryByName(NfsPath(path).getFileName()).metaData;
  }

  // ---- The server

  virtual FileSystem& exported() { return host; }
  void serve(bool writable = false) {
    NfsMountSpec spec;
    spec.writeEnabled = writable;
    service.exportFileSystem(NfsPath("/export"), exported(), spec);
    view = service.getFileSystem(NfsPath("/export")).second;
    root = service.getHandle(NfsPath("/export"));
    server.registerProgram(kProgram, std::make_unique<nfs::Nfs3Program>(service, writable));
    log.takeLines();
  }

  template <class... Arguments>
  Reply call(unsigned procedure, const Arguments&... arguments) const {
    return send(procedure, wire(arguments...));
  }

  NfsHandle handleOf(const std::string& path) {
    return view->getHandle(root, NfsPath(path), attributes(path));
  }
  nfs3::fattr3 fattrOf(const std::string& path) {
    return nfs3::procedures::utility::getAttributes(handleOf(path), attributes(path));
  }
  nfs3::PostOpAttr attributesOf(const std::string& path) { return {fattrOf(path)}; }

  static constexpr unsigned kProgram = 100003;

  RecordedLog log;
  hosts::MemoryFileSystem tree{256U << 20U};
  ObservedHost host{tree};
  NfsService service;
  rpc::RpcServer server;
  StreamCaller send{server, kProgram, nfs::Nfs3Program::kVersion};
  std::shared_ptr<NfsFileSystem> view;
  NfsHandle root;
};

}  // namespace nfslib::testing
