#include "nfs4/pseudo_root.h"

#include "server/nfs_service.h"

namespace nfslib::nfs4 {

MetaData pseudoRootMetaData(const NfsService& service) {
  MetaData md;
  md.type = static_cast<std::uint32_t>(FileType::Directory);
  if (!service.profile().isModern) return md;
  md.fileId = kPseudoRootFileId;
  md.linkCount = 2;
  md.mode = 0555;
  md.accessTime = md.modifyTime = md.changeTime = service.exportsChanged();
  return md;
}

}  // namespace nfslib::nfs4
