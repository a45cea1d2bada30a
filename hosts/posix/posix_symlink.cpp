#include "posix/posix_symlink.h"

#include "posix/attributes.h"

#include <climits>

#include <unistd.h>

namespace nfslib::hosts::posix {

std::string PosixSymlink::GetTarget() {
  std::string target(PATH_MAX, '\0');  // no link is longer
  const ssize_t length = ::readlinkat(m_link.get(), "", target.data(), target.size());
  if (length < 0) fail(errno, "read the symbolic link " + m_shown);
  target.resize(static_cast<std::size_t>(length));
  return target;
}

MetaData PosixSymlink::GetMetaData() const { return readMetaData(m_link.get(), m_fileId, m_shown); }

void PosixSymlink::SetMetaData(const MetaData& md) {
  changeMetaData(*m_tree, m_link.get(), md, m_shown);
}

}  // namespace nfslib::hosts::posix
