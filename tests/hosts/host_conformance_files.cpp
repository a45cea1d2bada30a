// Files: content, attributes, links, and what is left of a file without a name.

#include <nfslib/exception.h>

#include "hosts/host_conformance.h"

#include <gmock/gmock.h>

namespace nfslib::conformance {

using testing::Each;

TEST_P(HostConformance, FilesKeepEveryByte) {
  const auto created = root->CreateFile("data");
  EXPECT_EQ(created->GetMetaData().size, 0U);
  EXPECT_EQ(contentOf(*created), "");

  std::string text(300'000, '\0');  // no multiple of any block
  for (std::size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>(i * 7 + i / 251);
  put(*created, text);
  put(*created, "over", 65'534);
  text.replace(65'534, 4, "over");
  put(*created, "grown", 400'001);
  text.resize(400'001, '\0');
  text += "grown";
  put(*created, "", 12);

  EXPECT_EQ(created->GetMetaData().size, text.size());
  EXPECT_EQ(contentOf(*created), text);
  EXPECT_EQ(contentOf(*root->OpenFile("data")), text);

  std::string part(10, 'x');
  EXPECT_EQ(created->Read(text.size() - 4, part.data(), 10), 4U);
  EXPECT_EQ(part.substr(0, 4), "rown");
  EXPECT_EQ(created->Read(text.size() + 1000, part.data(), 10), 0U);
}

TEST_P(HostConformance, AFileCanHaveAGapBeyondFourGigabytes) {
  const auto created = file("sparse", "begin");
  const unsigned long far = (5UL << 30) + 3;
  put(*created, "end", far);
  EXPECT_EQ(created->GetMetaData().size, far + 3);

  std::string text(8, 'x');
  EXPECT_EQ(created->Read(far - 5, text.data(), text.size()), 8U);
  EXPECT_EQ(text, std::string(5, '\0') + "end");
  std::string gap(1 << 20, 'x');
  EXPECT_EQ(created->Read(4UL << 30, gap.data(), gap.size()), gap.size());
  EXPECT_THAT(gap, Each('\0'));
  EXPECT_EQ(created->Read(0, text.data(), 5), 5U);
  EXPECT_EQ(text.substr(0, 5), "begin");
}

TEST_P(HostConformance, WhatWasCutOffNeverShowsAgain) {
  for (const std::size_t kept : {0U, 1U, 100U, 4096U, 65'536U, 70'000U}) {
    const auto cut = file("cut" + std::to_string(kept), std::string(200'000, 'x'));
    MetaData md = cut->GetMetaData();
    md.size = kept;
    cut->SetMetaData(md);
    EXPECT_EQ(cut->GetMetaData().size, kept);
    md.size = 150'000;
    cut->SetMetaData(md);
    put(*cut, "y", 160'000);
    EXPECT_EQ(contentOf(*cut), std::string(kept, 'x') + std::string(160'000 - kept, '\0') + "y");
  }
}

TEST_P(HostConformance, AttributesAreTheSameWhereverTheyAreRead) {
  file("file", "12345");
  root->CreateSubdir("dir");
  root->CreateSymlink("link", "target");

  const auto inEntry = [&](const char* name) { return root->GetEntryByName(name).metaData; };
  EXPECT_EQ(root->OpenFile("file")->GetMetaData(), inEntry("file"));
  EXPECT_EQ(root->OpenSubdir("dir")->GetMetaData(), inEntry("dir"));
  EXPECT_EQ(root->OpenSymlink("link")->GetMetaData(), inEntry("link"));
  for (const auto pass = root->Enumerate(); pass->IsValid(); pass->MoveNext()) {
    const DirEntry& listed = pass->Current();
    if (listed.name == "." || listed.name == "..") continue;
    EXPECT_EQ(listed.metaData, inEntry(listed.name.c_str())) << listed.name;
    EXPECT_EQ(root->TryGetEntryByName(listed.name)->name, listed.name);
  }
  EXPECT_TRUE(isType(inEntry("file"), FileType::Regular));
  EXPECT_TRUE(isType(inEntry("dir"), FileType::Directory));
  EXPECT_TRUE(isType(inEntry("link"), FileType::SymbolicLink));
  EXPECT_EQ(inEntry("file").size, 5U);
  EXPECT_EQ(inEntry("file").linkCount, 1U);
  EXPECT_EQ(inEntry("link").size, 6U);
}

// Changes one field of an object's attributes and expects that none but that one differs.
template <class Object, class Change>
void expectOnlyChange(Object& object, const char* what, Change change) {
  SCOPED_TRACE(what);
  MetaData wanted = object.GetMetaData();
  change(wanted);
  object.SetMetaData(wanted);
  MetaData got = object.GetMetaData();
  // Nobody sets these.
  got.changeTime = wanted.changeTime;
  EXPECT_EQ(got.mode, wanted.mode);
  EXPECT_EQ(got.size, wanted.size);
  EXPECT_EQ(got.accessTime, wanted.accessTime);
  EXPECT_EQ(got.modifyTime, wanted.modifyTime);
  EXPECT_EQ(got, wanted);
}

template <class Object>
void expectSettableTimes(Object& object) {
  expectOnlyChange(object, "access time", [](MetaData& md) { md.accessTime = 1'000'000'001; });
  expectOnlyChange(object, "modify time", [](MetaData& md) { md.modifyTime = 1'000'000'002; });
  expectOnlyChange(object, "nothing", [](MetaData&) {});
}

TEST_P(HostConformance, OnlyTheAttributesThatDifferAreChanged) {
  const auto changed = file("file", "12345");
  expectSettableTimes(*changed);
  expectOnlyChange(*changed, "mode", [](MetaData& md) { md.mode = 0640; });
  expectOnlyChange(*changed, "size and time", [](MetaData& md) {
    md.size = 3;
    md.modifyTime = 1'000'000'003;
  });
  expectOnlyChange(*changed, "everything", [](MetaData& md) {
    md.size = 4;
    md.mode = 0600;
    md.accessTime = 1'000'000'004;
    md.modifyTime = 1'000'000'005;
  });
  EXPECT_EQ(contentOf(*changed), std::string("123\0", 4));

  const auto dir = root->CreateSubdir("dir");
  expectSettableTimes(*dir);
  expectOnlyChange(*dir, "mode", [](MetaData& md) { md.mode = 0711; });
  expectSettableTimes(*root);

  root->CreateSymlink("link", "file");
  expectSettableTimes(*root->OpenSymlink("link"));
  EXPECT_EQ(changed->GetMetaData().modifyTime, 1'000'000'005U) << "the link was followed";
}

// Clients know by the time whether what they cached is stale.
TEST_P(HostConformance, ChangesMoveTheModificationTime) {
  const auto aged = [](auto& object) {
    MetaData md = object.GetMetaData();
    md.modifyTime = 1'000'000'000;
    object.SetMetaData(md);
    EXPECT_EQ(object.GetMetaData().modifyTime, 1'000'000'000U);
  };
  const auto changed = file("file", "12345");
  aged(*changed);
  put(*changed, "x");
  EXPECT_GT(changed->GetMetaData().modifyTime, 1'000'000'000U) << "write";
  aged(*changed);
  MetaData md = changed->GetMetaData();
  md.size = 2;
  changed->SetMetaData(md);
  EXPECT_GT(changed->GetMetaData().modifyTime, 1'000'000'000U) << "truncation";

  const auto dir = root->CreateSubdir("dir");
  const std::map<std::string, std::function<void()>> changes = {
      {"1 create file", [&] { dir->CreateFile("a"); }},
      {"2 create directory", [&] { dir->CreateSubdir("b"); }},
      {"3 create link", [&] { dir->CreateSymlink("c", "a"); }},
      {"4 link", [&] { dir->Link("d", changed); }},
      {"5 rename", [&] { dir->MoveEntry("a", dir, "e"); }},
      {"6 move out", [&] { dir->MoveEntry("e", root, "e"); }},
      {"7 move in", [&] { root->MoveEntry("e", dir, "e"); }},
      {"8 remove file", [&] { dir->RemoveFile("e"); }},
      {"9 remove directory", [&] { dir->RemoveSubdir("b"); }},
  };
  for (const auto& [what, change] : changes) {
    aged(*dir);
    change();
    EXPECT_GT(dir->GetMetaData().modifyTime, 1'000'000'000U) << what;
  }
}

TEST_P(HostConformance, HardLinksAreOneFile) {
  const auto first = file("first", "text");
  const auto dir = root->CreateSubdir("dir");
  dir->Link("second", first);
  put(*dir->OpenFile("second"), "T");

  EXPECT_EQ(contentOf(*first), "Text");
  EXPECT_EQ(root->GetEntryByName("first").metaData, dir->GetEntryByName("second").metaData);
  EXPECT_EQ(first->GetMetaData().linkCount, 2U);

  root->RemoveFile("first");
  EXPECT_EQ(first->GetMetaData().linkCount, 1U);
  EXPECT_EQ(contentOf(*dir->OpenFile("second")), "Text");
  EXPECT_EQ(dir->OpenFile("second")->GetMetaData().fileId, first->GetMetaData().fileId);
}

TEST_P(HostConformance, ARemovedFileStaysUsableWhileItIsOpen) {
  const auto held = file("name", "old");
  const auto alsoHeld = root->OpenFile("name");
  const std::uint64_t oldId = held->GetMetaData().fileId;
  root->RemoveFile("name");
  const auto successor = file("name", "new");

  put(*alsoHeld, " and grown", 3);
  EXPECT_EQ(contentOf(*held), "old and grown");
  MetaData md = held->GetMetaData();
  EXPECT_EQ(md.fileId, oldId);
  EXPECT_EQ(md.linkCount, 0U);
  md.size = 1;
  held->SetMetaData(md);
  EXPECT_EQ(contentOf(*alsoHeld), "o");

  EXPECT_EQ(contentOf(*successor), "new");
  EXPECT_NE(successor->GetMetaData().fileId, oldId);
  expectRefused([&] { root->Link("again", held); });
  EXPECT_FALSE(root->TryGetEntryByName("again"));
}

TEST_P(HostConformance, SymbolicLinksAreTextAndNeverFollowed) {
  const auto target = file("file", "text");
  root->CreateSubdir("dir");
  for (const std::string text : {"file", "../../etc/passwd", "/", "nowhere", "\xFF odd\nbytes"}) {
    root->CreateSymlink("link", text);
    const auto link = root->OpenSymlink("link");
    EXPECT_EQ(link->GetTarget(), text);
    EXPECT_EQ(link->GetMetaData().size, text.size());
    root->RemoveFile("link");
  }
  // What a host cannot store as it is, it refuses.
  for (const std::string& text : {std::string(), std::string("cut\0here", 8)}) {
    try {
      root->CreateSymlink("link", text);
      EXPECT_EQ(root->OpenSymlink("link")->GetTarget(), text);
      root->RemoveFile("link");
    } catch (const INfsException&) {
      EXPECT_FALSE(root->TryGetEntryByName("link"));
    }
  }
  root->CreateSymlink("toFile", "file");
  root->CreateSymlink("toDir", "dir");
  const Picture before = picture();
  expectRefused([&] { root->OpenFile("toFile"); });
  expectRefused([&] { root->OpenSubdir("toDir"); });
  expectRefused([&] { root->RemoveSubdir("toDir"); });
  expectRefused([&] { root->CreateFile("toFile"); }, "already exists");
  EXPECT_EQ(picture(), before);

  root->RemoveFile("toFile");
  EXPECT_EQ(contentOf(*root->OpenFile("file")), "text");
}

}  // namespace nfslib::conformance
