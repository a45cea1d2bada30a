#pragma once

#include <functional>
#include <string>

namespace nfslib::utility {

// Runs a named task when its scope ends, whatever ends it. Nothing that the task throws gets out.
class ScopedCleanupTask {
 public:
  ScopedCleanupTask(std::function<void()> task, std::string name);
  ~ScopedCleanupTask();
  ScopedCleanupTask(const ScopedCleanupTask&) = delete;
  ScopedCleanupTask& operator=(const ScopedCleanupTask&) = delete;

 private:
  std::function<void()> m_task;
  std::string m_name;
};

}  // namespace nfslib::utility
