// PIX requests made by a real qlhsmd over mutual TLS to HTTPS servers the test starts with
// Python's ssl module (client certificate required): every method with the HSM's identity seen
// by the server, chunked answers and HTTP statuses passed through, and the refusals with their
// codes (an unlisted endpoint, a plain URL, header injection, an untrusted server, a server that
// never answers, no right), then the qlutil job and performance test.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "command.h"
#include "hsm_fixture.h"
#include "library_session.h"
#include "qlapi.h"

namespace {

namespace fs = std::filesystem;

// This binary starts its daemon itself, once the servers' ports are known.
const qltest::HsmSetup kSetup{std::nullopt};

// A test CA, the server's certificate for localhost (not 127.0.0.1), the HSM's client identity,
// and another CA that trusts neither.
constexpr const char *kMakeIdentities = R"(set -e
ca() {
  openssl req -x509 -newkey rsa:2048 -nodes -keyout $1.key -out $1.pem -subj /CN=$1 -days 30 \
    -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign
}
ca pixtest-ca
ca other-ca
openssl req -newkey rsa:2048 -nodes -keyout server.key -out server.csr -subj /CN=localhost
printf 'subjectAltName=DNS:localhost\nextendedKeyUsage=serverAuth\n' > server.ext
openssl x509 -req -in server.csr -CA pixtest-ca.pem -CAkey pixtest-ca.key -set_serial 2 \
  -days 30 -extfile server.ext -out server.pem
openssl req -newkey rsa:2048 -nodes -keyout client.key -out client.csr -subj "/CN=pix client"
printf 'extendedKeyUsage=clientAuth\n' > client.ext
openssl x509 -req -in client.csr -CA pixtest-ca.pem -CAkey pixtest-ca.key -set_serial 3 \
  -days 30 -extfile client.ext -out client.pem
openssl pkcs12 -export -inkey client.key -in client.pem -passout pass:pw -out client.p12
)";

// "echo": answers every method with what it saw (method, path, the client certificate's
// subject, the X-Trace header, the body); /chunked in chunks, /missing with 404. "silent":
// accepts connections and never says a word. The port goes to the file named last.
constexpr const char *kServer = R"(import http.server, socket, ssl, sys, time
mode, port_file = sys.argv[1], sys.argv[2]
if mode == 'silent':
    s = socket.socket(); s.bind(('127.0.0.1', 0)); s.listen(16)
    open(port_file, 'w').write(str(s.getsockname()[1]))
    held = []
    while True:
        held.append(s.accept()[0])
        open(port_file + '.accepted', 'w').close()
class H(http.server.BaseHTTPRequestHandler):
    protocol_version = 'HTTP/1.1'
    def log_message(self, *a): pass
    def answer(self):
        body = self.rfile.read(int(self.headers.get('Content-Length') or 0))
        subject = dict(x[0] for x in self.connection.getpeercert()['subject'])['commonName']
        text = ('method=%s path=%s subject=%s trace=%s body=%s' % (self.command, self.path,
                subject, self.headers.get('X-Trace'), body.decode())).encode()
        if self.path == '/chunked':
            self.send_response(200); self.send_header('Transfer-Encoding', 'chunked')
            self.end_headers()
            for i in range(0, len(text), 7):
                piece = text[i:i + 7]
                self.wfile.write(b'%x\r\n%s\r\n' % (len(piece), piece))
            self.wfile.write(b'0\r\n\r\n')
            return
        self.send_response(404 if self.path == '/missing' else 200)
        self.send_header('Content-Length', str(len(text))); self.end_headers()
        self.wfile.write(text)
    do_GET = do_POST = do_PUT = do_DELETE = answer
ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
ctx.load_cert_chain('server.pem', 'server.key')
ctx.load_verify_locations('pixtest-ca.pem')
ctx.verify_mode = ssl.CERT_REQUIRED
srv = http.server.ThreadingHTTPServer(('127.0.0.1', 0), H)
srv.socket = ctx.wrap_socket(srv.socket, server_side=True)
open(port_file + '.tmp', 'w').write(str(srv.server_address[1]))
import os; os.rename(port_file + '.tmp', port_file)
srv.serve_forever()
)";

class PixRequest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = fs::temp_directory_path() / ("ql_pixreq_" + std::to_string(getpid()));
    fs::create_directories(dir_);
    std::ofstream(dir_ / "mk.sh") << kMakeIdentities;
    std::ofstream(dir_ / "server.py") << kServer;
    ASSERT_EQ(Sh("sh mk.sh"), 0);
    echo_port_ = StartServer("echo");
    silent_port_ = StartServer("silent");
    ASSERT_GT(echo_port_, 0);
    ASSERT_GT(silent_port_, 0);
    qltest::HsmOptions options;
    // One event loop, so that every connection of a test shares it.
    options.serve_args = {"--threads",      "1",
                          "--pix-endpoint", "localhost:" + std::to_string(echo_port_),
                          "--pix-endpoint", "127.0.0.1:" + std::to_string(echo_port_),
                          "--pix-endpoint", "127.0.0.1:" + std::to_string(silent_port_)};
    hsm_ = std::make_unique<qltest::HsmProcess>(options);
    qltest::OpenedSession s("master", {}, *hsm_);
    ASSERT_EQ(QImportPKCS12(s.get(), Path("client.p12").c_str(), "pw", "pixkey", "pixcert", 0), 0);
    ASSERT_EQ(QWriteFile(s.get(), Path("pixtest-ca.pem").c_str(), "pixchain", QL_WRITE_FILE_TYPED),
              0);
    ASSERT_EQ(QWriteFile(s.get(), Path("other-ca.pem").c_str(), "otherchain", QL_WRITE_FILE_TYPED),
              0);
  }
  static void TearDownTestSuite() {
    hsm_.reset();
    for (pid_t pid : servers_) {
      kill(pid, SIGTERM);
      waitpid(pid, nullptr, 0);
    }
    fs::remove_all(dir_);
  }

  // Starts server.py in `mode` and answers its port (0 when it did not come up).
  static int StartServer(const char *mode) {
    const std::string port_file = Path(std::string(mode) + ".port");
    const pid_t pid = fork();
    if (pid == 0) {
      if (chdir(dir_.c_str()) != 0) _exit(127);
      execl("/usr/bin/python3", "python3", "server.py", mode, port_file.c_str(),
            static_cast<char *>(nullptr));
      _exit(127);
    }
    servers_.push_back(pid);
    for (int i = 0; i < 200; ++i) {
      std::ifstream in(port_file);
      int port = 0;
      if (in >> port && port > 0) return port;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return 0;
  }

  static std::string Path(const std::string &name) { return (dir_ / name).string(); }
  static int Sh(const std::string &command) {
    const std::string line = "cd '" + dir_.string() + "' && (" + command + ") >/dev/null 2>&1";
    return std::system(line.c_str());
  }
  static std::string Read(const std::string &name) {
    std::ifstream in(Path(name), std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }
  static std::string EchoUrl(const std::string &path) {
    return "https://localhost:" + std::to_string(echo_port_) + path;
  }

  struct Outcome {
    int rc = -1;
    uint32_t status = 0;
    std::string body;
  };
  // One request as `who` (master by default) with the test's identity and `chain`.
  static Outcome Request(const char *method, const std::string &url, const char *headers = nullptr,
                         const std::string &body = {}, uint32_t timeout_ms = 10000,
                         const char *chain = "pixchain", HSESSIONCTX session = nullptr) {
    qltest::OpenedSession master("master", {}, *hsm_);
    HSESSIONCTX s = session ? session : master.get();
    unsigned char *answer = nullptr;
    uint32_t len = 0;
    Outcome o;
    const auto *data = reinterpret_cast<const unsigned char *>(body.data());
    const auto size = static_cast<uint32_t>(body.size());
    const std::string m = method;
    if (m == "POST")
      o.rc = QPIXPost(s, "pixkey", "pixcert", chain, url.c_str(), headers, data, size, timeout_ms,
                      &answer, &len, &o.status, 0);
    else if (m == "PUT")
      o.rc = QPIXPut(s, "pixkey", "pixcert", chain, url.c_str(), headers, data, size, timeout_ms,
                     &answer, &len, &o.status, 0);
    else if (m == "GET")
      o.rc = QPIXGet(s, "pixkey", "pixcert", chain, url.c_str(), headers, timeout_ms, &answer, &len,
                     &o.status, 0);
    else
      o.rc = QPIXDelete(s, "pixkey", "pixcert", chain, url.c_str(), headers, timeout_ms, &answer,
                        &len, &o.status, 0);
    if (o.rc == 0) o.body.assign(reinterpret_cast<char *>(answer), len);
    QFree(answer);
    return o;
  }

  static fs::path dir_;
  static int echo_port_, silent_port_;
  static std::vector<pid_t> servers_;
  static std::unique_ptr<qltest::HsmProcess> hsm_;
};

fs::path PixRequest::dir_;
int PixRequest::echo_port_ = 0;
int PixRequest::silent_port_ = 0;
std::vector<pid_t> PixRequest::servers_;
std::unique_ptr<qltest::HsmProcess> PixRequest::hsm_;

TEST_F(PixRequest, EveryMethodReachesTheServerWithTheHsmIdentity) {
  for (const char *method : {"POST", "GET", "PUT", "DELETE"}) {
    SCOPED_TRACE(method);
    const bool with_body = method[0] == 'P';
    const Outcome o = Request(method, EchoUrl("/api/v2/entries?k=1"), "X-Trace: t-42\n",
                              with_body ? "<Entry>1</Entry>" : "");
    ASSERT_EQ(o.rc, 0);
    EXPECT_EQ(o.status, 200u);
    EXPECT_EQ(o.body, std::string("method=") + method +
                          " path=/api/v2/entries?k=1 subject=pix client trace=t-42 body=" +
                          (with_body ? "<Entry>1</Entry>" : ""));
  }
}

TEST_F(PixRequest, ChunkedAnswersAndHttpStatusesPassThrough) {
  Outcome o = Request("POST", EchoUrl("/chunked"), nullptr, std::string(100, 'x'));
  ASSERT_EQ(o.rc, 0);
  EXPECT_EQ(o.status, 200u);
  EXPECT_EQ(o.body, "method=POST path=/chunked subject=pix client trace=None body=" +
                        std::string(100, 'x'));
  o = Request("GET", EchoUrl("/missing"));
  EXPECT_EQ(o.rc, 0);
  EXPECT_EQ(o.status, 404u);
}

TEST_F(PixRequest, RefusalsWithTheirCodes) {
  const std::string silent = "https://127.0.0.1:" + std::to_string(silent_port_) + "/";
  const struct {
    const char *name;
    std::string url;
    const char *headers;
    uint32_t timeout_ms;
    const char *chain;
    int code;
  } cases[] = {
      {"unlisted port", "https://localhost:9/", nullptr, 10000, "pixchain",
       QL_ERR_ENDPOINT_REFUSED},
      {"plain http", "http://localhost:" + std::to_string(echo_port_) + "/", nullptr, 10000,
       "pixchain", QL_ERR_BAD_ARGUMENT},
      {"header injection", EchoUrl("/"), "X-A: 1\r\nHost: evil\rX: y", 10000, "pixchain",
       QL_ERR_BAD_ARGUMENT},
      {"a header line ending the header section", EchoUrl("/"), "X-A: 1\n\nGET / HTTP/1.1", 10000,
       "pixchain", QL_ERR_BAD_ARGUMENT},
      {"untrusted server", EchoUrl("/"), nullptr, 10000, "otherchain", QL_ERR_REMOTE_FAILED},
      {"address not in the server's certificate",
       "https://127.0.0.1:" + std::to_string(echo_port_) + "/", nullptr, 10000, "pixchain",
       QL_ERR_REMOTE_FAILED},
      {"server that never answers", silent, nullptr, 700, "pixchain", QL_ERR_TIMEOUT},
      {"no such chain", EchoUrl("/"), nullptr, 10000, "nochain", QL_ERR_OBJ_NOT_FOUND},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Request("GET", c.url, c.headers, {}, c.timeout_ms, c.chain).rc, c.code);
  }
}

// A request waiting on a silent server must not hold up another connection of the same event
// loop: that one opens a session and is served while the first still waits.
TEST_F(PixRequest, AWaitingRequestHoldsUpNoOtherConnection) {
  const std::string accepted = Path("silent.port.accepted");
  fs::remove(accepted);
  std::atomic<bool> answered{false};
  std::thread waiting([&] {
    EXPECT_EQ(
        Request("GET", "https://127.0.0.1:" + std::to_string(silent_port_) + "/", nullptr, {}, 4000)
            .rc,
        QL_ERR_TIMEOUT);
    answered = true;
  });
  for (int i = 0; i < 500 && !fs::exists(accepted); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_TRUE(fs::exists(accepted)) << "the HSM never reached the silent server";
  {
    qltest::OpenedSession other("master", {}, *hsm_);
    unsigned char random[16];
    EXPECT_EQ(QGetRandom(other.get(), random, sizeof random), QL_OK);
  }
  EXPECT_FALSE(answered) << "the other connection was served only after the waiting request";
  waiting.join();
}

// A daemon told to stop ends a request waiting on a silent server at once, not at its 120 s
// timeout, and exits cleanly; it then serves again for the tests after this one.
TEST_F(PixRequest, AStoppingDaemonEndsAWaitingRequest) {
  const std::string accepted = Path("silent.port.accepted");
  fs::remove(accepted);
  qltest::OpenedSession session("master", {}, *hsm_);
  int rc = QL_OK;
  std::thread waiting([&] {
    rc = Request("GET", "https://127.0.0.1:" + std::to_string(silent_port_) + "/", nullptr, {},
                 120000, "pixchain", session.get())
             .rc;
  });
  for (int i = 0; i < 500 && !fs::exists(accepted); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_TRUE(fs::exists(accepted)) << "the HSM never reached the silent server";
  const auto start = std::chrono::steady_clock::now();
  const int status = hsm_->Stop();
  const auto stopping = std::chrono::steady_clock::now() - start;
  waiting.join();
  EXPECT_NE(rc, QL_OK);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_LT(stopping, std::chrono::seconds(60)) << "the daemon waited out the request";
  hsm_->Restart();
}

TEST_F(PixRequest, RightThenEndpointThenExistence) {
  qltest::OpenedSession master("master", {}, *hsm_);
  const std::string user = "pixreq" + std::to_string(getpid());
  ASSERT_EQ(qltest::CreateUser(master.get(), user, "pw123456", ACL_OBJ_UPDATE), 0);
  {
    qltest::OpenedSession s(user, "pw123456", *hsm_);
    // master's objects by their full names, and an endpoint the HSM may not reach: the right
    // is checked first.
    unsigned char *answer = nullptr;
    uint32_t len = 0, status = 0;
    for (const std::string &url : {EchoUrl("/"), std::string("https://localhost:9/")}) {
      EXPECT_EQ(QPIXGet(s.get(), "master/pixkey", "master/pixcert", "master/pixchain", url.c_str(),
                        nullptr, 1000, &answer, &len, &status, 0),
                QL_ERR_ACCESS_DENIED)
          << url;
    }
    EXPECT_EQ(answer, nullptr);
  }
  EXPECT_EQ(QRemoveUser(master.get(), user.c_str()), 0);
  // With the right, an unlisted endpoint is refused before any object is looked for.
  unsigned char *answer = nullptr;
  uint32_t len = 0, status = 0;
  EXPECT_EQ(QPIXGet(master.get(), "nokey", "nocert", "nochain", "https://localhost:9/", nullptr,
                    1000, &answer, &len, &status, 0),
            QL_ERR_ENDPOINT_REFUSED);
  EXPECT_EQ(QPIXGet(master.get(), "nokey", "nocert", "nochain", EchoUrl("/").c_str(), nullptr, 1000,
                    &answer, &len, &status, 0),
            QL_ERR_OBJ_NOT_FOUND);
}

TEST_F(PixRequest, DaemonRefusesToStartWithAMalformedEndpoint) {
  const std::string log = Path("bad_endpoint.log");
  EXPECT_NE(qltest::RunQlhsmd({"serve", "--data-dir", hsm_->data_dir(), "--listen", "127.0.0.1:0",
                               "--pix-endpoint", "localhost"},
                              log),
            0);
  EXPECT_NE(Read("bad_endpoint.log").find("--pix-endpoint takes HOST:PORT"), std::string::npos)
      << Read("bad_endpoint.log");
}

#ifdef QLUTIL_BIN
TEST_F(PixRequest, JobAndPerformanceTest) {
  const std::string dir = dir_.string();
  auto qlutil = [&](const std::string &args) {
    return qltest::RunCommand(qltest::QlutilAsMaster(QLUTIL_BIN, dir, *hsm_, args));
  };
  const std::string identity = " -kn pixkey -c pixcert --chain pixchain";
  const std::string url = " --url " + EchoUrl("/job");
  for (const std::string &args : {"-j pix-request -kn pixkey -c pixcert -r get" + url,  // no chain
                                  "-j pix-request" + identity + " -r get",              // no URL
                                  "-j pix-request" + identity + " -r head" + url,  // no such method
                                  "-j pix-request" + identity + url,               // no method
                                  "-j pix-request" + identity + " -r get --tmout 0" + url}) {
    SCOPED_TRACE(args);
    const qltest::CommandResult r = qlutil(args);
    EXPECT_EQ(r.exit_code, 255);
    EXPECT_EQ(r.out.rfind("\r\nDESCRIPTION\r\n", 0), 0u) << r.out;
  }
  std::ofstream(Path("body.json")) << "{\"k\":1}";
  qltest::CommandResult r = qlutil("-j pix-request" + identity +
                                   " -r put --rdata body.json --header 'X-Trace: j1'" + url);
  ASSERT_EQ(r.exit_code, 0) << r.out;
  EXPECT_NE(r.out.find("HTTP status: 200\r\nmethod=PUT path=/job subject=pix client trace=j1 "
                       "body={\"k\":1}\r\n"),
            std::string::npos)
      << r.out;
  r = qlutil("-j pix-request" + identity + " -r delete --out answer.txt" + url);
  ASSERT_EQ(r.exit_code, 0) << r.out;
  EXPECT_EQ(Read("answer.txt"), "method=DELETE path=/job subject=pix client trace=None body=");
  // The audit log names method, endpoint, path and status; never query, headers or body.
  std::ofstream(Path("secret.txt")) << "body-secret";
  r = qlutil("-j pix-request" + identity +
             " -r post --rdata secret.txt --header 'X-Trace: header-secret' --url '" +
             EchoUrl("/audited?query-secret") + "'");
  ASSERT_EQ(r.exit_code, 0) << r.out;
  r = qlutil("-j get-log -raw");
  ASSERT_EQ(r.exit_code, 0) << r.out;
  EXPECT_NE(r.out.find("POST localhost:" + std::to_string(echo_port_) + "/audited status 200"),
            std::string::npos)
      << r.out;
  EXPECT_EQ(r.out.find("-secret"), std::string::npos) << r.out;
  r = qlutil("-j pix-request" + identity + " -r get --url https://localhost:9/");
  EXPECT_EQ(r.exit_code, QL_ERR_ENDPOINT_REFUSED & 0xFF);
  EXPECT_NE(r.out.find("Error in QPIXGet. Err = 5091"), std::string::npos) << r.out;

  // The performance test, each thread on its session, with the request's files dumped.
  fs::create_directories(dir_ / "dump");
  r = qlutil("-p pix-request -t 2 -i 3 -r post --rdata body.json --dump dump" + identity + url);
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_EQ(Read("dump/pix_request_url"), EchoUrl("/job"));
  EXPECT_EQ(Read("dump/pix_request_body"), "{\"k\":1}");
  EXPECT_EQ(Sh("openssl x509 -in dump/client_cert.pem -noout -subject | grep -q 'pix client' && "
               "openssl x509 -in dump/ca_chain.pem -noout -subject | grep -q pixtest-ca"),
            0);
  // Its default identity is no client the server knows, so the requests fail; its files (the
  // embedded certificate and CA as a chain) are written before.
  fs::create_directories(dir_ / "dump2");
  r = qlutil("-p pix-request -t 1 -i 1 -r get --dump dump2" + url);
  EXPECT_NE(r.exit_code, 0) << r.out;
  EXPECT_EQ(Sh("openssl storeutl -certs dump2/ca_chain.pem | grep -q 'Total found: 2' && "
               "openssl verify -CAfile dump2/ca_chain.pem dump2/client_cert.pem"),
            0);
}
#endif

}  // namespace
