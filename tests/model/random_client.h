#pragma once

#include <nfslib/file_system.h>

#include "model/tree_model.h"
#include "support/nfs3_client.h"

#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

// A client that does one random operation after the other and compares every result with a model,
// with the host's own tree, and with what a second connection sees right afterwards.

namespace nfslib::testing::model {

// How often each operation ended with each status, as "RENAME 70", and each case of RENAME.
using Tally = std::map<std::string, unsigned>;

struct ClientSetup {
  unsigned port = 0;
  std::string exportPath;
  FileSystem& host;
  std::uint64_t seed = 0;
  // Empty: the whole export belongs to this client. Otherwise it makes itself a directory of that
  // name, and shares "shared" with others, where the names of its own entries begin with its name.
  std::string name;
  bool setsOwners = false;  // whether the host may
};

class RandomClient {
 public:
  explicit RandomClient(const ClientSetup& setup);

  // Throws std::runtime_error at the first result that differs; it names seed and operation.
  void run(unsigned operations);

  const Tally& tally() const { return m_tally; }
  // What the model says of the whole export, and what a client sees there by READDIRPLUS, READ and
  // READLINK.
  Picture expected() const;
  static Picture seen(Nfs3Client& client, const NfsHandle& dir, const std::string& path = "");

  // One row an operation; `statuses` are those that a long run must have met.
  struct Operation {
    const char* name;
    unsigned weight;
    bool grows = false;  // the tree
    std::vector<unsigned> statuses;
    unsigned (*run)(RandomClient& self);
  };
  static std::span<const Operation> operations();

 private:
  // ---- Choosing

  unsigned roll(unsigned sides) { return static_cast<unsigned>(m_random() % sides); }
  bool oneIn(unsigned n) { return roll(n) == 0; }
  unsigned pickOffset() { return roll(oneIn(15) ? 200'000 : 3000); }  // few are far away
  // Mostly one that is there, sometimes one that was removed.
  const std::shared_ptr<Node>& pickNode();
  Node& pick(FileType usual);
  Node& pickDirectory() { return pick(FileType::Directory); }
  Node::Place pickPlace();     // mostly a taken one
  Node::Place pickNewPlace();  // taken or not
  std::string pickName(Node& dir);
  SetAttributes pickAttributes(FileType type);
  const Operation& pickOperation();

  // ---- Operations. Each returns its status.

  unsigned create(FileType type);
  unsigned link();
  unsigned setAttributes();
  unsigned write();
  unsigned read();
  unsigned commit();
  unsigned remove(bool asDirectory);
  unsigned rename();
  unsigned lookup();
  unsigned lookup(Nfs3Client& client, Node& dir, const std::string& name);
  unsigned getAttributes(Nfs3Client& client, const Node& node);
  unsigned list(Nfs3Client& client, Node& dir, bool plus);
  unsigned readLink();

  // ---- Comparing. All throw std::runtime_error.

  // The attributes by the host's own objects; default values for an object that is gone.
  MetaData hostAttributes(const Node& node) const;
  // Reply against model.
  void compare(const nfs3::fattr3& got, const Node& node) const;
  // And against the host, for attributes that are not older than the call.
  void compareFresh(const nfs3::fattr3& got, const Node& node) const;
  void compare(const WccReply& got, const Node& node, const MetaData& before) const;
  // Asks the second connection for one of the things that the change to `name` may have changed.
  // `object` is what has, or had, that name, if anything.
  void confirm(Node& dir, const std::string& name, const Node* object);

  void describe(const std::string& text) { m_operation = text; }
  // The objects without a name are no longer among those that are there.
  void sortOut();

  const ClientSetup m_setup;
  std::mt19937_64 m_random;
  Nfs3Client m_client;
  Nfs3Client m_other;
  Tree m_tree;
  std::shared_ptr<Node> m_exportRoot;
  std::shared_ptr<Node> m_own;                 // the top of what belongs to this client
  std::shared_ptr<Node> m_shared;              // or nullptr
  std::vector<std::shared_ptr<Node>> m_nodes;  // m_own first
  std::vector<std::shared_ptr<Node>> m_gone;
  std::string m_operation;  // what the one under way is about
  unsigned m_number = 0;    // of operations so far
  Tally m_tally;
};

}  // namespace nfslib::testing::model
