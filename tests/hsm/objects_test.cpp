#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "engine/data_dir.h"
#include "engine/objects/object_store.h"
#include "engine/users/user_directory.h"
#include "test_util.h"

namespace qlhsm::objects {
namespace {

using qlhsm::testing::FastKdf;
using qlhsm::testing::TempDir;

TEST(ObjectNames, Parse) {
  struct Case {
    const char *text;
    bool ok;
    const char *owner;
    const char *name;
  } cases[] = {
      {"key1", true, "me", "key1"}, {"bob/key1", true, "bob", "key1"},
      {"bob/", false, "", ""},      {"/key", false, "", ""},
      {"a/b/c", false, "", ""},     {"", false, "", ""},
      {"has space", false, "", ""}, {"12345678901234567/k", false, "", ""},
  };
  for (const Case &c : cases) {
    auto r = ParseObjectName(c.text, "me");
    EXPECT_EQ(r.ok(), c.ok) << c.text;
    if (r.ok() && c.ok) {
      EXPECT_EQ(r->owner, c.owner);
      EXPECT_EQ(r->name, c.name);
    } else {
      EXPECT_EQ(r.status().code(), Code::kBadName);
    }
  }
}

class ObjectsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto s = store::Store::Open(dir.path(), true);
    ASSERT_TRUE(s.ok());
    store = std::move(s.value());
    users::UserDirectory users(*store, FastKdf());
    ASSERT_TRUE(users.Create("alice", "pw", 0).ok());
    objects = std::make_unique<ObjectStore>(*store, secure::Bytes(32, 7));
  }
  ObjectInfo Info(const char *owner, const char *name) {
    ObjectInfo i;
    i.ref = {owner, name};
    i.type = static_cast<int>(ObjectType::kFile);
    return i;
  }
  TempDir dir;
  std::unique_ptr<store::Store> store;
  std::unique_ptr<ObjectStore> objects;
};

TEST_F(ObjectsTest, LifeCycle) {
  secure::Bytes data = {'h', 'e', 'l', 'l', 'o'};
  ASSERT_TRUE(objects->Create(Info("alice", "f1"), data).ok());
  EXPECT_EQ(objects->Create(Info("alice", "f1"), data).code(), Code::kObjectExists);
  EXPECT_EQ(objects->Create(Info("nobody", "f1"), data).code(), Code::kUserNotFound);
  EXPECT_EQ(objects->ReadMaterial({"alice", "f1"}).value(), data);
  EXPECT_EQ(objects->Get({"alice", "nope"}).status().code(), Code::kObjectNotFound);

  ASSERT_TRUE(objects->Create(Info("alice", "f2"), {}).ok());
  EXPECT_TRUE(objects->ReadMaterial({"alice", "f2"})->empty());
  EXPECT_EQ(objects->Rename({"alice", "f2"}, "f1").code(), Code::kObjectExists);
  EXPECT_EQ(objects->Rename({"alice", "zz"}, "f3").code(), Code::kObjectNotFound);
  ASSERT_TRUE(objects->Rename({"alice", "f2"}, "f3").ok());
  EXPECT_EQ(objects->List("alice").value(), (std::vector<std::string>{"f1", "f3"}));

  ASSERT_TRUE(objects->SetBlocked({"alice", "f1"}, true).ok());
  EXPECT_TRUE(objects->Get({"alice", "f1"})->blocked);
  ASSERT_TRUE(objects->SetMetadata({"alice", "f1"}, R"({"label":"x"})").ok());
  EXPECT_EQ(objects->Get({"alice", "f1"})->metadata, R"({"label":"x"})");
  EXPECT_EQ(objects->SetBlocked({"alice", "zz"}, true).code(), Code::kObjectNotFound);

  ASSERT_TRUE(objects->Remove({"alice", "f1"}).ok());
  EXPECT_EQ(objects->Remove({"alice", "f1"}).code(), Code::kObjectNotFound);
  EXPECT_EQ(objects->Count().value(), 1);
}

TEST_F(ObjectsTest, MaterialIsSealedAtRestAndBoundToTheMasterKey) {
  secure::Bytes secret(64, 'S');
  ASSERT_TRUE(objects->Create(Info("alice", "k"), secret).ok());
  store.reset();  // close, so every page is in the files
  std::string all;
  for (const char *f : {"store.db", "store.db-wal"}) {
    auto bytes = ReadFileBytes((std::filesystem::path(dir.path()) / f).string());
    if (bytes.ok()) all.append(bytes->begin(), bytes->end());
  }
  ASSERT_FALSE(all.empty());
  EXPECT_EQ(all.find(std::string(16, 'S')), std::string::npos);

  auto s = store::Store::Open(dir.path(), false);
  ASSERT_TRUE(s.ok());
  ObjectStore wrong_key(**s, secure::Bytes(32, 8));
  EXPECT_FALSE(wrong_key.ReadMaterial({"alice", "k"}).ok());
  ObjectStore right_key(**s, secure::Bytes(32, 7));
  EXPECT_EQ(right_key.ReadMaterial({"alice", "k"}).value(), secret);
}

// Changes the store's database behind the object store's back, as someone with write access to
// store.db could.
void Tamper(store::Store &store, const char *sql) {
  Status st = store.Locked([&](store::Connection &conn) -> Status {
    Result<store::Statement> stmt = conn.Prepare(sql);
    if (!stmt.ok()) return stmt.status();
    return stmt->Run();
  });
  ASSERT_TRUE(st.ok()) << st.ToString();
}

secure::Bytes SealedBlob(store::Store &store, const char *name) {
  Result<secure::Bytes> blob = store.Locked([&](store::Connection &conn) -> Result<secure::Bytes> {
    Result<store::Statement> st = conn.Prepare("SELECT material FROM objects WHERE name = ?1");
    if (!st.ok()) return st.status();
    st->Bind(1, std::string_view(name));
    Result<bool> row = st->Step();
    if (!row.ok()) return row.status();
    if (!row.value()) return Status::Error(Code::kObjectNotFound, name);
    return st->Blob(0);
  });
  EXPECT_TRUE(blob.ok()) << blob.status().ToString();
  return blob.ok() ? *blob : secure::Bytes();
}

void SetSealedBlob(store::Store &store, const char *name, const secure::Bytes &blob) {
  Status st = store.Locked([&](store::Connection &conn) -> Status {
    Result<store::Statement> stmt =
        conn.Prepare("UPDATE objects SET material = ?2 WHERE name = ?1");
    if (!stmt.ok()) return stmt.status();
    stmt->Bind(1, std::string_view(name)).BindBlob(2, blob);
    return stmt->Run();
  });
  ASSERT_TRUE(st.ok()) << st.ToString();
}

TEST_F(ObjectsTest, MaterialIsBoundToItsRow) {
  const secure::Bytes a(48, 'a'), b(48, 'b');
  ASSERT_TRUE(objects->Create(Info("alice", "ka"), a).ok());
  ASSERT_TRUE(objects->Create(Info("alice", "kb"), b).ok());
  const secure::Bytes sealed_a = SealedBlob(*store, "ka"), sealed_b = SealedBlob(*store, "kb");

  // Blobs swapped between two rows do not pass for those rows' keys.
  SetSealedBlob(*store, "ka", sealed_b);
  SetSealedBlob(*store, "kb", sealed_a);
  EXPECT_EQ(objects->ReadMaterial({"alice", "ka"}).status().code(), Code::kBadTag);
  EXPECT_EQ(objects->ReadMaterial({"alice", "kb"}).status().code(), Code::kBadTag);
  SetSealedBlob(*store, "ka", sealed_a);
  SetSealedBlob(*store, "kb", sealed_b);
  ASSERT_TRUE(objects->ReadMaterial({"alice", "ka"}).ok());
  EXPECT_EQ(*objects->ReadMaterial({"alice", "ka"}), a);

  // Nor does a row whose kind was changed.
  Tamper(*store, "UPDATE objects SET type = type + 1 WHERE name = 'kb'");
  EXPECT_EQ(objects->ReadMaterial({"alice", "kb"}).status().code(), Code::kBadTag);
}

TEST_F(ObjectsTest, RenameAndRewriteSealForTheNewIdentity) {
  const secure::Bytes a(40, 'x'), c(40, 'y');
  ASSERT_TRUE(objects->Create(Info("alice", "old"), a).ok());
  ASSERT_TRUE(objects->Rename({"alice", "old"}, "new").ok());
  ASSERT_TRUE(objects->ReadMaterial({"alice", "new"}).ok());
  EXPECT_EQ(*objects->ReadMaterial({"alice", "new"}), a);
  ASSERT_TRUE(objects->WriteMaterial({"alice", "new"}, c).ok());
  ASSERT_TRUE(objects->ReadMaterial({"alice", "new"}).ok());
  EXPECT_EQ(*objects->ReadMaterial({"alice", "new"}), c);
  // Moving the row back by name alone (no re-sealing) breaks it.
  Tamper(*store, "UPDATE objects SET name = 'old' WHERE name = 'new'");
  EXPECT_EQ(objects->ReadMaterial({"alice", "old"}).status().code(), Code::kBadTag);
}

TEST(SealedMasterKey, OpensOnlyWithItsUnlockSecret) {
  TempDir dir;
  ASSERT_TRUE(CreateMasterKey(dir.path(), "right secret", FastKdf()).ok());
  auto key = LoadMasterKey(dir.path(), "right secret");
  ASSERT_TRUE(key.ok()) << key.status().ToString();
  EXPECT_EQ(key->size(), secure::kKeyLen);
  EXPECT_EQ(LoadMasterKey(dir.path(), "wrong secret").status().code(), Code::kBadPin);
  EXPECT_EQ(LoadMasterKey(dir.path(), "").status().code(), Code::kBadPin);

  // The file alone does not hold the key in any readable form.
  auto file = ReadFileBytes(DataPath(dir.path(), kMasterKeyFile));
  ASSERT_TRUE(file.ok());
  EXPECT_EQ(std::search(file->begin(), file->end(), key->begin(), key->end()), file->end());

  // A damaged file is refused, not taken for a wrong secret.
  secure::Bytes cut(file->begin(), file->end() - 1);
  std::filesystem::remove(DataPath(dir.path(), kMasterKeyFile));
  ASSERT_TRUE(WritePrivateFile(DataPath(dir.path(), kMasterKeyFile), cut).ok());
  EXPECT_EQ(LoadMasterKey(dir.path(), "right secret").status().code(), Code::kBadArgument);
}

}  // namespace
}  // namespace qlhsm::objects
