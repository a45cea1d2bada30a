#pragma once

#include <nfslib/file_system.h>

#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

/// \file
/// What the library expects of a host, as tests: any implementation of the classes of
/// `nfslib/file_system.h` can be run through them. They need the public headers and GoogleTest
/// alone, so these files can be copied next to a host of your own:
///
/// \code
/// INSTANTIATE_TEST_SUITE_P(MyHost, HostConformance, ::testing::Values(HostFactory{"MyHost", [] {
///   return HostUnderTest{std::make_unique<MyFileSystem>(), nullptr};
/// }}), hostName);
/// \endcode
///
/// The suite wants a tree that can be changed in every way: files, directories, symbolic links,
/// hard links and renames, by the user who runs it.

namespace nfslib::conformance {

/// A tree for one test, empty at first.
struct HostUnderTest {
  std::unique_ptr<FileSystem> tree;
  /// Whatever must outlive the tree (a scratch directory, say); may be empty.
  std::shared_ptr<void> resource;
};

struct HostFactory {
  std::string name;  ///< letters and digits
  std::function<HostUnderTest()> make;
};

inline std::ostream& operator<<(std::ostream& out, const HostFactory& host) {
  return out << host.name;
}
inline std::string hostName(const ::testing::TestParamInfo<HostFactory>& info) {
  return info.param.name;
}

/// Everything that is below a directory, by path: type, id, size, mode, owner, number of names, and
/// the content. Times are left out, since looking may move them.
using Picture = std::map<std::string, std::string>;
Picture pictureOf(Directory& directory);

/// The whole content of `file`, as far as its attributes say it goes.
std::string contentOf(File& file);
/// Writes `text` to byte `offset`.
void put(File& file, const std::string& text, unsigned long offset = 0);
/// The names that one pass over `directory` yields, "." and ".." left out, in its order.
std::vector<std::string> namesIn(const Directory& directory);

class HostConformance : public ::testing::TestWithParam<HostFactory> {
 protected:
  HostConformance() : host(GetParam().make()), root(host.tree->OpenRoot()) {}

  /// Creates the file `name` in the root, with `text` in it.
  std::shared_ptr<File> file(const std::string& name, const std::string& text = "");
  Picture picture() const { return pictureOf(*root); }

  HostUnderTest host;
  std::shared_ptr<Directory> root;
};

/// Expects that `action` throws an INfsException whose message contains `text`.
void expectRefused(const std::function<void()>& action, const std::string& text = "");

}  // namespace nfslib::conformance
