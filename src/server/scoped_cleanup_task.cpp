#include "server/scoped_cleanup_task.h"

#include "common/log.h"

#include <utility>

namespace nfslib::utility {

ScopedCleanupTask::ScopedCleanupTask(std::function<void()> task, std::string name)
    : m_task(std::move(task)), m_name(std::move(name)) {
  log().dbg("Scoped cleanup task [%1] has been registered.", m_name);
}

ScopedCleanupTask::~ScopedCleanupTask() {
  log().dbg("Running scoped cleanup task [%1].", m_name);
  try {
    m_task();
  } catch (std::exception& e) {
    log().errWith(e, "Scoped cleanup task [%1] has failed to start.", m_name);
  } catch (...) {
    log().err("Scoped cleanup task [%1] has failed; unknown error.", m_name);
  }
}

}  // namespace nfslib::utility
