#pragma once

#include <chrono>
#include <functional>

namespace nfslib::tool {

// SIGINT and SIGTERM as something to wait for, and SIGUSR1 as something to do meanwhile. To be made
// before the library starts threads, which inherit that all are blocked.
class StopSignals {
 public:
  // What is done while waiting, by the thread that waits.
  struct Meanwhile {
    std::function<void()> onUserSignal;
    std::function<void()> onInterval;       // empty: nothing
    std::chrono::milliseconds interval{0};  // between two of them
  };

  StopSignals();
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  void wait(const Meanwhile& meanwhile) const;
  // Whether one that stops has come already.
  bool hasCome() const;
  // The same, or until `isOver` holds, which is asked whenever the table of mounts changes.
  void waitUnless(const std::function<bool()>& isOver, const Meanwhile& meanwhile) const;

 private:
  // Takes one signal, if there is one; 0 when there is none.
  unsigned take() const;

  int m_descriptor;
};

}  // namespace nfslib::tool
