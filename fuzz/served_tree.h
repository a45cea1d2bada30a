#pragma once

#include <nfslib/hosts/memory_file_system.h>
#include <nfslib/nfs_mount_spec.h>
#include <nfslib/nfs_path.h>

#include "common/buffers.h"
#include "common/memory_stream.h"
#include "common/nfs_handle.h"
#include "fs/nfs_file_system.h"
#include "nfs3/nfs3_program.h"
#include "nfs4/nfs4_program.h"
#include "rpc/mount_program.h"
#include "rpc/portmap_program.h"
#include "rpc/rpc_server.h"
#include "server/nfs_service.h"
#include "support/recorded_log.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace nfslib::fuzz {

// A small tree behind all programs of one version, made anew for each input.
//
// An input cannot know the handles of this run. Where it has the 15 bytes "nfslib-fuzz-obj" and one
// more byte, the handle of an object of the tree takes their place; where it has "nfslib-fuzz-sid",
// what a target has added of sessions, stateids and client ids.
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

  NfsHandle file() const { return m_handles.at(1); }

  static bool hasValue(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    return input.find(kValueMarker) != input.npos;
  }
  // 16 bytes that are one thing, or several.
  using Value = std::array<std::byte, 16>;
  template <class... Parts>
  void addValue(const Parts&... parts) {
    MemoryStream stream;
    (stream << ... << parts);
    Value value{};
    memory::copy(stream.getOutputBuffer(), {value.data(), value.size()});
    m_values.push_back(value);
  }

  std::vector<std::byte> withHandles(const std::uint8_t* data, std::size_t size) const {
    std::vector<std::byte> out(size);
    if (size != 0) std::memcpy(out.data(), data, size);
    replace("nfslib-fuzz-obj", m_handles, out);
    replace(kValueMarker, m_values, out);
    return out;
  }

 private:
  static constexpr std::uint32_t kFirstExport = 1;
  static constexpr std::string_view kValueMarker = "nfslib-fuzz-sid";

  template <class Thing>
  static void replace(std::string_view marker, const std::vector<Thing>& things,
                      std::vector<std::byte>& in) {
    for (std::size_t i = 0; !things.empty() && i + sizeof(Thing) <= in.size(); ++i) {
      if (std::memcmp(in.data() + i, marker.data(), marker.size()) != 0) continue;
      const auto index = std::to_integer<std::size_t>(in[i + marker.size()]);
      std::memcpy(in.data() + i, &things[index % things.size()], sizeof(Thing));
    }
  }

  testing::RecordedLog m_log;  // every line is put together
  hosts::MemoryFileSystem m_tree{1 << 20};
  NfsService m_service;
  rpc::RpcServer m_server;
  std::vector<NfsHandle> m_handles;
  std::vector<Value> m_values;
};

}  // namespace nfslib::fuzz
