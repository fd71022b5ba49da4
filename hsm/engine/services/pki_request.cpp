// PIX requests: the HSM makes the HTTPS request itself, so that the client key signs the TLS
// handshake without leaving it. Only endpoints the operator listed (`serve --pix-endpoint`) are
// reached, and the audit log gets the method, endpoint, path and status, never headers, query or
// bodies, which may carry secrets.
#include <algorithm>

#include "engine/services/pix_http.h"
#include "engine/services/pki.h"

namespace qlhsm {

using access::Request;
using sessions::Session;

namespace {

bool KnownMethod(const std::string &m) {
  return m == "POST" || m == "GET" || m == "PUT" || m == "DELETE";
}

}  // namespace

Result<PixHttpAnswer> PkiService::PixRequest(Session &s, const PixHttpRequest &in) {
  objects::ObjectRef key_ref, cert_ref, chain_ref;
  pix::Url url;
  std::string headers;
  std::string target = in.method + " -";
  Op op{"pix-request", target, Request::kUseObject, AuditMode::kRefusal};
  return guard_.Run(
      s, op,
      [&] {
        if (!KnownMethod(in.method)) return Status::Error(Code::kBadArgument, "no such method");
        if (in.chain_name.empty()) return Status::Error(Code::kBadArgument, "no chain");
        QL_RETURN_IF_ERROR(core_.Ref(s, in.key_name, &key_ref));
        QL_RETURN_IF_ERROR(core_.Ref(s, in.cert_name, &cert_ref));
        QL_RETURN_IF_ERROR(core_.Ref(s, in.chain_name, &chain_ref));
        Result<pix::Url> parsed = pix::ParseUrl(in.url);
        if (!parsed.ok()) return parsed.status();
        url = std::move(parsed.value());
        Result<std::string> lines = pix::NormaliseHeaders(in.headers);
        if (!lines.ok()) return lines.status();
        headers = std::move(lines.value());
        // The audit line's target, filled in before the right is checked (op holds a view).
        target.replace(target.size() - 1, 1, url.endpoint() + url.path());
        op.target = target;
        return Status::Ok();
      },
      [&](const users::UserInfo &) -> Result<PixHttpAnswer> {
        const std::vector<std::string> &allowed = core_.pix_endpoints;
        if (std::find(allowed.begin(), allowed.end(), url.endpoint()) == allowed.end())
          return Status::Error(Code::kEndpointRefused, "not an allowed endpoint");
        Result<KeyCache::Entry> key = core_.keys.Load(*core_.objects, key_ref);
        if (!key.ok()) return key.status();
        if (key->info.blocked) return Status::Error(Code::kObjectBlocked, "object blocked");
        if (key->key->pkey() == nullptr || key->key->is_secret())
          return Status::Error(Code::kBadKeyUsage, "not a private key");
        Result<secure::Bytes> cert = CertificateOf(*key->key, cert_ref);
        if (!cert.ok()) return cert.status();
        Result<std::vector<secure::Bytes>> chain = LoadChain(chain_ref);
        if (!chain.ok()) return chain.status();

        pix::Exchange ex;
        ex.url = url;
        ex.method = in.method;
        ex.headers = headers;
        ex.body = in.body;
        ex.key = key->key->pkey();
        ex.certificate = std::move(cert.value());
        ex.anchors = std::move(chain.value());
        ex.now = core_.clock.Now();
        ex.timeout_ms =
            in.timeout_ms == 0 ? kPixDefaultTimeoutMs : std::min(in.timeout_ms, kPixMaxTimeoutMs);
        ex.stop = &core_.stopping;
        Result<pix::Answer> answer = pix::Perform(ex);
        if (!answer.ok()) return answer.status();
        // A request that was answered is audited with its HTTP status.
        core_.audit->Append(s.user(), op.name, target + " status " + std::to_string(answer->status),
                            0);
        PixHttpAnswer out;
        out.http_status = answer->status;
        out.body = std::move(answer->body);
        return out;
      });
}

}  // namespace qlhsm
