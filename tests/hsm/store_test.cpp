#include "engine/store/store.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "test_util.h"

namespace qlhsm::store {
namespace {

using qlhsm::testing::TempDir;

Result<int64_t> CountSettings(Store &s, const std::string &key) {
  return s.Locked([&](Connection &c) -> Result<int64_t> {
    Result<Statement> st = c.Prepare("SELECT COUNT(*) FROM settings WHERE key = ?1");
    if (!st.ok()) return st.status();
    st->Bind(1, key);
    Result<bool> row = st->Step();
    if (!row.ok()) return row.status();
    return st->Int(0);
  });
}

TEST(Store, OpenRefusesMissingAndCreateRefusesExisting) {
  TempDir dir;
  EXPECT_EQ(Store::Open(dir.path(), false).status().code(), Code::kBadArgument);
  ASSERT_TRUE(Store::Open(dir.path(), true).ok());
  EXPECT_EQ(Store::Open(dir.path(), true).status().code(), Code::kBadArgument);
  EXPECT_TRUE(Store::Open(dir.path(), false).ok());
}

TEST(Store, TransactionRollsBackUnlessCommitted) {
  TempDir dir;
  auto store = Store::Open(dir.path(), true);
  ASSERT_TRUE(store.ok());
  Status st = (*store)->Locked([](Connection &c) -> Status {
    Transaction tx(c);
    QL_RETURN_IF_ERROR(tx.begin_status());
    return c.Exec("INSERT INTO settings(key, value) VALUES('a', '1')");
    // no Commit: the destructor rolls back
  });
  ASSERT_TRUE(st.ok()) << st.ToString();
  EXPECT_EQ(CountSettings(**store, "a").value(), 0);

  st = (*store)->Locked([](Connection &c) -> Status {
    Transaction tx(c);
    QL_RETURN_IF_ERROR(c.Exec("INSERT INTO settings(key, value) VALUES('b', '2')"));
    return tx.Commit();
  });
  ASSERT_TRUE(st.ok()) << st.ToString();
  EXPECT_EQ(CountSettings(**store, "b").value(), 1);
}

TEST(Store, CommittedSettingsSurviveReopen) {
  TempDir dir;
  {
    auto store = Store::Open(dir.path(), true);
    ASSERT_TRUE(store.ok());
    ASSERT_TRUE((*store)->SetSetting("max_sessions", "7").ok());
    ASSERT_TRUE((*store)->SetSetting("max_sessions", "8").ok());
  }
  auto store = Store::Open(dir.path(), false);
  ASSERT_TRUE(store.ok());
  EXPECT_EQ((*store)->GetSetting("max_sessions").value(), "8");
  EXPECT_EQ((*store)->GetSetting("nothing").status().code(), Code::kObjectNotFound);
}

TEST(Store, ConstraintViolationIsNamedAndBadSqlIsInternal) {
  TempDir dir;
  auto store = Store::Open(dir.path(), true);
  ASSERT_TRUE(store.ok());
  Status st = (*store)->Locked([](Connection &c) -> Status {
    Result<Statement> s =
        c.Prepare("INSERT INTO settings(key, value) VALUES('schema_version', 'x')");
    if (!s.ok()) return s.status();
    return s->Run();
  });
  EXPECT_EQ(st.code(), Code::kObjectExists);
  Result<Statement> bad = (*store)->Locked([](Connection &c) { return c.Prepare("SELEKT 1"); });
  EXPECT_EQ(bad.status().code(), Code::kInternal);
}

TEST(Store, CopyToMakesAnOpenableDatabase) {
  TempDir dir, copy_dir;
  auto store = Store::Open(dir.path(), true);
  ASSERT_TRUE(store.ok());
  ASSERT_TRUE((*store)->SetSetting("k", "v").ok());
  std::string copy = (std::filesystem::path(copy_dir.path()) / kDbFile).string();
  ASSERT_TRUE((*store)->CopyTo(copy).ok());
  auto reopened = Store::Open(copy_dir.path(), false);
  ASSERT_TRUE(reopened.ok()) << reopened.status().ToString();
  EXPECT_EQ((*reopened)->GetSetting("k").value(), "v");
}

}  // namespace
}  // namespace qlhsm::store
