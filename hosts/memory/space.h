#pragma once

#include <atomic>
#include <cstdint>

namespace nfslib::hosts::memory {

// The bytes that a tree may use, and those in use. Any thread may call.
class Space {
 public:
  explicit Space(std::uint64_t capacity) : m_capacity(capacity) {}

  // Throws OutOfSpaceNfsException, having taken nothing, when fewer than `bytes` are left.
  void take(std::uint64_t bytes);
  void giveBack(std::uint64_t bytes) noexcept;

  std::uint64_t capacity() const { return m_capacity; }
  std::uint64_t used() const { return m_used.load(std::memory_order_relaxed); }

 private:
  const std::uint64_t m_capacity;
  std::atomic<std::uint64_t> m_used{0};
};

// Bytes that were taken for something about to be made. What is not kept goes back.
class Reservation {
 public:
  Reservation(Space& space, std::uint64_t bytes) : m_space(space), m_bytes(bytes) {
    space.take(bytes);
  }
  Reservation(const Reservation&) = delete;
  Reservation& operator=(const Reservation&) = delete;
  ~Reservation() { m_space.giveBack(m_bytes); }

  // `bytes` of the reservation now belong to somebody who will give them back.
  void keep(std::uint64_t bytes) { m_bytes -= bytes; }

 private:
  Space& m_space;
  std::uint64_t m_bytes;
};

}  // namespace nfslib::hosts::memory
