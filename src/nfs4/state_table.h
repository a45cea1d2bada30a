#pragma once

#include <nfslib/file_system.h>
#include <nfslib/nfs_path.h>

#include "common/status.h"
#include "common/xdr_records.h"
#include "fs/replacement_cache.h"

#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

namespace nfslib::nfs4 {

// The open files of all clients, by stateid: RFC 7530 section 9, RFC 8881 sections 8 and 9.
//
// A stateid's 12 bytes are six of this table, drawn at random, and a number that grows: no two in
// this or another process are the same.
//
// Thread-safe. The lock is innermost; no host call is made under it, and what it lets go of is
// released after it.
class StateTable {
 public:
  struct FileKey {
    std::uint32_t fileSystemId = 0;
    std::uint64_t objectId = 0;
    auto operator<=>(const FileKey&) const = default;
  };
  // Who opens; a client has as many owners as it likes.
  struct Owner {
    std::uint64_t clientId = 0;
    std::string name;
    auto operator<=>(const Owner&) const = default;
  };
  // A stateid as a client sends it, and where it does.
  struct Reference {
    FsObjectStateId id;
    std::uint64_t clientId = 0;  // of the session; 0 in minor version 0, which does not tell
    FileKey file;                // of the current object
  };
  // What a stateid stands for. `file` is empty when too many are open to hold them all.
  struct Held {
    std::shared_ptr<File> file;
    NfsPath path{"/"};  // that `file` was opened by
  };
  struct Opened {
    FsObjectStateId id;
    bool isNew = false;
  };

  StateTable();

  // Opens `file` for the owner, or opens it further when the owner has it open. ShareDenied when
  // others do not let it, Resource when too much is open.
  nfs::OperationResult open(const FileKey& key, const Owner& owner, unsigned access, unsigned deny,
                            Held file, Opened& opened);
  nfs::OperationResult close(const Reference& reference, FsObjectStateId& closed);
  nfs::OperationResult downgrade(const Reference& reference, unsigned access, unsigned deny,
                                 FsObjectStateId& id);
  // Whether the stateid is one that lets its owner access the file so.
  nfs::OperationResult find(const Reference& reference, unsigned access, Held& held) const;
  // The file was opened anew, by the path that it has now.
  void replace(const Reference& reference, Held held);
  // Whether nobody denies others that access.
  bool isFree(const FileKey& key, unsigned access) const;
  // What the stateid is worth, whatever file it is of.
  nfs::OperationResult test(const FsObjectStateId& id, std::uint64_t clientId) const;

  bool hasState(std::uint64_t clientId) const;
  void dropClient(std::uint64_t clientId);
  void dropFileSystem(std::uint32_t fileSystemId);

  void rememberExclusive(const FileKey& key, const verifier4& verifier);
  bool madeExclusively(const FileKey& key, const verifier4& verifier);

 private:
  struct Open {
    Owner owner;
    FileKey file;
    unsigned access = 0;
    unsigned deny = 0;
    std::uint32_t sequenceId = 0;
    Held held;
  };
  using Opens = std::unordered_map<std::uint64_t, Open>;  // by the number in the stateid

  FsObjectStateId idOf(std::uint64_t number, std::uint32_t sequenceId) const;
  nfs::OperationResult numberOf(const FsObjectStateId& id, std::uint64_t clientId,
                                std::uint64_t& number) const;
  nfs::OperationResult locate(const Reference& reference, std::uint64_t& number) const;
  bool isDenied(const FileKey& key, std::uint64_t except, unsigned access, unsigned deny) const;
  Held erase(std::uint64_t number);
  template <class Predicate>
  void dropIf(const Predicate& isGone);

  const std::uint64_t m_instance;  // 48 bits
  mutable std::mutex m_lock;       // guards what follows
  std::uint64_t m_lastNumber = 0;  // 48 bits
  Opens m_opens;
  std::map<FileKey, std::map<Owner, std::uint64_t>> m_byFile;
  std::map<std::uint64_t, std::size_t> m_countByClient;
  std::size_t m_held = 0;
  // By export and object.
  std::map<std::uint32_t, utility::replacement_cache<std::uint64_t, verifier4>> m_exclusive;
};

}  // namespace nfslib::nfs4
