// libFuzzer target: the daemon's request decoder and dispatch, in-process. The input is a byte
// stream as a connection would deliver it: frames are cut out by the frame reader and each one is
// decoded and handled against a real engine in a temporary data directory.
//
// The first input byte chooses the connection's starting point, so the fuzzer reaches every
// service and not just the Hello check: bit 0 set skips Hello, bit 1 set also logs in as master.
#include <google/protobuf/stubs/logging.h>
#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "engine/engine.h"
#include "frame.h"
#include "server/request_handler.h"

namespace {

constexpr const char *kPassword = "fuzzpass";

struct World {
  std::string dir;
  std::unique_ptr<qlhsm::Engine> engine;
  std::unique_ptr<qlhsm::server::RequestHandler> handler;

  World() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "qlhsm-fuzz-XXXXXX").string();
    if (!mkdtemp(tmpl.data())) abort();
    dir = tmpl;
    qlhsm::InitOptions init;
    init.kdf = qlhsm::secure::KdfParams{16, 1, 1};
    if (!qlhsm::Engine::Init(dir, kPassword, init).ok()) abort();
    qlhsm::EngineOptions opts;
    opts.max_objects = 1000;  // keeps the store small over a long run
    auto e = qlhsm::Engine::Open(dir, opts);
    if (!e.ok()) abort();
    engine = std::move(e.value());
    qlhsm::server::HandlerConfig hc;
    hc.max_frame = 1 << 16;
    handler = std::make_unique<qlhsm::server::RequestHandler>(*engine, hc);
  }
  ~World() {
    handler.reset();
    engine.reset();
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
  }
};

World &TheWorld() {
  static World world;
  return world;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  // Malformed strings are expected here; protobuf's complaint about each would drown the output.
  google::protobuf::SetLogHandler(nullptr);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  World &w = TheWorld();
  qlhsm::server::ConnectionState state;
  if (data[0] & 1) state.hello_done = true;
  if (data[0] & 2) {
    state.session = w.engine->NewSession();
    (void)w.engine->users().Login(*state.session, qlhsm::kMasterUser, kPassword);
  }
  qlproto::FrameReader reader(w.handler->max_frame());
  reader.Append(data + 1, size - 1);
  std::string body;
  for (;;) {
    bool complete = false;
    qlproto::FrameStatus fs = reader.Next(&body, &complete);
    if (fs != qlproto::FrameStatus::kOk) break;  // refused or incomplete: the connection ends
    qlhsm::v1::Response response;
    w.handler->HandleFrame(body, state, &response);
    std::string out;
    (void)qlproto::EncodeFrame(response, w.handler->max_frame(), &out);
    if (state.close_after) break;
  }
  return 0;
}
