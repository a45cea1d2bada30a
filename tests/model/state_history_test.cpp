// Random histories of what three clients open and lock, compared with a model that knows nothing
// but which byte is held by whom. NFSLIB_MODEL_SEED repeats a run, NFSLIB_MODEL_OPERATIONS says how
// long it is.

#include "nfs4/state_table.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

namespace nfslib::testing::model {
namespace {

using nfs::OperationResult;
using nfs4::ByteRange;
using nfs4::StateTable;

constexpr unsigned kFiles = 2;
constexpr unsigned kPlaces = 24;  // bytes; the last one stands for all behind it, too
constexpr unsigned kClients = 3;
constexpr unsigned kOwners = 2;  // of either kind, of each client

std::uint64_t fromEnvironment(const char* name, std::uint64_t otherwise) {
  const char* text = std::getenv(name);
  return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}

StateTable::FileKey fileKey(unsigned file) { return {1, file}; }

// First and last place, both held.
struct Places {
  unsigned first = 0, last = 0;
  ByteRange bytes() const { return {first, last == kPlaces - 1 ? UINT64_MAX : last}; }
};

struct Dice {
  std::mt19937_64 random;
  unsigned roll(unsigned sides) { return static_cast<unsigned>(random() % sides); }
  bool oneIn(unsigned n) { return roll(n) == 0; }
  Places places() {
    const unsigned first = roll(kPlaces);
    return {first, oneIn(5) ? kPlaces - 1 : std::min(kPlaces - 1, first + roll(6))};
  }
};

// ---- The model

struct ModelOpen {
  StateOwner owner;
  unsigned file = 0;
  unsigned access = 0, deny = 0;
  FsObjectStateId id;
};
struct ModelLocks {
  StateOwner owner;
  FsObjectStateId open;  // what it is bound to
  unsigned file = 0;
  FsObjectStateId id;
};
// Who holds a byte, and whether for writing.
using Holders = std::map<StateOwner, bool>;

struct Model {
  std::vector<ModelOpen> opens;
  std::vector<ModelLocks> locks;
  std::array<std::array<Holders, kPlaces>, kFiles> bytes;

  ModelOpen* find(const StateOwner& owner, unsigned file) {
    const auto at = std::ranges::find_if(
        opens, [&](const auto& open) { return open.owner == owner && open.file == file; });
    return at == opens.end() ? nullptr : &*at;
  }
  ModelOpen& openOf(const ModelLocks& state) {
    return *std::ranges::find_if(
        opens, [&](const auto& open) { return open.id.other == state.open.other; });
  }
  // The clients whose opens do not go with it, and whose locks do not.
  std::set<std::uint64_t> objectors(const ModelOpen* except, unsigned file, unsigned access,
                                    unsigned deny) const {
    std::set<std::uint64_t> clients;
    for (const ModelOpen& open : opens) {
      const bool isOther = &open != except && open.file == file;
      if (isOther && ((open.deny & access) != 0 || (open.access & deny) != 0)) {
        clients.insert(open.owner.clientId);
      }
    }
    return clients;
  }
  std::set<std::uint64_t> holders(unsigned file, const Places& places, bool isWrite,
                                  const StateOwner& except) const {
    std::set<std::uint64_t> clients;
    for (unsigned i = places.first; i <= places.last; ++i) {
      for (const auto& [owner, writes] : bytes[file][i]) {
        if (owner != except && (writes || isWrite)) clients.insert(owner.clientId);
      }
    }
    return clients;
  }
  void hold(unsigned file, const Places& places, const StateOwner& owner, bool isWrite) {
    for (unsigned i = places.first; i <= places.last; ++i) bytes[file][i][owner] = isWrite;
  }
  void release(unsigned file, const Places& places, const StateOwner& owner) {
    for (unsigned i = places.first; i <= places.last; ++i) bytes[file][i].erase(owner);
  }
  bool holdsAny(const StateOwner& owner, std::optional<unsigned> only = std::nullopt) const {
    for (unsigned file = 0; file < kFiles; ++file) {
      if (only && *only != file) continue;
      for (const Holders& byte : bytes[file]) {
        if (byte.contains(owner)) return true;
      }
    }
    return false;
  }
  template <class IsGone>
  void dropLocks(const IsGone& isGone) {
    const std::vector<ModelLocks> before = locks;
    std::erase_if(locks, isGone);
    for (const ModelLocks& gone : before) {
      // The locks go with the owner's last stateid in the file.
      const bool isLeft = std::ranges::any_of(locks, [&](const auto& other) {
        return other.owner == gone.owner && other.file == gone.file;
      });
      if (!isLeft) release(gone.file, {0, kPlaces - 1}, gone.owner);
    }
  }
  void drop(const FsObjectStateId& open) {
    dropLocks([&](const auto& state) { return state.open.other == open.other; });
    std::erase_if(opens, [&](const auto& known) { return known.id.other == open.other; });
  }
  void dropClient(std::uint64_t client) {
    dropLocks([&](const auto& state) { return state.owner.clientId == client; });
    std::erase_if(opens, [&](const auto& open) { return open.owner.clientId == client; });
  }
};

// ---- One thread, everything compared

class History {
 public:
  explicit History(std::uint64_t seed) : m_dice{std::mt19937_64(seed)} {
    m_table.setSilence([this](std::uint64_t client) { return m_silent.contains(client); });
  }

  void step() {
    struct Row {
      unsigned weight;
      void (History::*run)();
    };
    static constexpr Row kRows[] = {
        {20, &History::open},      {6, &History::close},    {6, &History::downgrade},
        {30, &History::lock},      {20, &History::relock},  {20, &History::unlock},
        {10, &History::testLock},  {4, &History::release},  {4, &History::freeState},
        {6, &History::useUnnamed}, {6, &History::useNamed}, {3, &History::fallSilent},
        {1, &History::restart},    {3, &History::askOld},
    };
    unsigned sum = 0;
    for (const Row& row : kRows) sum += row.weight;
    unsigned at = m_dice.roll(sum);
    for (const Row& row : kRows) {
      if (at < row.weight) return (this->*row.run)();
      at -= row.weight;
    }
  }
  // What has been met, by operation and status.
  const std::map<std::string, unsigned>& tally() const { return m_tally; }

 private:
  std::uint64_t pickClient() {
    // Who is silent does nothing.
    std::vector<std::uint64_t> awake;
    for (const std::uint64_t client : m_clients) {
      if (!m_silent.contains(client)) awake.push_back(client);
    }
    return awake[m_dice.roll(static_cast<unsigned>(awake.size()))];
  }
  StateOwner pickOwner() { return {pickClient(), std::string(1, "ab"[m_dice.roll(kOwners)])}; }
  template <class State>
  State* pick(std::vector<State>& states) {
    std::vector<State*> usable;
    for (State& state : states) {
      if (!m_silent.contains(state.owner.clientId)) usable.push_back(&state);
    }
    return usable.empty() ? nullptr : usable[m_dice.roll(static_cast<unsigned>(usable.size()))];
  }
  StateTable::Reference reference(const FsObjectStateId& id, std::uint64_t client, unsigned file) {
    // As in either minor version.
    const bool hasSession = m_dice.oneIn(2);
    const std::uint32_t sequenceId = hasSession && m_dice.oneIn(2) ? 0 : id.sequenceId;
    return {{sequenceId, id.other}, hasSession ? client : 0, fileKey(file)};
  }
  void met(const std::string& operation, OperationResult status) {
    ++m_tally[operation + " " + std::to_string(static_cast<unsigned>(status))];
  }

  // The silent ones among those in the way may have lost what they had, and when nobody else is in
  // the way they must have.
  bool settle(const std::set<std::uint64_t>& objectors, std::uint64_t self) {
    bool isRefused = false;
    for (const std::uint64_t client : objectors) {
      isRefused = isRefused || client == self || !m_silent.contains(client);
    }
    for (const std::uint64_t client : m_clients) {
      if (client == self) continue;
      const bool hasState = std::ranges::any_of(
          m_model.opens, [&](const auto& o) { return o.owner.clientId == client; });
      const bool mayLose = objectors.contains(client) && m_silent.contains(client);
      if (!mayLose || !isRefused) {
        EXPECT_EQ(m_table.hasState(client), hasState && !mayLose);
      }
      if (!mayLose || m_table.hasState(client)) continue;
      EXPECT_TRUE(m_table.wasRevoked(client));
      for (const auto& open : m_model.opens) {
        if (open.owner.clientId == client) m_expired[client].push_back(open.id);
      }
      for (const auto& locks : m_model.locks) {
        if (locks.owner.clientId == client) m_expired[client].push_back(locks.id);
      }
      m_model.dropClient(client);
      met("expire", OperationResult::OK);
    }
    return isRefused;
  }

  void open() {
    const StateOwner owner = pickOwner();
    const unsigned file = m_dice.roll(kFiles);
    const unsigned access = 1 + m_dice.roll(3);
    const unsigned deny = m_dice.oneIn(6) ? m_dice.roll(4) : 0;
    const auto objectors = m_model.objectors(m_model.find(owner, file), file, access, deny);
    StateTable::Opened opened;
    const auto status = m_table.open(fileKey(file), owner, {access, deny}, {}, opened);
    met("open", status);
    const bool isRefused = settle(objectors, owner.clientId);
    ASSERT_EQ(status, isRefused ? OperationResult::ShareDenied : OperationResult::OK);
    if (isRefused) return;
    ModelOpen* known = m_model.find(owner, file);
    ASSERT_EQ(opened.isNew, known == nullptr);
    if (known == nullptr) {
      m_model.opens.push_back({owner, file, access, deny, opened.id});
      ASSERT_EQ(opened.id.sequenceId, 1U);
      return;
    }
    known->access |= access;
    known->deny |= deny;
    advance(known->id, opened.id);
  }

  static void advance(FsObjectStateId& known, const FsObjectStateId& next) {
    ASSERT_EQ(next, (FsObjectStateId{known.sequenceId + 1, known.other}));
    known = next;
  }

  void close() {
    ModelOpen* open = pick(m_model.opens);
    if (open == nullptr) return;
    FsObjectStateId closed;
    ASSERT_EQ(m_table.close(reference(open->id, open->owner.clientId, open->file), closed),
              OperationResult::OK);
    m_old.emplace_back(open->id, OperationResult::BadStateId);
    m_model.drop(FsObjectStateId(open->id));
  }

  void downgrade() {
    ModelOpen* open = pick(m_model.opens);
    if (open == nullptr) return;
    const unsigned access = 1 + m_dice.roll(3);
    const unsigned deny = m_dice.roll(4);
    const bool isWider = (access & ~open->access) != 0 || (deny & ~open->deny) != 0;
    FsObjectStateId id;
    const auto status =
        m_table.downgrade(reference(open->id, open->owner.clientId, open->file), access, deny, id);
    met("downgrade", status);
    ASSERT_EQ(status, isWider ? OperationResult::InvalidArgument : OperationResult::OK);
    if (isWider) return;
    open->access = access;
    open->deny = deny;
    advance(open->id, id);
  }

  // `open` is what the lock is made through, `state` the stateid of locks that is used.
  void lockThrough(const ModelOpen& through, const StateOwner& owner, ModelLocks* state) {
    const ModelOpen open = through;
    const Places places = m_dice.places();
    const bool isWrite = m_dice.oneIn(2);
    const bool isPermitted = (open.access & (isWrite ? 2U : 1U)) != 0;
    const auto objectors = isPermitted ? m_model.holders(open.file, places, isWrite, owner)
                                       : std::set<std::uint64_t>();
    FsObjectStateId id;
    LockDenied denied;
    const std::optional<StateOwner> newOwner =
        state == nullptr ? std::optional(owner) : std::nullopt;
    const auto status =
        m_table.lock(reference(state == nullptr ? open.id : state->id, owner.clientId, open.file),
                     newOwner, {places.bytes(), isWrite}, id, denied);
    met("lock", status);
    if (!isPermitted) {
      ASSERT_EQ(status, OperationResult::OpenMode);
      return;
    }
    if (settle(objectors, owner.clientId)) {
      ASSERT_EQ(status, OperationResult::Denied);
      return expectHeld(denied, open.file, places, isWrite, owner);
    }
    ASSERT_EQ(status, OperationResult::OK);
    m_model.hold(open.file, places, owner, isWrite);
    const auto known = std::ranges::find_if(m_model.locks, [&](const auto& locks) {
      return locks.owner == owner && locks.open.other == open.id.other;
    });
    if (known == m_model.locks.end()) {
      ASSERT_EQ(id.sequenceId, 1U);
      m_model.locks.push_back({owner, open.id, open.file, id});
    } else {
      advance(known->id, id);
    }
  }

  void lock() {
    if (const ModelOpen* open = pick(m_model.opens)) {
      const std::string name(1, "xy"[m_dice.roll(kOwners)]);
      lockThrough(*open, {open->owner.clientId, name}, nullptr);
    }
  }
  void relock() {
    if (ModelLocks* state = pick(m_model.locks)) {
      const StateOwner owner = state->owner;
      lockThrough(m_model.openOf(*state), owner, state);
    }
  }

  // Who is told to be in the way holds exactly that, and it is in the way.
  void expectHeld(const LockDenied& denied, unsigned file, const Places& places, bool isWrite,
                  const StateOwner& owner) {
    const bool holdsForWriting = denied.lockType == 2;
    const auto holds = [&](std::uint64_t place) {
      const auto& byte = m_model.bytes[file][place];
      const auto at = byte.find(denied.owner);
      return at != byte.end() && at->second == holdsForWriting;
    };
    ASSERT_NE(denied.owner, owner);
    ASSERT_TRUE(isWrite || holdsForWriting);
    ASSERT_LE(denied.offset, places.last);
    const bool isOpenEnded = denied.length == UINT64_MAX;
    const std::uint64_t last = isOpenEnded ? kPlaces - 1 : denied.offset + denied.length - 1;
    ASSERT_GE(last, places.first);
    ASSERT_LT(last, isOpenEnded ? kPlaces : kPlaces - 1);
    for (std::uint64_t i = denied.offset; i <= last; ++i) ASSERT_TRUE(holds(i)) << i;
    // All of it, joined.
    if (denied.offset > 0) {
      ASSERT_FALSE(holds(denied.offset - 1));
    }
    if (!isOpenEnded) {
      ASSERT_FALSE(holds(last + 1));
    }
  }

  void unlock() {
    ModelLocks* state = pick(m_model.locks);
    if (state == nullptr) return;
    const Places places = m_dice.places();
    FsObjectStateId id;
    ASSERT_EQ(m_table.unlock(reference(state->id, state->owner.clientId, state->file),
                             places.bytes(), id),
              OperationResult::OK);
    m_model.release(state->file, places, state->owner);
    advance(state->id, id);
  }

  void testLock() {
    const StateOwner owner{pickClient(), std::string(1, "xy"[m_dice.roll(kOwners)])};
    const unsigned file = m_dice.roll(kFiles);
    const Places places = m_dice.places();
    const bool isWrite = m_dice.oneIn(2);
    const auto objectors = m_model.holders(file, places, isWrite, owner);
    LockDenied denied;
    const auto status = m_table.testLock(fileKey(file), owner, {places.bytes(), isWrite}, denied);
    met("test", status);
    const bool isRefused = settle(objectors, owner.clientId);
    ASSERT_EQ(status, isRefused ? OperationResult::Denied : OperationResult::OK);
    if (isRefused) expectHeld(denied, file, places, isWrite, owner);
  }

  void release() {
    const StateOwner owner{pickClient(), std::string(1, "xy"[m_dice.roll(kOwners)])};
    const auto status = m_table.releaseLockOwner(owner);
    met("release", status);
    const bool holds = m_model.holdsAny(owner);
    ASSERT_EQ(status, holds ? OperationResult::LocksHeld : OperationResult::OK);
    if (!holds) m_model.dropLocks([&](const auto& locks) { return locks.owner == owner; });
  }

  void freeState() {
    ModelLocks* state = pick(m_model.locks);
    if (state == nullptr) return;
    const bool holds = m_model.holdsAny(state->owner, state->file);
    const auto status = m_table.free(state->id, state->owner.clientId);
    met("free", status);
    ASSERT_EQ(status, holds ? OperationResult::LocksHeld : OperationResult::OK);
    if (holds) return;
    const FsObjectStateId gone = state->id;
    m_old.emplace_back(gone, OperationResult::BadStateId);
    m_model.dropLocks([&](const auto& locks) { return locks.id.other == gone.other; });
  }

  void useUnnamed() {
    const unsigned file = m_dice.roll(kFiles);
    const unsigned access = 1 + m_dice.roll(2);
    const auto objectors = m_model.objectors(nullptr, file, access, 0);
    const bool isFree = m_table.isFree(fileKey(file), access);
    ASSERT_EQ(isFree, !settle(objectors, 0));
  }

  void useNamed() {
    const ModelLocks* state = pick(m_model.locks);
    const ModelOpen* open = pick(m_model.opens);
    if (open == nullptr) return;
    const bool byLocks = state != nullptr && m_dice.oneIn(2);
    const ModelOpen& used = byLocks ? m_model.openOf(*state) : *open;
    const unsigned access = 1 + m_dice.roll(3);
    StateTable::Held held;
    const auto status = m_table.find(
        reference(byLocks ? state->id : used.id, used.owner.clientId, used.file), access, held);
    ASSERT_EQ(status,
              (access & ~used.access) != 0 ? OperationResult::OpenMode : OperationResult::OK);
  }

  // One is silent for a while, or is heard of again.
  void fallSilent() {
    if (!m_silent.empty()) {
      m_silent.clear();
    } else {
      m_silent.insert(m_clients[m_dice.roll(kClients)]);
    }
  }

  void restart() {
    const unsigned which = m_dice.roll(kClients);
    const std::uint64_t client = m_clients[which];
    m_table.dropClient(client);
    m_model.dropClient(client);
    for (const FsObjectStateId& id : m_expired[client]) {
      m_old.emplace_back(id, OperationResult::BadStateId);
    }
    m_expired.erase(client);
    m_silent.erase(client);
    ASSERT_FALSE(m_table.hasState(client));
    ASSERT_FALSE(m_table.wasRevoked(client));
    m_clients[which] = ++m_lastClient;
  }

  void askOld() {
    if (!m_old.empty()) {
      const auto& [id, worth] = m_old[m_dice.roll(static_cast<unsigned>(m_old.size()))];
      ASSERT_EQ(m_table.test(id, 0), worth);
    }
    for (auto& [client, ids] : m_expired) {
      if (ids.empty() || m_silent.contains(client)) continue;
      ASSERT_EQ(m_table.test(ids.back(), m_dice.oneIn(2) ? client : 0), OperationResult::Expired);
      ASSERT_EQ(m_table.free(ids.back(), client), OperationResult::OK);
      met("free", OperationResult::Expired);
      ids.pop_back();
      ASSERT_EQ(m_table.wasRevoked(client), !ids.empty());
    }
  }

  Dice m_dice;
  StateTable m_table;
  Model m_model;
  std::set<std::uint64_t> m_silent;
  std::array<std::uint64_t, kClients> m_clients{1, 2, 3};
  std::uint64_t m_lastClient = kClients;
  std::vector<std::pair<FsObjectStateId, OperationResult>> m_old;
  std::map<std::uint64_t, std::vector<FsObjectStateId>> m_expired;
  std::map<std::string, unsigned> m_tally;
};

TEST(StateHistory, EverythingIsAsTheModelSays) {
  const std::uint64_t seed = fromEnvironment("NFSLIB_MODEL_SEED", std::random_device()());
  const std::uint64_t operations = fromEnvironment("NFSLIB_MODEL_OPERATIONS", 100'000);
  SCOPED_TRACE("NFSLIB_MODEL_SEED=" + std::to_string(seed));
  History history(seed);
  for (std::uint64_t i = 0; i < operations && !::testing::Test::HasFailure(); ++i) {
    SCOPED_TRACE(i);
    history.step();
  }
  if (operations < 20'000) return;  // somebody wants a short run
  for (const char* line : {"open 0", "open 10015", "downgrade 0", "downgrade 22", "lock 0",
                           "lock 10010", "lock 10038", "test 0", "test 10010", "release 0",
                           "release 10037", "free 0", "free 10037", "free 10011", "expire 0"}) {
    EXPECT_GE(history.tally().contains(line) ? history.tally().at(line) : 0U, 10U) << line;
  }
}

// ---- Three threads: nobody is ever granted what does not go with what somebody else holds.

// How a byte is held: 1 for each reader, kWriting for a writer.
constexpr int kWriting = 1000;
using Grid = std::array<std::array<std::atomic<int>, kPlaces>, kFiles>;

class Locker {
 public:
  Locker(StateTable& table, Grid& grid, std::array<std::atomic<std::uint64_t>, kClients>& silent,
         unsigned number, std::uint64_t seed)
      : m_table(table),
        m_grid(grid),
        m_silent(silent[number]),
        m_client(number + 1),
        m_dice{std::mt19937_64(seed + number)} {}

  void run(unsigned rounds) {
    for (unsigned i = 0; i < rounds && !::testing::Test::HasFailure(); ++i) {
      begin();
      for (unsigned step = m_dice.roll(12); step > 0; --step) lock();
      end();
    }
  }

 private:
  void begin() {
    m_file = m_dice.roll(kFiles);
    const unsigned deny = m_dice.oneIn(8) ? 2 : 0;
    StateTable::Opened opened;
    const StateOwner owner{m_client, "owner"};
    m_isOpen = m_table.open(fileKey(m_file), owner, {3, deny}, {}, opened) == OperationResult::OK;
    m_open = opened.id;
  }

  void lock() {
    if (!m_isOpen) return;
    const Places places = m_dice.places();
    const bool isWrite = m_dice.oneIn(2);
    const StateOwner owner{m_client, std::string(1, "xy"[m_dice.roll(kOwners)])};
    const StateTable::RangeLock wanted{places.bytes(), isWrite};
    FsObjectStateId id;
    LockDenied denied;
    const auto status =
        m_table.lock({m_open, m_client, fileKey(m_file)}, owner, wanted, id, denied);
    if (status == OperationResult::Denied) return;
    ASSERT_EQ(status, OperationResult::OK);
    mark(places, isWrite ? kWriting : 1, isWrite);
    if (m_dice.oneIn(4)) std::this_thread::yield();
    mark(places, isWrite ? -kWriting : -1, isWrite);
    ASSERT_EQ(m_table.unlock({id, m_client, fileKey(m_file)}, {0, UINT64_MAX}, id),
              OperationResult::OK);
    // And one that stays, which stands in the way of others only.
    if (m_dice.oneIn(3))
      m_table.lock({m_open, m_client, fileKey(m_file)}, owner, wanted, id, denied);
  }

  void mark(const Places& places, int change, bool isWrite) {
    for (unsigned i = places.first; i <= places.last; ++i) {
      const int before = m_grid[m_file][i].fetch_add(change);
      const int others = change > 0 ? before : before + change;
      ASSERT_TRUE(isWrite ? others == 0 : others < kWriting) << "granted twice";
    }
  }

  void end() {
    if (m_dice.oneIn(10)) {
      // Falls silent with all that it has, and comes again as another.
      m_silent = m_client;
      for (unsigned i = 0; i < 20; ++i) std::this_thread::yield();
      m_table.dropClient(m_client);
      m_client += kClients;
    } else if (m_isOpen) {
      FsObjectStateId closed;
      ASSERT_EQ(m_table.close({m_open, m_client, fileKey(m_file)}, closed), OperationResult::OK);
    }
    ASSERT_FALSE(m_table.hasState(m_client));
  }

  StateTable& m_table;
  Grid& m_grid;
  std::atomic<std::uint64_t>& m_silent;
  std::uint64_t m_client;
  Dice m_dice;
  unsigned m_file = 0;
  bool m_isOpen = false;
  FsObjectStateId m_open;
};

TEST(StateHistory, ThreeThreadsAreNeverGrantedWhatDoesNotGoTogether) {
  const std::uint64_t seed = fromEnvironment("NFSLIB_MODEL_SEED", std::random_device()());
  SCOPED_TRACE("NFSLIB_MODEL_SEED=" + std::to_string(seed));
  StateTable table;
  Grid grid{};
  // The client of each thread that is silent; ids are not used again.
  std::array<std::atomic<std::uint64_t>, kClients> silent{};
  table.setSilence([&](std::uint64_t client) {
    return std::ranges::any_of(silent, [&](const auto& one) { return one == client; });
  });
  const auto rounds =
      static_cast<unsigned>(fromEnvironment("NFSLIB_MODEL_OPERATIONS", 30'000) / 10);
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < kClients; ++i) {
    threads.emplace_back([&, i] { Locker(table, grid, silent, i, seed).run(rounds); });
  }
  for (std::thread& thread : threads) thread.join();
  for (std::uint64_t client = 1; client < rounds * kClients; ++client) {
    ASSERT_FALSE(table.hasState(client)) << client;
  }
}

}  // namespace
}  // namespace nfslib::testing::model
