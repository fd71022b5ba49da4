#include "engine/objects/object_store.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <chrono>

#include "engine/users/user_directory.h"

namespace qlhsm::objects {
namespace {

// Bound into every object's sealed material: its owner, name and kind. Material sealed for
// another purpose, or moved to another row of the store, fails to open (kBadTag) instead of
// passing for that row's key; a rename seals the material again under the new name.
std::string ObjectAad(const ObjectRef &ref, int64_t type) {
  std::string aad = "qlhsm.object.v2";
  aad.push_back('\0');
  aad += ref.owner;
  aad.push_back('\0');
  aad += ref.name;
  aad.push_back('\0');
  aad += std::to_string(type);
  return aad;
}

// Material that does not open under its row's identity was sealed for another row (or altered).
Status OpenFailed(const Status &) {
  return Status::Error(Code::kBadTag, "the object's material does not belong to it");
}

}  // namespace

bool ValidObjectName(std::string_view name) {
  if (name.empty() || name.size() > kMaxObjectName) return false;
  return std::all_of(name.begin(), name.end(),
                     [](char c) { return c > ' ' && c < 0x7f && c != '/' && c != '\\'; });
}

Result<ObjectRef> ParseObjectName(std::string_view text, std::string_view caller) {
  size_t slash = text.find('/');
  ObjectRef ref;
  if (slash == std::string_view::npos) {
    ref.owner = std::string(caller);
    ref.name = std::string(text);
  } else {
    ref.owner = std::string(text.substr(0, slash));
    ref.name = std::string(text.substr(slash + 1));
  }
  if (!users::ValidUserName(ref.owner) || !ValidObjectName(ref.name))
    return Status::Error(Code::kBadName, "bad object name");
  return ref;
}

Status ObjectStore::Insert(store::Connection &conn, const ObjectInfo &info,
                           const secure::Bytes &sealed) const {
  Result<store::Statement> st = conn.Prepare(
      "INSERT INTO objects(owner, name, type, algorithm, flags, material, blocked, metadata, "
      "created) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9)");
  if (!st.ok()) return st.status();
  st->Bind(1, info.ref.owner).Bind(2, info.ref.name).Bind(3, int64_t{info.type});
  st->Bind(4, int64_t{info.algorithm}).Bind(5, int64_t{info.flags}).BindBlob(6, sealed);
  st->Bind(7, int64_t{info.blocked ? 1 : 0});
  st->Bind(8, info.metadata.empty() ? std::string_view("{}") : info.metadata)
      .Bind(9, clock_->Now());
  Status s = st->Run();
  if (s.code() == Code::kObjectExists) {
    // The owner must exist (foreign key) and the name must be free; tell the two apart.
    Result<store::Statement> q = conn.Prepare("SELECT 1 FROM users WHERE name = ?1");
    if (!q.ok()) return q.status();
    q->Bind(1, info.ref.owner);
    Result<bool> found = q->Step();
    if (found.ok() && !found.value())
      return Status::Error(Code::kUserNotFound, "owner does not exist");
    return Status::Error(Code::kObjectExists, "object name taken");
  }
  return s;
}

Status ObjectStore::Create(const ObjectInfo &info, const secure::Bytes &material) {
  return CreateMany({{info, material}});
}

Status ObjectStore::CreateMany(const std::vector<std::pair<ObjectInfo, secure::Bytes>> &objects,
                               const std::vector<RecordSet> &records) {
  std::vector<secure::Bytes> sealed;
  for (const auto &[info, material] : objects) {
    Result<secure::Bytes> one = secure::Seal(master_key_, material, ObjectAad(info.ref, info.type));
    if (!one.ok()) return one.status();
    sealed.push_back(std::move(one.value()));
  }
  return store_.Locked([&](store::Connection &conn) -> Status {
    store::Transaction tx(conn);
    QL_RETURN_IF_ERROR(tx.begin_status());
    for (size_t i = 0; i < objects.size(); ++i)
      QL_RETURN_IF_ERROR(Insert(conn, objects[i].first, sealed[i]));
    for (const RecordSet &set : records) QL_RETURN_IF_ERROR(WriteRecords(conn, set));
    return tx.Commit();
  });
}

Status ObjectStore::WriteRecords(store::Connection &conn, const RecordSet &set) {
  for (const Record &r : set.records) {
    Result<store::Statement> st = conn.Prepare(
        "INSERT OR REPLACE INTO object_records(object_id, record, value) "
        "SELECT id, ?3, ?4 FROM objects WHERE owner = ?1 AND name = ?2");
    if (!st.ok()) return st.status();
    st->Bind(1, set.ref.owner).Bind(2, set.ref.name).Bind(3, int64_t{r.id}).BindBlob(4, r.value);
    QL_RETURN_IF_ERROR(st->Run());
    if (conn.Changes() == 0) return Status::Error(Code::kObjectNotFound, "no such object");
  }
  return Status::Ok();
}

Status ObjectStore::SetRecords(const ObjectRef &ref, const std::vector<Record> &records) {
  return SetRecords(std::vector<RecordSet>{{ref, records}});
}

Status ObjectStore::SetRecords(const std::vector<RecordSet> &sets) {
  return store_.Locked([&](store::Connection &conn) -> Status {
    store::Transaction tx(conn);
    QL_RETURN_IF_ERROR(tx.begin_status());
    for (const RecordSet &set : sets) QL_RETURN_IF_ERROR(WriteRecords(conn, set));
    return tx.Commit();
  });
}

Status ObjectStore::EditRecords(const ObjectRef &ref, const std::vector<uint32_t> &remove,
                                const std::vector<Record> &write) {
  return store_.Locked([&](store::Connection &conn) -> Status {
    store::Transaction tx(conn);
    QL_RETURN_IF_ERROR(tx.begin_status());
    for (uint32_t id : remove) {
      Result<store::Statement> st = conn.Prepare(
          "DELETE FROM object_records WHERE record = ?3 AND object_id = "
          "(SELECT id FROM objects WHERE owner = ?1 AND name = ?2)");
      if (!st.ok()) return st.status();
      st->Bind(1, ref.owner).Bind(2, ref.name).Bind(3, int64_t{id});
      QL_RETURN_IF_ERROR(st->Run());
    }
    QL_RETURN_IF_ERROR(WriteRecords(conn, {ref, write}));
    return tx.Commit();
  });
}

Result<std::vector<ObjectStore::Record>> ObjectStore::GetRecords(const ObjectRef &ref) {
  return store_.Locked([&](store::Connection &conn) -> Result<std::vector<Record>> {
    Result<store::Statement> st = conn.Prepare(
        "SELECT r.record, r.value FROM object_records r JOIN objects o ON o.id = r.object_id "
        "WHERE o.owner = ?1 AND o.name = ?2 ORDER BY r.record");
    if (!st.ok()) return st.status();
    st->Bind(1, ref.owner).Bind(2, ref.name);
    std::vector<Record> out;
    for (;;) {
      Result<bool> row = st->Step();
      if (!row.ok()) return row.status();
      if (!row.value()) break;
      Record r;
      r.id = static_cast<uint32_t>(st->Int(0));
      r.value = st->Blob(1);
      out.push_back(std::move(r));
    }
    return out;
  });
}

Result<ObjectInfo> ObjectStore::Get(const ObjectRef &ref) {
  return store_.Locked([&](store::Connection &conn) -> Result<ObjectInfo> {
    Result<store::Statement> st = conn.Prepare(
        "SELECT type, algorithm, flags, blocked, metadata, created, length(material) FROM objects "
        "WHERE owner = ?1 AND name = ?2");
    if (!st.ok()) return st.status();
    st->Bind(1, ref.owner).Bind(2, ref.name);
    Result<bool> row = st->Step();
    if (!row.ok()) return row.status();
    if (!row.value()) return Status::Error(Code::kObjectNotFound, "no such object");
    ObjectInfo info;
    info.ref = ref;
    info.type = static_cast<int>(st->Int(0));
    info.algorithm = static_cast<int>(st->Int(1));
    info.flags = static_cast<uint32_t>(st->Int(2));
    info.blocked = st->Int(3) != 0;
    info.metadata = st->Text(4);
    info.created = st->Int(5);
    // GCM keeps the length: the stored form is nonce + ciphertext + tag.
    int64_t sealed = st->Int(6);
    int64_t overhead = static_cast<int64_t>(secure::kNonceLen + secure::kTagLen);
    info.size = sealed > overhead ? static_cast<uint32_t>(sealed - overhead) : 0;
    return info;
  });
}

Result<ObjectStore::SealedRow> ObjectStore::ReadSealed(store::Connection &conn,
                                                       const ObjectRef &ref) {
  Result<store::Statement> st =
      conn.Prepare("SELECT material, type FROM objects WHERE owner = ?1 AND name = ?2");
  if (!st.ok()) return st.status();
  st->Bind(1, ref.owner).Bind(2, ref.name);
  Result<bool> row = st->Step();
  if (!row.ok()) return row.status();
  if (!row.value()) return Status::Error(Code::kObjectNotFound, "no such object");
  return SealedRow{st->Blob(0), st->Int(1)};
}

Result<secure::Bytes> ObjectStore::ReadMaterial(const ObjectRef &ref) {
  Result<SealedRow> row = store_.Locked(
      [&](store::Connection &conn) -> Result<SealedRow> { return ReadSealed(conn, ref); });
  if (!row.ok()) return row.status();
  Result<secure::Bytes> plain = secure::Open(master_key_, row->sealed, ObjectAad(ref, row->type));
  if (!plain.ok()) return OpenFailed(plain.status());
  return plain;
}

Status ObjectStore::WriteMaterial(const ObjectRef &ref, const secure::Bytes &material) {
  return store_.Locked([&](store::Connection &conn) -> Status {
    store::Transaction tx(conn);
    QL_RETURN_IF_ERROR(tx.begin_status());
    Result<SealedRow> row = ReadSealed(conn, ref);
    if (!row.ok()) return row.status();
    Result<secure::Bytes> sealed = secure::Seal(master_key_, material, ObjectAad(ref, row->type));
    if (!sealed.ok()) return sealed.status();
    Result<store::Statement> st =
        conn.Prepare("UPDATE objects SET material = ?3 WHERE owner = ?1 AND name = ?2");
    if (!st.ok()) return st.status();
    st->Bind(1, ref.owner).Bind(2, ref.name).BindBlob(3, *sealed);
    QL_RETURN_IF_ERROR(st->Run());
    if (conn.Changes() == 0) return Status::Error(Code::kObjectNotFound, "no such object");
    return tx.Commit();
  });
}

Status ObjectStore::UpdateOne(const ObjectRef &ref, const char *sql, int64_t value) {
  return store_.Locked([&](store::Connection &conn) -> Status {
    store::Transaction tx(conn);
    QL_RETURN_IF_ERROR(tx.begin_status());
    Result<store::Statement> st = conn.Prepare(sql);
    if (!st.ok()) return st.status();
    st->Bind(1, ref.owner).Bind(2, ref.name);
    if (value >= 0) st->Bind(3, value);
    QL_RETURN_IF_ERROR(st->Run());
    if (conn.Changes() == 0) return Status::Error(Code::kObjectNotFound, "no such object");
    return tx.Commit();
  });
}

Status ObjectStore::Remove(const ObjectRef &ref) {
  return UpdateOne(ref, "DELETE FROM objects WHERE owner = ?1 AND name = ?2", -1);
}

Status ObjectStore::SetBlocked(const ObjectRef &ref, bool blocked) {
  return UpdateOne(ref, "UPDATE objects SET blocked = ?3 WHERE owner = ?1 AND name = ?2",
                   blocked ? 1 : 0);
}

Status ObjectStore::Rename(const ObjectRef &from, std::string_view to_name) {
  if (!ValidObjectName(to_name)) return Status::Error(Code::kBadName, "bad object name");
  return store_.Locked([&](store::Connection &conn) -> Status {
    store::Transaction tx(conn);
    QL_RETURN_IF_ERROR(tx.begin_status());
    // The material is bound to the old name: it is opened and sealed again under the new one.
    Result<SealedRow> row = ReadSealed(conn, from);
    if (!row.ok()) return row.status();
    Result<secure::Bytes> plain =
        secure::Open(master_key_, row->sealed, ObjectAad(from, row->type));
    if (!plain.ok()) return OpenFailed(plain.status());
    ObjectRef to{from.owner, std::string(to_name)};
    Result<secure::Bytes> sealed = secure::Seal(master_key_, *plain, ObjectAad(to, row->type));
    OPENSSL_cleanse(plain->data(), plain->size());
    if (!sealed.ok()) return sealed.status();
    Result<store::Statement> st =
        conn.Prepare("UPDATE objects SET name = ?3, material = ?4 WHERE owner = ?1 AND name = ?2");
    if (!st.ok()) return st.status();
    st->Bind(1, from.owner).Bind(2, from.name).Bind(3, to_name).BindBlob(4, *sealed);
    Status s = st->Run();
    if (s.code() == Code::kObjectExists) return s;
    QL_RETURN_IF_ERROR(s);
    if (conn.Changes() == 0) return Status::Error(Code::kObjectNotFound, "no such object");
    return tx.Commit();
  });
}

Status ObjectStore::SetMetadata(const ObjectRef &ref, std::string_view json) {
  return store_.Locked([&](store::Connection &conn) -> Status {
    store::Transaction tx(conn);
    QL_RETURN_IF_ERROR(tx.begin_status());
    Result<store::Statement> st =
        conn.Prepare("UPDATE objects SET metadata = ?3 WHERE owner = ?1 AND name = ?2");
    if (!st.ok()) return st.status();
    st->Bind(1, ref.owner).Bind(2, ref.name).Bind(3, json);
    QL_RETURN_IF_ERROR(st->Run());
    if (conn.Changes() == 0) return Status::Error(Code::kObjectNotFound, "no such object");
    return tx.Commit();
  });
}

Result<std::vector<std::string>> ObjectStore::List(std::string_view owner) {
  return store_.Locked([&](store::Connection &conn) -> Result<std::vector<std::string>> {
    Result<store::Statement> st =
        conn.Prepare("SELECT name FROM objects WHERE owner = ?1 ORDER BY name");
    if (!st.ok()) return st.status();
    st->Bind(1, owner);
    std::vector<std::string> out;
    for (;;) {
      Result<bool> row = st->Step();
      if (!row.ok()) return row.status();
      if (!row.value()) break;
      out.push_back(st->Text(0));
    }
    return out;
  });
}

Result<std::vector<ObjectRef>> ObjectStore::ListAllWithPrefix(std::string_view prefix) {
  return store_.Locked([&](store::Connection &conn) -> Result<std::vector<ObjectRef>> {
    Result<store::Statement> st = conn.Prepare(
        "SELECT owner, name FROM objects WHERE substr(name, 1, length(?1)) = ?1 "
        "ORDER BY owner, name");
    if (!st.ok()) return st.status();
    st->Bind(1, prefix);
    std::vector<ObjectRef> out;
    for (;;) {
      Result<bool> row = st->Step();
      if (!row.ok()) return row.status();
      if (!row.value()) break;
      out.push_back(ObjectRef{st->Text(0), st->Text(1)});
    }
    return out;
  });
}

Result<int64_t> ObjectStore::Count() {
  return store_.Locked([&](store::Connection &conn) -> Result<int64_t> {
    Result<store::Statement> st = conn.Prepare("SELECT COUNT(*) FROM objects");
    if (!st.ok()) return st.status();
    Result<bool> row = st->Step();
    if (!row.ok()) return row.status();
    return st->Int(0);
  });
}

}  // namespace qlhsm::objects
