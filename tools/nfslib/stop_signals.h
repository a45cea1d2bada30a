#pragma once

#include <functional>

namespace nfslib::tool {

// SIGINT and SIGTERM as something to wait for. To be made before the library starts threads, which
// inherit that both are blocked.
class StopSignals {
 public:
  StopSignals();
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  void wait() const;
  // The same, or until `isOver` holds, which is asked whenever the table of mounts changes.
  void waitUnless(const std::function<bool()>& isOver) const;

 private:
  int m_descriptor;
};

}  // namespace nfslib::tool
