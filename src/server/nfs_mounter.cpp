#include <nfslib/nfs_mounter.h>
#include <nfslib/nfs_path.h>
#include <nfslib/nfs_server.h>

#include "common/log.h"
#include "server/host_commands.h"

#include <filesystem>
#include <stdexcept>

#include <uuid/uuid.h>

namespace nfslib {

namespace {

std::string newExportName() {
  uuid_t uuid;
  uuid_generate(uuid);
  return utility::guidToStr(uuid);
}

// Anything else would fail at the very end, and in the words of a command.
void requireDirectory(const std::string& mountPoint) {
  std::error_code error;
  const auto status = std::filesystem::status(mountPoint, error);
  if (status.type() == std::filesystem::file_type::directory) return;
  if (status.type() == std::filesystem::file_type::not_found) {
    throw std::runtime_error(
        message("The mount point [%1] does not exist; create the directory first.", mountPoint));
  }
  if (error) {
    throw std::runtime_error(
        message("The mount point [%1] cannot be used: %2.", mountPoint, error.message()));
  }
  throw std::runtime_error(message("The mount point [%1] is not a directory.", mountPoint));
}

void mount(const std::string& mountPoint, const NfsPath& exportPath, const NfsMountSpec& spec) {
  NfsServer& server = NfsServer::instance();
  const unsigned port = server.getNfsPort();
  NfsMountSpec told = spec;
  told.useMountPort = server.getMountPort();
  system::mountShare(mountPoint, server.getAddress(), exportPath, port, told);
}

// Mounts version 4 where that is wanted, and version 3 where it is not or does not work.
void mountWithFallback(const std::string& mountPoint, const NfsPath& exportPath,
                       const NfsMountSpec& spec) {
  try {
    return mount(mountPoint, exportPath, spec);
  } catch (std::exception& e) {
    if (spec.version <= 3) throw;
    log().err(e);
  }
  CNfsLibLogger::getInstance().getImpl()->addSessionWarn(
      "Unable to mount backup using NFS4. NFS3 will be forced. Check your OS documentation for "
      "proper NFS4 configuration");
  NfsMountSpec version3 = spec;
  version3.version = 3;
  NfsServer::instance().reRunServer(version3);
  mount(mountPoint, exportPath, version3);
}

}  // namespace

NfsMounter::NfsMounter(const std::string& mountPoint, FileSystem& fs, const NfsMountSpec& spec,
                       std::unique_ptr<INfsLibLogSection> logSection)
    : m_mountPoint(mountPoint),
      m_exportName(newExportName()),
      m_skipAddressAlias(spec.skipAddressAlias) {
  CNfsLibLogger& logger = CNfsLibLogger::getInstance();
  if (logSection) logger.setImpl(std::move(logSection));
  const NfsPath exportPath(m_exportName);
  bool exported = false;
  try {
    requireDirectory(mountPoint);
    NfsServer::instance().exportFileSystem(exportPath, fs, spec);
    exported = true;
    mountWithFallback(mountPoint, exportPath, spec);
  } catch (std::exception& e) {
    if (exported) {
      try {
        NfsServer::instance().removeExport(exportPath);
      } catch (std::exception& second) {
        log().err(second);
      }
    }
    log().err(e);
    logger.resetImpl();
    throw;
  }
}

NfsMounter::~NfsMounter() {
  try {
    system::unmountShare(m_mountPoint, m_skipAddressAlias);
    NfsServer::instance().removeExport(NfsPath(m_exportName));
  } catch (const std::exception& e) {
    log().info(e.what());
  }
  CNfsLibLogger::getInstance().resetImpl();
}

}  // namespace nfslib
