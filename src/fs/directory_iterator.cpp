#include <nfslib/directory_iterator.h>

namespace nfslib {

DirectoryIterator::DirectoryIterator(const std::shared_ptr<Directory>& dir)
    : m_enumerator(dir->Enumerate()) {
  if (m_enumerator && !m_enumerator->IsValid()) m_enumerator.reset();
}

DirectoryIterator& DirectoryIterator::operator++() {
  if (m_enumerator) {
    m_enumerator->MoveNext();
    if (!m_enumerator->IsValid()) m_enumerator.reset();
  }
  return *this;
}

}  // namespace nfslib
