#pragma once

#include <nfslib/nfs_mount_spec.h>
#include <nfslib/nfs_path.h>

#include "common/memory_stream.h"
#include "common/nfs_handle.h"
#include "fs/nfs_file_system.h"
#include "memory/memory_file_system.h"
#include "nfs3/nfs3_program.h"
#include "nfs4/nfs4_program.h"
#include "rpc/mount_program.h"
#include "rpc/portmap_program.h"
#include "rpc/rpc_server.h"
#include "server/nfs_service.h"
#include "support/recorded_log.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace nfslib::fuzz {

// A small tree behind all programs of one version, made anew for each input.
//
// An input cannot know the handles of this run. Where it has the 15 bytes "nfslib-fuzz-obj" and one
// more byte, the handle of an object of the tree takes their place.
class ServedTree {
 public:
  explicit ServedTree(unsigned version = nfs::Nfs3Program::kVersion, const Profile& profile = {}) {
    m_service.setProfile(profile);
    m_server.setProfile(profile);
    const auto root = m_tree.OpenRoot();
    root->CreateFile("empty");
    const auto file = root->CreateFile("file");
    const std::string content(300, 'x');
    file->Write(0, content.data(), content.size());
    root->CreateSymlink("link", "directory/inner");
    const auto directory = root->CreateSubdir("directory");
    for (int i = 0; i < 20; ++i) directory->CreateFile("inner [%1] " + std::to_string(i));

    const NfsPath path("/tree");
    NfsMountSpec spec;
    spec.writeEnabled = true;
    m_service.exportFileSystem(path, m_tree, spec);
    const auto view = m_service.getFileSystem(path).second;
    const NfsHandle top = m_service.getHandle(path);
    m_handles.push_back(top);
    for (const char* name : {"/file", "/empty", "/link", "/directory"}) {
      m_handles.push_back(view->getHandle(top, NfsPath(name), view->getMetaData(NfsPath(name))));
    }
    m_handles.push_back({top.generation - 1, top.fileSystemId, top.objectId});
    m_handles.push_back({top.generation, top.fileSystemId + 1, top.objectId});
    m_handles.push_back({top.generation, top.fileSystemId, 0xDEAD'BEEF});

    auto portMapper = std::make_unique<portmap::PortMapProgram>(
        profile, [](unsigned port) { return std::to_string(port); });
    portMapper->map(rpc::kNfsProgram, 33049, portmap::kTcp, nfs::Nfs3Program::kVersion);
    portMapper->map(rpc::kMountProgram, 33050, portmap::kUdp, nfs::Nfs3Program::kVersion);
    m_server.registerProgram(rpc::kPortmapProgram, std::move(portMapper));
    m_server.registerProgram(rpc::kMountProgram, std::make_unique<mount::MountProgram>(m_service));
    if (version == nfs::Nfs4Program::kVersion) {
      m_server.registerProgram(rpc::kNfsProgram,
                               std::make_unique<nfs::Nfs4Program>(m_service, spec.writeEnabled));
    } else {
      m_server.registerProgram(rpc::kNfsProgram,
                               std::make_unique<nfs::Nfs3Program>(m_service, spec.writeEnabled));
    }
  }
  // The session of minor version 0 outlives the tree.
  ~ServedTree() { m_service.releaseObjects(kFirstExport, std::chrono::steady_clock::now()); }
  ServedTree(const ServedTree&) = delete;
  ServedTree& operator=(const ServedTree&) = delete;

  rpc::RpcServer& server() { return m_server; }

  std::vector<std::byte> withHandles(const std::uint8_t* data, std::size_t size) const {
    static constexpr char kMarker[] = "nfslib-fuzz-obj";
    constexpr std::size_t kLength = sizeof kMarker - 1;
    static_assert(kLength + 1 == sizeof(NfsHandle));
    std::vector<std::byte> out(size);
    if (size != 0) std::memcpy(out.data(), data, size);
    for (std::size_t i = 0; i + sizeof(NfsHandle) <= size; ++i) {
      if (std::memcmp(out.data() + i, kMarker, kLength) != 0) continue;
      const auto& handle = m_handles[data[i + kLength] % m_handles.size()];
      std::memcpy(out.data() + i, &handle, sizeof handle);
    }
    return out;
  }

 private:
  static constexpr std::uint32_t kFirstExport = 1;

  testing::RecordedLog m_log;  // every line is put together
  hosts::MemoryFileSystem m_tree{1 << 20};
  NfsService m_service;
  rpc::RpcServer m_server;
  std::vector<NfsHandle> m_handles;
};

}  // namespace nfslib::fuzz
