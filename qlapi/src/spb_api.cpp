// SPB secure messages: keys, requests and certificates by ISPB, and messages encoded and decoded
// in the HSM in pieces. A message handle names a message in progress in its session's HSM
// context; it dies with the session.
#include <memory>

#include "api_common.h"

using namespace qlapi;

namespace {

constexpr uint32_t kSpbKeyNameLen = 29;  // "SPB_" ISPB "_" and 16 hexadecimal digits
constexpr uint32_t kDesBlock = 8;        // version 2 bodies are triple-DES
constexpr uint32_t kAesBlock = 16;       // version 3 bodies are AES
constexpr uint32_t kEncodeFlags = QL_SPB_GEN01 | QL_SPB_V3;
constexpr uint32_t kDecodeFlags = QL_SPB_V3 | QL_SPB_PAD;

struct SpbHandle : HandleBase {
  SpbHandle() : HandleBase(kSpbMagic) {}
  std::shared_ptr<SessionCore> core;
  uint64_t server = 0;
  bool encoding = false;
  uint32_t block = 1;  // the body's cipher block, 1 when it passes in the clear
  uint64_t message_len = 0;
  uint64_t fed = 0;  // bytes given to Cont so far
  uint64_t out = 0;  // bytes Cont gave back so far
};

SpbHandle *SpbOf(HSPBMSGCTX h) {
  return AsHandle<SpbHandle>(h, kSpbMagic);
}

bool Ispb(const char *s) {
  if (s == nullptr) return false;
  for (int i = 0; i < 8; ++i)
    if (s[i] < '0' || s[i] > '9') return false;
  return s[8] == '\0';
}

// What Cont will hand back for this piece: exactly, when encoding (whole blocks, and the padding
// with the last piece); at most that, when decoding (the plain text is never longer than the
// cipher text; the HSM holds a block back until the end, so a piece may give up to a block more).
uint64_t OutputBound(const SpbHandle &m, uint32_t in_len) {
  const uint64_t fed = m.fed + in_len;
  if (!m.encoding || m.block == 1) return fed - m.out;
  const uint64_t done =
      fed == m.message_len ? (m.message_len / m.block + 1) * m.block : fed / m.block * m.block;
  return done - m.out;
}

int Piece(HSPBMSGCTX hMsg, bool encoding, const unsigned char *pbIn, uint32_t dwInLen,
          unsigned char *pbOut, uint32_t *pdwOutLen) {
  SpbHandle *m = SpbOf(hMsg);
  if (m == nullptr || m->encoding != encoding) return QL_ERR_BAD_HANDLE;
  if ((pbIn == nullptr && dwInLen != 0) || pdwOutLen == nullptr) return QL_ERR_BAD_ARGUMENT;
  const uint64_t need = OutputBound(*m, dwInLen);
  if (pbOut == nullptr || *pdwOutLen < need) {
    *pdwOutLen = static_cast<uint32_t>(need);
    return QL_ERR_BUFFER_TOO_SMALL;
  }
  pb::Request request;
  pb::SpbMessagePiece *p =
      encoding ? request.mutable_spb_encode_cont() : request.mutable_spb_decode_cont();
  p->set_handle(m->server);
  p->set_data(reinterpret_cast<const char *>(pbIn), dwInLen);
  pb::Response response;
  QL_RETURN_CODE_IF_ERROR(AskCore(*m->core, request, &response));
  if (!response.has_blob()) return QL_ERR_PROTOCOL;
  const std::string &data = response.blob().data();
  if (data.size() > *pdwOutLen) return QL_ERR_PROTOCOL;
  if (!data.empty()) std::memcpy(pbOut, data.data(), data.size());
  *pdwOutLen = static_cast<uint32_t>(data.size());
  m->fed += dwInLen;
  m->out += data.size();
  return QL_OK;
}

// Releases the handle and ends the message in the HSM; the answer of that end.
int End(HSPBMSGCTX *phMsg, bool encoding, pb::Response *response) {
  if (phMsg == nullptr) return QL_ERR_BAD_ARGUMENT;
  SpbHandle *m = SpbOf(*phMsg);
  if (m == nullptr || m->encoding != encoding || !UnregisterHandle(m)) return QL_ERR_BAD_HANDLE;
  std::unique_ptr<SpbHandle> owned(m);
  *phMsg = nullptr;
  pb::Request request;
  (encoding ? request.mutable_spb_encode_end() : request.mutable_spb_decode_end())
      ->set_handle(owned->server);
  return AskCore(*owned->core, request, response).code();
}

int Start(HSESSIONCTX hSession, pb::Request &request, bool encoding, uint32_t block,
          uint64_t message_len, HSPBMSGCTX *phMsg) {
  auto core = CoreOf(hSession);
  if (!core) return QL_ERR_BAD_HANDLE;
  pb::Response response;
  QL_RETURN_CODE_IF_ERROR(AskCore(*core, request, &response));
  if (!response.has_number()) return QL_ERR_PROTOCOL;
  auto m = std::make_unique<SpbHandle>();
  m->core = core;
  m->server = response.number().value();
  m->encoding = encoding;
  m->block = block;
  m->message_len = message_len;
  RegisterHandle(m.get());
  *phMsg = m.release();
  return QL_OK;
}

}  // namespace

extern "C" int QSPBEncodeInit(HSESSIONCTX hSession, const char *szSrcIspb, const char *szDstIspb,
                              uint32_t dwMessageLen, unsigned char bC3, unsigned char bC4,
                              HSPBMSGCTX *phMsg, uint32_t dwFlags) {
  return Guard([&] {
    if (phMsg == nullptr) return QL_ERR_BAD_ARGUMENT;
    *phMsg = nullptr;
    if (!Ispb(szSrcIspb) || !Ispb(szDstIspb)) return QL_ERR_BAD_ARGUMENT;
    if (dwFlags & ~kEncodeFlags) return QL_ERR_BAD_FLAGS;
    pb::Request request;
    pb::SpbEncodeInit *e = request.mutable_spb_encode_init();
    e->set_local_ispb(szSrcIspb);
    e->set_counterpart_ispb(szDstIspb);
    e->set_message_len(dwMessageLen);
    e->set_c3(bC3);
    e->set_c4(bC4);
    e->set_flags(dwFlags);
    const uint32_t block =
        (dwFlags & QL_SPB_GEN01) ? 1 : ((dwFlags & QL_SPB_V3) ? kAesBlock : kDesBlock);
    return Start(hSession, request, true, block, dwMessageLen, phMsg);
  });
}

extern "C" int QSPBEncodeCont(HSPBMSGCTX hMsg, const unsigned char *pbIn, uint32_t dwInLen,
                              unsigned char *pbOut, uint32_t *pdwOutLen) {
  return Guard([&] { return Piece(hMsg, true, pbIn, dwInLen, pbOut, pdwOutLen); });
}

extern "C" int QSPBEncodeEnd(HSPBMSGCTX *phMsg, unsigned char *pbOut, uint32_t *pdwOutLen) {
  return Guard([&] {
    pb::Response response;
    const int rc = End(phMsg, true, &response);
    if (rc != QL_OK) return rc;
    if (!response.has_blob() || response.blob().data().size() != QL_SPB_HEADER_LEN)
      return QL_ERR_PROTOCOL;
    // The message is gone either way: a short buffer learns the length and loses the header.
    if (pdwOutLen == nullptr) return QL_ERR_BAD_ARGUMENT;
    if (pbOut == nullptr || *pdwOutLen < QL_SPB_HEADER_LEN) {
      *pdwOutLen = QL_SPB_HEADER_LEN;
      return QL_ERR_BUFFER_TOO_SMALL;
    }
    std::memcpy(pbOut, response.blob().data().data(), QL_SPB_HEADER_LEN);
    *pdwOutLen = QL_SPB_HEADER_LEN;
    return QL_OK;
  });
}

extern "C" int QSPBDecodeInit(HSESSIONCTX hSession, const char *szSrcIspb, const char *szDstIspb,
                              const unsigned char *pbHeader, uint32_t dwHeaderLen,
                              uint32_t dwMessageLen, unsigned char bAcceptExpired,
                              unsigned char bAutoUpdateCert, HSPBMSGCTX *phMsg, uint32_t dwFlags) {
  return Guard([&] {
    if (phMsg == nullptr) return QL_ERR_BAD_ARGUMENT;
    *phMsg = nullptr;
    if (!Ispb(szSrcIspb) || !Ispb(szDstIspb) || pbHeader == nullptr) return QL_ERR_BAD_ARGUMENT;
    if (dwFlags & ~kDecodeFlags) return QL_ERR_BAD_FLAGS;
    pb::Request request;
    pb::SpbDecodeInit *d = request.mutable_spb_decode_init();
    d->set_local_ispb(szSrcIspb);
    d->set_counterpart_ispb(szDstIspb);
    d->set_header(reinterpret_cast<const char *>(pbHeader), dwHeaderLen);
    d->set_message_len(dwMessageLen);
    d->set_accept_expired(bAcceptExpired != 0);
    d->set_auto_activate(bAutoUpdateCert != 0);
    d->set_flags(dwFlags);
    return Start(hSession, request, false, kAesBlock, dwMessageLen, phMsg);
  });
}

extern "C" int QSPBDecodeCont(HSPBMSGCTX hMsg, const unsigned char *pbIn, uint32_t dwInLen,
                              unsigned char *pbOut, uint32_t *pdwOutLen) {
  return Guard([&] { return Piece(hMsg, false, pbIn, dwInLen, pbOut, pdwOutLen); });
}

extern "C" int QSPBDecodeEnd(HSPBMSGCTX *phMsg) {
  return Guard([&] {
    if (phMsg != nullptr && *phMsg == nullptr) return QL_OK;
    return End(phMsg, false, nullptr);
  });
}

extern "C" int QSPBGenerateKey(HSESSIONCTX hSession, const char *szIspb, char *szKeyName,
                               uint32_t *pdwKeyNameLen, uint32_t dwFlags) {
  return Guard([&] {
    if (!Ispb(szIspb) || pdwKeyNameLen == nullptr) return QL_ERR_BAD_ARGUMENT;
    if (dwFlags & ~(QL_KEY_EXPORTABLE | QL_SPB_KEY_SELF_SIGNED)) return QL_ERR_BAD_FLAGS;
    // The name's length is fixed: a short buffer is told before a key is made.
    if (szKeyName == nullptr || *pdwKeyNameLen < kSpbKeyNameLen + 1) {
      *pdwKeyNameLen = kSpbKeyNameLen + 1;
      return QL_ERR_BUFFER_TOO_SMALL;
    }
    pb::Request request;
    request.mutable_spb_generate_key()->set_ispb(szIspb);
    request.mutable_spb_generate_key()->set_flags(dwFlags);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_blob() || response.blob().data().size() != kSpbKeyNameLen)
      return QL_ERR_PROTOCOL;
    std::memcpy(szKeyName, response.blob().data().c_str(), kSpbKeyNameLen + 1);
    *pdwKeyNameLen = kSpbKeyNameLen;
    return QL_OK;
  });
}

extern "C" int QSPBGenerateCSR(HSESSIONCTX hSession, const char *szIspb, const char *szKeyName,
                               const char *szSubjectDn, unsigned char **ppbCsr, uint32_t *pdwCsrLen,
                               uint32_t dwFlags) {
  return Guard([&] {
    if (!Ispb(szIspb) || !HasText(szKeyName) || !HasText(szSubjectDn) || ppbCsr == nullptr ||
        pdwCsrLen == nullptr) {
      return QL_ERR_BAD_ARGUMENT;
    }
    *ppbCsr = nullptr;
    if (dwFlags & ~(QL_SPB_CSR_SHA1 | QL_SPB_CSR_DER)) return QL_ERR_BAD_FLAGS;
    pb::Request request;
    pb::SpbGenerateCsr *c = request.mutable_spb_generate_csr();
    c->set_ispb(szIspb);
    c->set_key_name(szKeyName);
    c->set_subject(szSubjectDn);
    c->set_flags(dwFlags);
    pb::Response response;
    QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
    if (!response.has_blob()) return QL_ERR_PROTOCOL;
    return AllocOut(response.blob().data(), ppbCsr, pdwCsrLen).code();
  });
}

extern "C" int QSPBImportCertificate(HSESSIONCTX hSession, const unsigned char *pbCert,
                                     uint32_t dwCertLen, uint32_t dwFlags) {
  return Guard([&] {
    if (pbCert == nullptr || dwCertLen == 0) return QL_ERR_BAD_ARGUMENT;
    if (dwFlags & ~QL_SPB_CERT_ACTIVATE) return QL_ERR_BAD_FLAGS;
    pb::Request request;
    request.mutable_spb_import_certificate()->set_certificate(
        reinterpret_cast<const char *>(pbCert), dwCertLen);
    request.mutable_spb_import_certificate()->set_flags(dwFlags);
    return Ask(hSession, request).code();
  });
}

extern "C" int QSPBImportPKCS12(HSESSIONCTX hSession, const char *szPkcs12File,
                                const char *szPassword, const char *szIspb, uint32_t dwFlags) {
  return Guard([&] {
    if (!HasText(szPkcs12File) || szPassword == nullptr) return QL_ERR_BAD_ARGUMENT;
    if (szIspb != nullptr && szIspb[0] != '\0' && !Ispb(szIspb)) return QL_ERR_BAD_ARGUMENT;
    if (dwFlags & ~QL_SPB_CERT_ACTIVATE) return QL_ERR_BAD_FLAGS;
    std::string pfx;
    QL_RETURN_CODE_IF_ERROR(ReadLocalFile(szPkcs12File, &pfx));
    if (pfx.empty()) return QL_ERR_FILE_IO;
    pb::Request request;
    pb::SpbImportPkcs12 *p = request.mutable_spb_import_pkcs12();
    p->set_pfx(pfx);
    p->set_password(szPassword);
    if (szIspb != nullptr) p->set_ispb(szIspb);
    p->set_flags(dwFlags);
    return Ask(hSession, request).code();
  });
}

extern "C" int QSPBActivateCertificate(HSESSIONCTX hSession, const char *szIspb,
                                       const char *szDomain, const char *szSerial,
                                       uint32_t dwFlags) {
  return Guard([&] {
    if (!Ispb(szIspb) || !HasText(szSerial)) return QL_ERR_BAD_ARGUMENT;
    if (dwFlags != 0) return QL_ERR_BAD_FLAGS;
    pb::Request request;
    pb::SpbActivateCertificate *a = request.mutable_spb_activate_certificate();
    a->set_ispb(szIspb);
    if (szDomain != nullptr) a->set_domain(szDomain);
    a->set_serial(szSerial);
    return Ask(hSession, request).code();
  });
}
