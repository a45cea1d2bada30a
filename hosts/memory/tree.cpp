#include "memory/tree.h"

#include <deque>
#include <utility>

namespace nfslib::hosts::memory {

Tree::Tree(std::uint64_t capacity)
    : space(capacity), root(std::make_shared<DirectoryNode>(nextFileId())) {
  root->addLinks(2);
}

// Directory after directory, not each from within its parent's destructor: a client decides how
// deep the tree is, and the stack would have to be as deep. Nobody else holds an object by now.
Tree::~Tree() {
  std::deque<std::shared_ptr<Node>> nodes{std::move(root)};
  while (!nodes.empty()) {
    const auto node = std::move(nodes.front());
    nodes.pop_front();
    if (node->is(FileType::Directory)) {
      static_cast<DirectoryNode&>(*node).entries.drainInto(nodes);
    }
  }
}

}  // namespace nfslib::hosts::memory
