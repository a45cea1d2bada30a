#pragma once

#include <nfslib/file_system.h>

#include "posix/tree.h"

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

namespace nfslib::hosts::posix {

class PosixSymlink : public Symlink {
 public:
  // `link` has the symbolic link itself open (O_PATH); `shown` is its name in messages.
  PosixSymlink(std::shared_ptr<Tree> tree, Descriptor link, std::uint64_t fileId, std::string shown)
      : m_tree(std::move(tree)),
        m_link(std::move(link)),
        m_fileId(fileId),
        m_shown(std::move(shown)) {}

  std::string GetTarget() override;
  MetaData GetMetaData() const override;
  void SetMetaData(const MetaData& md) override;

 private:
  const std::shared_ptr<Tree> m_tree;
  const Descriptor m_link;
  const std::uint64_t m_fileId;
  const std::string m_shown;
};

}  // namespace nfslib::hosts::posix
