// Two directories shown as one, read-only: what UPPER has hides what LOWER has under the same name,
// and directories that both have are one with the entries of both. Neither is to change meanwhile:
// nobody tells the library.
//
//   overlay UPPER LOWER

#include <nfslib/hosts/posix_file_system.h>

#include "read_only.h"
#include "serve.h"

#include <algorithm>
#include <set>

namespace {

using nfslib::DirEntry;
using nfslib::FileType;
using nfslib::MetaData;

// Each tree counts its objects by itself, so equal numbers may mean two objects: those of the upper
// tree become even here and those of the lower one odd.
enum class Layer : std::uint64_t { upper, lower };

MetaData shown(MetaData md, Layer layer) {
  md.fileId = md.fileId * 2 + static_cast<std::uint64_t>(layer);
  return md;
}

class File : public read_only::File {
 public:
  File(std::shared_ptr<nfslib::File> file, Layer layer) : m_file(std::move(file)), m_layer(layer) {}
  unsigned long Read(unsigned long offset, void* buffer, unsigned long length) override {
    return m_file->Read(offset, buffer, length);
  }
  MetaData GetMetaData() const override { return shown(m_file->GetMetaData(), m_layer); }

 private:
  const std::shared_ptr<nfslib::File> m_file;
  const Layer m_layer;
};

class Symlink : public nfslib::Symlink {
 public:
  Symlink(std::shared_ptr<nfslib::Symlink> link, Layer layer)
      : m_link(std::move(link)), m_layer(layer) {}
  std::string GetTarget() override { return m_link->GetTarget(); }
  MetaData GetMetaData() const override { return shown(m_link->GetMetaData(), m_layer); }
  void SetMetaData(const MetaData&) override { read_only::refuse(); }

 private:
  const std::shared_ptr<nfslib::Symlink> m_link;
  const Layer m_layer;
};

// One directory of either tree, or of both.
class Directory : public read_only::Directory {
 public:
  // One of the two may be empty.
  Directory(std::shared_ptr<nfslib::Directory> upper, std::shared_ptr<nfslib::Directory> lower)
      : m_upper(std::move(upper)), m_lower(std::move(lower)) {}

  std::shared_ptr<nfslib::DirectoryEnumerator> Enumerate() const override {
    std::vector<DirEntry> entries;
    std::set<std::string> hidden{".", ".."};
    for (const auto layer : {Layer::upper, Layer::lower}) {
      if (!at(layer)) continue;
      const auto pass = at(layer)->Enumerate();
      for (; pass && pass->IsValid(); pass->MoveNext()) {
        const std::string& name = pass->Current().name;
        if (!hidden.insert(name).second) continue;
        // A directory may be in both, so its attributes are those of both.
        if (isType(pass->Current().metaData, FileType::Directory)) {
          if (auto entry = TryGetEntryByName(name)) entries.push_back(*entry);
        } else {
          entries.push_back({name, shown(pass->Current().metaData, layer)});
        }
      }
    }
    return std::make_shared<read_only::Enumerator>(std::move(entries));
  }

  std::optional<DirEntry> TryGetEntryByName(Name name) const override {
    auto [layer, entry] = find(name);
    if (!entry) return std::nullopt;
    if (isType(entry->metaData, FileType::Directory)) {
      return DirEntry{name, openSubdir(name).GetMetaData()};
    }
    return DirEntry{name, shown(entry->metaData, layer)};
  }

  std::shared_ptr<nfslib::File> OpenFile(Name name) override {
    const Layer layer = layerOf(name);
    return std::make_shared<File>(at(layer)->OpenFile(name), layer);
  }
  std::shared_ptr<nfslib::Symlink> OpenSymlink(Name name) override {
    const Layer layer = layerOf(name);
    return std::make_shared<Symlink>(at(layer)->OpenSymlink(name), layer);
  }
  std::shared_ptr<nfslib::Directory> OpenSubdir(Name name) override {
    return std::make_shared<Directory>(openSubdir(name));
  }

  MetaData GetMetaData() const override {
    if (!m_upper) return shown(m_lower->GetMetaData(), Layer::lower);
    MetaData md = shown(m_upper->GetMetaData(), Layer::upper);
    if (m_lower) {
      // Clients keep a listing while the time stands still, and either tree may change it.
      const MetaData lower = m_lower->GetMetaData();
      md.modifyTime = std::max(md.modifyTime, lower.modifyTime);
      md.changeTime = std::max(md.changeTime, lower.changeTime);
    }
    return md;
  }

 private:
  const std::shared_ptr<nfslib::Directory>& at(Layer layer) const {
    return layer == Layer::upper ? m_upper : m_lower;
  }

  // The entry that shows, as its own tree tells of it, and which tree that is.
  std::pair<Layer, std::optional<DirEntry>> find(Name name) const {
    for (const auto layer : {Layer::upper, Layer::lower}) {
      if (!at(layer)) continue;
      if (auto entry = at(layer)->TryGetEntryByName(name)) return {layer, entry};
    }
    return {Layer::lower, std::nullopt};
  }
  Layer layerOf(Name name) const {
    const auto [layer, entry] = find(name);
    if (!entry) read_only::none(name);
    return layer;
  }

  Directory openSubdir(Name name) const {
    const auto [layer, entry] = find(name);
    if (!entry) read_only::none(name);
    auto top = at(layer)->OpenSubdir(name);  // throws when it is no directory
    if (layer == Layer::lower) return {nullptr, std::move(top)};
    // Below a directory of the upper tree only a directory of the lower one shows through.
    const auto below = m_lower ? m_lower->TryGetEntryByName(name) : std::nullopt;
    const bool isBoth = below && isType(below->metaData, FileType::Directory);
    return {std::move(top), isBoth ? m_lower->OpenSubdir(name) : nullptr};
  }

  const std::shared_ptr<nfslib::Directory> m_upper;
  const std::shared_ptr<nfslib::Directory> m_lower;
};

// The two trees are used, not owned.
class Overlay : public nfslib::FileSystem {
 public:
  Overlay(nfslib::FileSystem& upper, nfslib::FileSystem& lower)
      : m_root(std::make_shared<Directory>(upper.OpenRoot(), lower.OpenRoot())) {}
  std::shared_ptr<nfslib::Directory> OpenRoot() override { return m_root; }

 private:
  const std::shared_ptr<nfslib::Directory> m_root;
};

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 3) {
    std::cerr << "usage: overlay UPPER LOWER\n";
    return 2;
  }
  nfslib::hosts::PosixFileSystem upper(argv[1]);
  nfslib::hosts::PosixFileSystem lower(argv[2]);
  Overlay overlay(upper, lower);
  // Version 4 needs no port mapper and no MOUNT program, so nobody's privilege.
  return serve(overlay, {.version = 4, .skipAddressAlias = true});
} catch (const std::exception& failure) {
  std::cerr << failure.what() << '\n';
  return 1;
}
