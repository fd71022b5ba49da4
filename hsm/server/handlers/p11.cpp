// Metadata records, PKCS#11 maps, and the HSM's token information and mechanisms.
#include <cinttypes>
#include <cstdio>

#include "server/handlers/handlers.h"

namespace qlhsm::server::handlers {

void ManageObjRecords(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::ManageObjRecords &m = req.manage_obj_records();
  std::vector<objects::ObjectStore::Record> records;
  for (const pb::ObjRecord &rec : m.records()) records.push_back({rec.id(), ToBytes(rec.value())});
  Reply(c.engine.p11().ManageRecords(c.session, m.name(), m.operation(), records), r,
        [&](const std::vector<objects::ObjectStore::Record> &out) {
          if (m.operation() != static_cast<uint32_t>(RecordOp::kRead)) {
            r->mutable_empty();
            return;
          }
          auto *list = r->mutable_obj_records();
          for (const auto &rec : out) {
            auto *o = list->add_records();
            o->set_id(rec.id);
            o->set_value(ToString(rec.value));
          }
        });
}

void GenerateMap(const pb::Request &req, Call &c, pb::Response *r) {
  const pb::GenerateMap &m = req.generate_map();
  MapNames names{m.private_key(), m.public_key(), m.certificate()};
  ReplyEmpty(c.engine.p11().GenerateMap(c.session, m.name(), names, m.flags()), r);
}

void RemoveMap(const pb::Request &req, Call &c, pb::Response *r) {
  ReplyEmpty(c.engine.p11().RemoveMap(c.session, req.remove_map().name()), r);
}

void GetMap(const pb::Request &req, Call &c, pb::Response *r) {
  Reply(c.engine.p11().GetMap(c.session, req.get_map().name()), r, [&](const MapNames &names) {
    auto *o = r->mutable_map();
    o->set_private_key(names.private_key);
    o->set_public_key(names.public_key);
    o->set_certificate(names.certificate);
  });
}

void GetP11Info(const pb::Request &, Call &c, pb::Response *r) {
  Reply(c.engine.p11().GetInfo(c.session), r, [&](const P11Info &p) {
    auto *o = r->mutable_p11_info();
    o->set_cryptoki_version(p.cryptoki_version);
    o->set_manufacturer(p.manufacturer);
    o->set_info_flags(p.info_flags);
    o->set_library_description(p.library_description);
    o->set_library_version(p.library_version);
    o->set_label(p.label);
    o->set_model(p.model);
    o->set_serial_number(p.serial_number);
    o->set_token_flags(p.token_flags);
    o->set_max_sessions(p.max_sessions);
    o->set_sessions(p.sessions);
    o->set_max_rw_sessions(p.max_rw_sessions);
    o->set_rw_sessions(p.rw_sessions);
    o->set_max_pin_length(p.max_pin_length);
    o->set_min_pin_length(p.min_pin_length);
    o->set_total_public_memory(p.total_public_memory);
    o->set_free_public_memory(p.free_public_memory);
    o->set_total_private_memory(p.total_private_memory);
    o->set_free_private_memory(p.free_private_memory);
    o->set_hardware_version(p.hardware_version);
    o->set_firmware_version(p.firmware_version);
    o->set_utc_time(p.utc_time);
  });
}

void ListP11Mechanisms(const pb::Request &, Call &c, pb::Response *r) {
  Reply(c.engine.p11().ListMechanisms(c.session), r, [&](const std::vector<P11Mechanism> &all) {
    std::vector<std::string> lines;
    for (const P11Mechanism &m : all) {
      char line[160];
      std::snprintf(line, sizeof line, "%s %" PRIu64 " %" PRIu64 " 0x%08" PRIx64, m.name.c_str(),
                    m.min_size, m.max_size, m.flags);
      lines.emplace_back(line);
    }
    SetNames(lines, r);
  });
}

}  // namespace qlhsm::server::handlers
