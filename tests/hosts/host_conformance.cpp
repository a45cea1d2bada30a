#include "hosts/host_conformance.h"

#include <nfslib/exception.h>

#include <sstream>

#include <gmock/gmock.h>

namespace nfslib::conformance {

namespace {

void paint(Directory& directory, const std::string& path, Picture& picture) {
  for (const auto pass = directory.Enumerate(); pass->IsValid(); pass->MoveNext()) {
    const DirEntry entry = pass->Current();
    if (entry.name == "." || entry.name == "..") continue;
    const std::string place = path + "/" + entry.name;
    const MetaData& md = entry.metaData;
    std::ostringstream text;
    text << "type " << md.type << ", id " << md.fileId << ", owner " << md.uid << ":" << md.gid
         << ", mode " << std::oct << md.mode << std::dec;
    if (isType(md, FileType::Directory)) {
      paint(*directory.OpenSubdir(entry.name), place, picture);
    } else {
      text << ", size " << md.size << ", names " << md.linkCount;
      if (isType(md, FileType::SymbolicLink)) {
        text << ", to " << directory.OpenSymlink(entry.name)->GetTarget();
      } else if (isType(md, FileType::Regular)) {
        text << ", holds " << contentOf(*directory.OpenFile(entry.name));
      }
    }
    EXPECT_TRUE(picture.emplace(place, text.str()).second) << place << " is listed twice";
  }
}

}  // namespace

Picture pictureOf(Directory& directory) {
  Picture picture;
  paint(directory, "", picture);
  return picture;
}

std::string contentOf(File& file) {
  std::string text(file.GetMetaData().size, '\0');
  file.Read(0, text.data(), text.size());
  return text;
}

void put(File& file, const std::string& text, unsigned long offset) {
  EXPECT_EQ(file.Write(offset, text.data(), text.size()), text.size());
}

std::vector<std::string> namesIn(const Directory& directory) {
  std::vector<std::string> names;
  for (const auto pass = directory.Enumerate(); pass->IsValid(); pass->MoveNext()) {
    const std::string& name = pass->Current().name;
    if (name != "." && name != "..") names.push_back(name);
  }
  return names;
}

std::shared_ptr<File> HostConformance::file(const std::string& name, const std::string& text) {
  auto created = root->CreateFile(name);
  put(*created, text);
  return created;
}

void expectRefused(const std::function<void()>& action, const std::string& text) {
  try {
    action();
    ADD_FAILURE() << "was not refused";
  } catch (const INfsException& refusal) {
    EXPECT_THAT(refusal.what(), testing::HasSubstr(text));
    EXPECT_STRNE(refusal.what(), "");
  }
}

}  // namespace nfslib::conformance
