// XML signatures (enveloped XML-DSig) and the PIX message signatures built on them.
//
// The library parses, builds and canonicalises the XML with libxml2; the HSM signs the digest of
// the canonical SignedInfo (the hashed-data signing request, with its right checks) and checks a
// signature value under a signer certificate after path validation. The daemon never parses XML.
//
// Documents with a DOCTYPE (so no entities), duplicate ID attributes (Id, ID or id) or no
// Signature, and malformed XML, answer QL_ERR_BAD_XML. Only same-document references are
// resolved: "" (the document, or the AppHdr of a PIX message), "#id", and no URI (the Document
// of a PIX message).
#include <libxml/c14n.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <openssl/bn.h>
#include <openssl/ecdsa.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/x509.h>

#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "api_common.h"
#include "base64.h"

using namespace qlapi;

// For the helpers here, which answer a code.
#define RETURN_IF_FAILED(expr)    \
  do {                            \
    const int rc_ = (expr);       \
    if (rc_ != QL_OK) return rc_; \
  } while (0)

namespace {

constexpr char kDsigNs[] = "http://www.w3.org/2000/09/xmldsig#";
constexpr char kExcC14n[] = "http://www.w3.org/2001/10/xml-exc-c14n#";
constexpr char kEnvelopedUri[] = "http://www.w3.org/2000/09/xmldsig#enveloped-signature";

struct C14nMethod {
  const char *uri;
  int mode;
  int comments;
};
constexpr C14nMethod kC14nMethods[] = {
    {"http://www.w3.org/2001/10/xml-exc-c14n#", XML_C14N_EXCLUSIVE_1_0, 0},
    {"http://www.w3.org/2001/10/xml-exc-c14n#WithComments", XML_C14N_EXCLUSIVE_1_0, 1},
    {"http://www.w3.org/TR/2001/REC-xml-c14n-20010315", XML_C14N_1_0, 0},
    {"http://www.w3.org/TR/2001/REC-xml-c14n-20010315#WithComments", XML_C14N_1_0, 1},
    {"http://www.w3.org/2006/12/xml-c14n11", XML_C14N_1_1, 0},
    {"http://www.w3.org/2006/12/xml-c14n11#WithComments", XML_C14N_1_1, 1},
};

// Digest and signature identifiers of XML-DSig 1.1 section 6 and RFC 6931 section 2.3.
struct HashMethod {
  uint32_t id;
  const char *digest_uri;
  const char *rsa_uri;
  const char *ecdsa_uri;
  const EVP_MD *(*md)();
};
constexpr HashMethod kHashMethods[] = {
    {QL_ALG_SHA1, "http://www.w3.org/2000/09/xmldsig#sha1",
     "http://www.w3.org/2000/09/xmldsig#rsa-sha1",
     "http://www.w3.org/2001/04/xmldsig-more#ecdsa-sha1", EVP_sha1},
    {QL_ALG_SHA256, "http://www.w3.org/2001/04/xmlenc#sha256",
     "http://www.w3.org/2001/04/xmldsig-more#rsa-sha256",
     "http://www.w3.org/2001/04/xmldsig-more#ecdsa-sha256", EVP_sha256},
    {QL_ALG_SHA384, "http://www.w3.org/2001/04/xmldsig-more#sha384",
     "http://www.w3.org/2001/04/xmldsig-more#rsa-sha384",
     "http://www.w3.org/2001/04/xmldsig-more#ecdsa-sha384", EVP_sha384},
    {QL_ALG_SHA512, "http://www.w3.org/2001/04/xmlenc#sha512",
     "http://www.w3.org/2001/04/xmldsig-more#rsa-sha512",
     "http://www.w3.org/2001/04/xmldsig-more#ecdsa-sha512", EVP_sha512},
};

const HashMethod *HashById(uint32_t id) {
  for (const HashMethod &h : kHashMethods)
    if (h.id == id) return &h;
  return nullptr;
}

// Where the Signature goes and what its references cover.
enum class Layout {
  kEnveloped,   // QSignXml: the document or a filtered element
  kPixMessage,  // an ISO 20022 envelope: AppHdr/Sgntr, references KeyInfo, AppHdr, Document
  kPixDict,     // a directory message: one enveloped Signature, last child of the root
};

// libxml2 is initialised once per process and never cleaned up, so that any number of
// QInitialize/QFinalize rounds and threads may use it.
void InitXml() {
  static std::once_flag once;
  std::call_once(once, [] { xmlInitParser(); });
}

struct DocFree {
  void operator()(xmlDoc *d) const { xmlFreeDoc(d); }
};
using DocPtr = std::unique_ptr<xmlDoc, DocFree>;
struct X509Free {
  void operator()(X509 *x) const { X509_free(x); }
};
using X509Ptr = std::unique_ptr<X509, X509Free>;

std::string Text(const xmlChar *s) {
  return s ? std::string(reinterpret_cast<const char *>(s)) : std::string();
}

bool NameIs(const xmlNode *n, const char *local) {
  return n != nullptr && n->type == XML_ELEMENT_NODE &&
         std::strcmp(reinterpret_cast<const char *>(n->name), local) == 0;
}

bool IsDsig(const xmlNode *n, const char *local) {
  return NameIs(n, local) && n->ns != nullptr &&
         std::strcmp(reinterpret_cast<const char *>(n->ns->href), kDsigNs) == 0;
}

std::string Attribute(xmlNode *n, const char *name, bool *present = nullptr) {
  xmlChar *v = xmlGetNoNsProp(n, reinterpret_cast<const xmlChar *>(name));
  if (present) *present = v != nullptr;
  std::string out = Text(v);
  xmlFree(v);
  return out;
}

std::string Content(xmlNode *n) {
  xmlChar *v = xmlNodeGetContent(n);
  std::string out = Text(v);
  xmlFree(v);
  return out;
}

xmlNode *FirstChild(xmlNode *parent, const char *local) {
  for (xmlNode *c = parent ? parent->children : nullptr; c; c = c->next)
    if (NameIs(c, local)) return c;
  return nullptr;
}

// The first element of that local name in document order.
xmlNode *FindElement(xmlNode *n, const char *local) {
  for (; n; n = n->next) {
    if (n->type != XML_ELEMENT_NODE) continue;
    if (NameIs(n, local)) return n;
    if (xmlNode *found = FindElement(n->children, local)) return found;
  }
  return nullptr;
}

void FindSignatures(xmlNode *n, std::vector<xmlNode *> *out) {
  for (; n; n = n->next) {
    if (n->type != XML_ELEMENT_NODE) continue;
    if (IsDsig(n, "Signature")) out->push_back(n);
    FindSignatures(n->children, out);
  }
}

bool IsIdName(const xmlChar *name) {
  return xmlStrEqual(name, BAD_CAST "Id") || xmlStrEqual(name, BAD_CAST "ID") ||
         xmlStrEqual(name, BAD_CAST "id");
}

// Every element's ID attribute; false on a duplicate value (a signature-wrapping vector).
bool CollectIds(xmlNode *n, std::map<std::string, xmlNode *> *ids) {
  for (; n; n = n->next) {
    if (n->type != XML_ELEMENT_NODE) continue;
    for (xmlAttr *a = n->properties; a; a = a->next) {
      if (a->ns != nullptr || !IsIdName(a->name)) continue;
      if (!ids->emplace(Attribute(n, reinterpret_cast<const char *>(a->name)), n).second)
        return false;
    }
    if (!CollectIds(n->children, ids)) return false;
  }
  return true;
}

std::string IdOf(xmlNode *n) {
  for (const char *name : {"Id", "ID", "id"}) {
    bool present = false;
    std::string v = Attribute(n, name, &present);
    if (present) return v;
  }
  return {};
}

struct Parsed {
  DocPtr doc;
  std::map<std::string, xmlNode *> ids;
};

int Parse(const unsigned char *xml, uint32_t len, Parsed *out) {
  InitXml();
  if (xml == nullptr || len == 0) return QL_ERR_BAD_ARGUMENT;
  out->doc.reset(xmlReadMemory(reinterpret_cast<const char *>(xml), static_cast<int>(len), nullptr,
                               nullptr, XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
  if (!out->doc || xmlDocGetRootElement(out->doc.get()) == nullptr) return QL_ERR_BAD_XML;
  if (out->doc->intSubset != nullptr || out->doc->extSubset != nullptr) return QL_ERR_BAD_XML;
  if (!CollectIds(out->doc->children, &out->ids)) return QL_ERR_BAD_XML;
  return QL_OK;
}

// Drops the root's default namespace declaration: its elements and attributes lose the namespace.
void RemoveDefaultNamespace(xmlDoc *doc) {
  xmlNode *root = xmlDocGetRootElement(doc);
  xmlNs *prev = nullptr;
  xmlNs *ns = root->nsDef;
  while (ns != nullptr && ns->prefix != nullptr) {
    prev = ns;
    ns = ns->next;
  }
  if (ns == nullptr) return;
  (prev ? prev->next : root->nsDef) = ns->next;
  ns->next = nullptr;
  struct Walk {
    static void Clear(xmlNode *n, xmlNs *gone) {
      for (; n; n = n->next) {
        if (n->type != XML_ELEMENT_NODE) continue;
        if (n->ns == gone) n->ns = nullptr;
        for (xmlAttr *a = n->properties; a; a = a->next)
          if (a->ns == gone) a->ns = nullptr;
        Clear(n->children, gone);
      }
    }
  };
  Walk::Clear(root, ns);
  xmlFreeNs(ns);
}

// The node set of a reference: the subtree of `root` (the document node for the whole
// document) without the subtree of `excluded` (the enveloping Signature).
struct NodeSet {
  xmlNode *root;
  xmlNode *excluded;
};

int IsVisible(void *user, xmlNode *node, xmlNode *parent) {
  const auto *set = static_cast<const NodeSet *>(user);
  xmlNode *n = node;
  if (n == nullptr || n->type == XML_NAMESPACE_DECL || n->type == XML_ATTRIBUTE_NODE) n = parent;
  for (; n != nullptr; n = n->parent) {
    if (n == set->excluded) return 0;
    if (n == set->root) return 1;
  }
  return 0;
}

int AppendOut(void *ctx, const char *buffer, int len) {
  static_cast<std::string *>(ctx)->append(buffer, static_cast<size_t>(len));
  return len;
}

bool Canonicalize(xmlDoc *doc, const NodeSet &set, int mode, int comments, std::string *out) {
  xmlOutputBuffer *buf = xmlOutputBufferCreateIO(AppendOut, nullptr, out, nullptr);
  if (buf == nullptr) return false;
  NodeSet copy = set;
  const int rc = xmlC14NExecute(doc, IsVisible, &copy, mode, nullptr, comments, buf);
  xmlOutputBufferClose(buf);
  return rc >= 0;
}

std::string Digest(const EVP_MD *md, const std::string &data) {
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  if (EVP_Digest(data.data(), data.size(), out, &len, md, nullptr) != 1) return {};
  return std::string(reinterpret_cast<char *>(out), len);
}

xmlNode *AddChild(xmlNode *parent, const char *name, const std::string *text = nullptr) {
  return xmlNewTextChild(parent, parent->ns, BAD_CAST name,
                         text ? BAD_CAST text->c_str() : nullptr);
}

xmlNode *AddAlgorithm(xmlNode *parent, const char *name, const char *uri) {
  xmlNode *n = AddChild(parent, name);
  xmlNewProp(n, BAD_CAST "Algorithm", BAD_CAST uri);
  return n;
}

// ---------------------------------------------------------------------------------------------
// The signer certificate

int ReadCertificate(HSESSIONCTX hSession, const char *name, std::string *der, X509Ptr *x509) {
  pb::Request request;
  auto *x = request.mutable_export_key();
  x->mutable_key()->set_name(name);
  x->set_blob_type(QL_CERT_BLOB);
  pb::Response response;
  QL_RETURN_CODE_IF_ERROR(Ask(hSession, request, &response));
  if (!response.has_blob()) return QL_ERR_PROTOCOL;
  *der = response.blob().data();
  const unsigned char *p = reinterpret_cast<const unsigned char *>(der->data());
  x509->reset(d2i_X509(nullptr, &p, static_cast<long>(der->size())));
  return *x509 ? QL_OK : QL_ERR_BAD_CERT;
}

std::string IssuerText(X509 *x) {
  BIO *bio = BIO_new(BIO_s_mem());
  if (bio == nullptr) return {};
  X509_NAME_print_ex(bio, X509_get_issuer_name(x), 0, XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB);
  char *data = nullptr;
  const long len = BIO_get_mem_data(bio, &data);
  std::string out(data, static_cast<size_t>(len > 0 ? len : 0));
  BIO_free(bio);
  return out;
}

std::string SerialText(X509 *x) {
  BIGNUM *bn = ASN1_INTEGER_to_BN(X509_get0_serialNumber(x), nullptr);
  char *dec = bn ? BN_bn2dec(bn) : nullptr;
  std::string out = dec ? dec : "";
  OPENSSL_free(dec);
  BN_free(bn);
  return out;
}

// A decimal serial number as its big-endian magnitude; empty when it is not a number.
std::string SerialBytes(const std::string &decimal) {
  BIGNUM *bn = nullptr;
  if (decimal.empty() || BN_dec2bn(&bn, decimal.c_str()) != static_cast<int>(decimal.size())) {
    BN_free(bn);
    return {};
  }
  std::string out(static_cast<size_t>(BN_num_bytes(bn)), '\0');
  BN_bn2bin(bn, reinterpret_cast<unsigned char *>(out.data()));
  BN_free(bn);
  return out.empty() ? std::string(1, '\0') : out;
}

// DER ECDSA-Sig-Value to r||s, each half `width` bytes (XML-DSig 1.1 section 6.4.3).
bool EcdsaRaw(const std::string &der, int width, std::string *raw) {
  const unsigned char *p = reinterpret_cast<const unsigned char *>(der.data());
  ECDSA_SIG *sig = d2i_ECDSA_SIG(nullptr, &p, static_cast<long>(der.size()));
  if (sig == nullptr) return false;
  raw->assign(static_cast<size_t>(2 * width), '\0');
  auto *out = reinterpret_cast<unsigned char *>(raw->data());
  const bool ok = BN_bn2binpad(ECDSA_SIG_get0_r(sig), out, width) == width &&
                  BN_bn2binpad(ECDSA_SIG_get0_s(sig), out + width, width) == width;
  ECDSA_SIG_free(sig);
  return ok;
}

// ---------------------------------------------------------------------------------------------
// Signing

struct Reference {
  std::string uri;
  bool has_uri = true;
  NodeSet set;
  bool enveloped = false;
  xmlNode *digest_value = nullptr;
};

std::string RandomId() {
  unsigned char r[8];
  RAND_bytes(r, sizeof r);
  static const char kHex[] = "0123456789abcdef";
  std::string id = "KeyInfo-";
  for (unsigned char b : r) {
    id += kHex[b >> 4];
    id += kHex[b & 15];
  }
  return id;
}

int Sign(HSESSIONCTX hSession, Layout layout, uint32_t hash_id, const char *key_name,
         const char *cert_name, const char *filter, const unsigned char *xml, uint32_t xml_len,
         bool remove_ns, unsigned char **out, uint32_t *out_len) {
  if (out == nullptr || out_len == nullptr) return QL_ERR_BAD_ARGUMENT;
  *out = nullptr;
  *out_len = 0;
  if (!HasText(key_name) || !HasText(cert_name)) return QL_ERR_BAD_ARGUMENT;
  const HashMethod *hash = HashById(hash_id);
  if (hash == nullptr) return QL_ERR_BAD_ALGORITHM;
  Parsed parsed;
  RETURN_IF_FAILED(Parse(xml, xml_len, &parsed));
  xmlDoc *doc = parsed.doc.get();
  if (remove_ns) RemoveDefaultNamespace(doc);
  xmlNode *root = xmlDocGetRootElement(doc);

  std::string cert_der;
  X509Ptr cert;
  RETURN_IF_FAILED(ReadCertificate(hSession, cert_name, &cert_der, &cert));
  EVP_PKEY *pub = X509_get0_pubkey(cert.get());
  const int key_type = pub ? EVP_PKEY_get_base_id(pub) : EVP_PKEY_NONE;
  if (key_type != EVP_PKEY_RSA && key_type != EVP_PKEY_EC) return QL_ERR_BAD_KEY_USAGE;

  // Where the Signature goes, and the references other than KeyInfo.
  xmlNode *parent = root;
  std::vector<Reference> refs;
  xmlNode *app_hdr = nullptr;
  switch (layout) {
    case Layout::kEnveloped:
      if (HasText(filter)) {
        parent = FindElement(root, filter);
        if (parent == nullptr) return QL_ERR_BAD_XML;
        const std::string id = IdOf(parent);
        if (id.empty()) return QL_ERR_BAD_XML;
        refs.push_back({"#" + id, true, {parent, nullptr}, true});
      } else {
        refs.push_back({"", true, {reinterpret_cast<xmlNode *>(doc), nullptr}, true});
      }
      break;
    case Layout::kPixDict:
      refs.push_back({"", true, {reinterpret_cast<xmlNode *>(doc), nullptr}, true});
      break;
    case Layout::kPixMessage: {
      app_hdr = FindElement(root, "AppHdr");
      xmlNode *document = FindElement(root, "Document");
      if (app_hdr == nullptr || document == nullptr) return QL_ERR_BAD_XML;
      parent = FirstChild(app_hdr, "Sgntr");
      if (parent == nullptr) parent = xmlNewChild(app_hdr, app_hdr->ns, BAD_CAST "Sgntr", nullptr);
      // A signature already there is replaced.
      while (parent->children != nullptr) {
        xmlNode *c = parent->children;
        xmlUnlinkNode(c);
        xmlFreeNode(c);
      }
      refs.push_back({"", true, {app_hdr, nullptr}, true});
      refs.push_back({"", false, {document, nullptr}, false});
      break;
    }
  }

  xmlNode *sig = xmlNewNode(nullptr, BAD_CAST "Signature");
  xmlSetNs(sig, xmlNewNs(sig, BAD_CAST kDsigNs, nullptr));
  xmlAddChild(parent, sig);
  xmlNode *signed_info = AddChild(sig, "SignedInfo");
  AddAlgorithm(signed_info, "CanonicalizationMethod", kExcC14n);
  AddAlgorithm(signed_info, "SignatureMethod",
               key_type == EVP_PKEY_RSA ? hash->rsa_uri : hash->ecdsa_uri);
  xmlNode *signature_value = AddChild(sig, "SignatureValue");
  xmlNode *key_info = AddChild(sig, "KeyInfo");
  xmlNode *x509_data = AddChild(key_info, "X509Data");
  if (layout == Layout::kEnveloped) {
    const std::string b64 = Base64Encode(cert_der);
    AddChild(x509_data, "X509Certificate", &b64);
  } else {
    xmlNode *issuer_serial = AddChild(x509_data, "X509IssuerSerial");
    const std::string issuer = IssuerText(cert.get());
    const std::string serial = SerialText(cert.get());
    AddChild(issuer_serial, "X509IssuerName", &issuer);
    AddChild(issuer_serial, "X509SerialNumber", &serial);
  }
  if (layout == Layout::kPixMessage) {
    std::string id;
    do {
      id = RandomId();
    } while (parsed.ids.count(id) != 0);
    xmlNewProp(key_info, BAD_CAST "Id", BAD_CAST id.c_str());
    refs.insert(refs.begin(), Reference{"#" + id, true, {key_info, nullptr}, false});
  }

  for (Reference &ref : refs) {
    if (ref.enveloped) ref.set.excluded = sig;
    xmlNode *r = AddChild(signed_info, "Reference");
    if (ref.has_uri) xmlNewProp(r, BAD_CAST "URI", BAD_CAST ref.uri.c_str());
    xmlNode *transforms = AddChild(r, "Transforms");
    if (ref.enveloped) AddAlgorithm(transforms, "Transform", kEnvelopedUri);
    AddAlgorithm(transforms, "Transform", kExcC14n);
    AddAlgorithm(r, "DigestMethod", hash->digest_uri);
    ref.digest_value = AddChild(r, "DigestValue");
  }
  for (Reference &ref : refs) {
    std::string canonical;
    if (!Canonicalize(doc, ref.set, XML_C14N_EXCLUSIVE_1_0, 0, &canonical)) return QL_ERR_BAD_XML;
    const std::string b64 = Base64Encode(Digest(hash->md(), canonical));
    xmlNodeSetContent(ref.digest_value, BAD_CAST b64.c_str());
  }

  std::string canonical;
  if (!Canonicalize(doc, {signed_info, nullptr}, XML_C14N_EXCLUSIVE_1_0, 0, &canonical))
    return QL_ERR_BAD_XML;
  const std::string digest = Digest(hash->md(), canonical);
  unsigned char value[1024];
  uint32_t value_len = sizeof value;
  RETURN_IF_FAILED((QSignHashedData(
      hSession, key_name, QL_PAD_NONE, reinterpret_cast<const unsigned char *>(digest.data()),
      static_cast<uint32_t>(digest.size()), hash_id, value, &value_len, QL_SIGN_DISABLE_LEGACY)));
  std::string sig_value(reinterpret_cast<char *>(value), value_len);
  if (key_type == EVP_PKEY_EC) {
    std::string raw;
    if (!EcdsaRaw(sig_value, (EVP_PKEY_get_bits(pub) + 7) / 8, &raw)) return QL_ERR_PROTOCOL;
    sig_value = raw;
  }
  const std::string b64 = Base64Encode(sig_value);
  xmlNodeSetContent(signature_value, BAD_CAST b64.c_str());

  xmlChar *mem = nullptr;
  int size = 0;
  xmlDocDumpMemoryEnc(doc, &mem, &size, "UTF-8");
  if (mem == nullptr) return QL_ERR_NO_MEMORY;
  const std::string text(reinterpret_cast<char *>(mem), static_cast<size_t>(size));
  xmlFree(mem);
  return AllocOut(text, out, out_len).code();
}

// ---------------------------------------------------------------------------------------------
// Verification

bool Base64Value(xmlNode *n, std::string *out) {
  std::string text;
  for (char c : Content(n))
    if (c != ' ' && c != '\t' && c != '\r' && c != '\n') text += c;
  return !text.empty() && Base64Decode(text, out);
}

int ResolveReference(Layout layout, Parsed &parsed, xmlNode *ref, NodeSet *set) {
  xmlDoc *doc = parsed.doc.get();
  xmlNode *root = xmlDocGetRootElement(doc);
  bool has_uri = false;
  const std::string uri = Attribute(ref, "URI", &has_uri);
  if (layout == Layout::kPixMessage && (!has_uri || uri.empty())) {
    set->root = FindElement(root, has_uri ? "AppHdr" : "Document");
    return set->root ? QL_OK : QL_ERR_BAD_XML;
  }
  if (!has_uri) return QL_ERR_BAD_XML;
  if (uri.empty()) {
    set->root = reinterpret_cast<xmlNode *>(doc);
    return QL_OK;
  }
  if (uri[0] != '#') return QL_ERR_BAD_XML;  // only same-document references
  auto it = parsed.ids.find(uri.substr(1));
  if (it == parsed.ids.end()) return QL_ERR_BAD_XML;
  set->root = it->second;
  return QL_OK;
}

const C14nMethod *C14nByUri(const std::string &uri) {
  for (const C14nMethod &m : kC14nMethods)
    if (uri == m.uri) return &m;
  return nullptr;
}

int VerifyOne(HSESSIONCTX hSession, Layout layout, Parsed &parsed, xmlNode *sig, const char *chain,
              const char *crl) {
  xmlDoc *doc = parsed.doc.get();
  xmlNode *signed_info = FirstChild(sig, "SignedInfo");
  xmlNode *value_node = FirstChild(sig, "SignatureValue");
  if (signed_info == nullptr || value_node == nullptr) return QL_ERR_BAD_XML;
  const C14nMethod *si_c14n =
      C14nByUri(Attribute(FirstChild(signed_info, "CanonicalizationMethod"), "Algorithm"));
  if (si_c14n == nullptr) return QL_ERR_BAD_ALGORITHM;
  const std::string sig_uri = Attribute(FirstChild(signed_info, "SignatureMethod"), "Algorithm");
  // The HSM reads RSA or ECDSA from the signer's key.
  const HashMethod *sig_hash = nullptr;
  for (const HashMethod &h : kHashMethods)
    if (sig_uri == h.rsa_uri || sig_uri == h.ecdsa_uri) sig_hash = &h;
  if (sig_hash == nullptr) return QL_ERR_BAD_ALGORITHM;

  int references = 0;
  for (xmlNode *ref = signed_info->children; ref; ref = ref->next) {
    if (!NameIs(ref, "Reference")) continue;
    ++references;
    NodeSet set{nullptr, nullptr};
    RETURN_IF_FAILED((ResolveReference(layout, parsed, ref, &set)));
    int mode = XML_C14N_1_0;
    for (xmlNode *t = FirstChild(FirstChild(ref, "Transforms"), "Transform"); t; t = t->next) {
      if (!NameIs(t, "Transform")) continue;
      const std::string alg = Attribute(t, "Algorithm");
      if (alg == kEnvelopedUri) {
        set.excluded = sig;
      } else if (const C14nMethod *m = C14nByUri(alg)) {
        mode = m->mode;
      } else {
        return QL_ERR_BAD_ALGORITHM;
      }
    }
    const std::string digest_uri = Attribute(FirstChild(ref, "DigestMethod"), "Algorithm");
    const HashMethod *digest_hash = nullptr;
    for (const HashMethod &h : kHashMethods)
      if (digest_uri == h.digest_uri) digest_hash = &h;
    if (digest_hash == nullptr) return QL_ERR_BAD_ALGORITHM;
    std::string expected, canonical;
    if (!Base64Value(FirstChild(ref, "DigestValue"), &expected)) return QL_ERR_BAD_XML;
    if (!Canonicalize(doc, set, mode, 0, &canonical)) return QL_ERR_BAD_XML;
    if (Digest(digest_hash->md(), canonical) != expected) return QL_ERR_BAD_SIGNATURE;
  }
  if (references == 0) return QL_ERR_BAD_XML;

  std::string canonical, value;
  if (!Canonicalize(doc, {signed_info, nullptr}, si_c14n->mode, si_c14n->comments, &canonical))
    return QL_ERR_BAD_XML;
  if (!Base64Value(value_node, &value)) return QL_ERR_BAD_XML;
  const std::string digest = Digest(sig_hash->md(), canonical);

  pb::Request request;
  auto *v = request.mutable_verify_cert_signature();
  xmlNode *x509_data = FirstChild(FirstChild(sig, "KeyInfo"), "X509Data");
  std::string cert;
  if (xmlNode *c = FirstChild(x509_data, "X509Certificate")) {
    if (!Base64Value(c, &cert)) return QL_ERR_BAD_XML;
    v->set_certificate(cert);
  } else if (xmlNode *is = FirstChild(x509_data, "X509IssuerSerial")) {
    const std::string serial = SerialBytes(Content(FirstChild(is, "X509SerialNumber")));
    const std::string issuer = Content(FirstChild(is, "X509IssuerName"));
    if (serial.empty() || issuer.empty()) return QL_ERR_BAD_XML;
    v->set_issuer(issuer);
    v->set_serial(serial);
  } else {
    return QL_ERR_BAD_XML;
  }
  v->set_chain_name(chain);
  if (HasText(crl)) v->set_crl_name(crl);
  v->set_hash_algorithm(sig_hash->id);
  v->set_digest(digest);
  v->set_signature(value);
  return Ask(hSession, request).code();
}

int Verify(HSESSIONCTX hSession, Layout layout, const char *chain, const char *crl,
           const char *filter, const unsigned char *xml, uint32_t xml_len, bool remove_ns) {
  if (!HasText(chain)) return QL_ERR_BAD_ARGUMENT;
  if (CoreOf(hSession) == nullptr) return QL_ERR_BAD_HANDLE;
  Parsed parsed;
  RETURN_IF_FAILED((Parse(xml, xml_len, &parsed)));
  if (remove_ns) RemoveDefaultNamespace(parsed.doc.get());
  std::vector<xmlNode *> signatures;
  FindSignatures(parsed.doc->children, &signatures);
  if (HasText(filter)) {
    xmlNode *element = FindElement(xmlDocGetRootElement(parsed.doc.get()), filter);
    const std::string id = element ? IdOf(element) : std::string();
    if (id.empty()) return QL_ERR_BAD_XML;
    std::vector<xmlNode *> picked;
    for (xmlNode *sig : signatures) {
      xmlNode *signed_info = FirstChild(sig, "SignedInfo");
      for (xmlNode *r = signed_info ? signed_info->children : nullptr; r; r = r->next) {
        if (NameIs(r, "Reference") && Attribute(r, "URI") == "#" + id) {
          picked.push_back(sig);
          break;
        }
      }
    }
    signatures.swap(picked);
  }
  if (signatures.empty()) return QL_ERR_BAD_XML;
  for (xmlNode *sig : signatures)
    RETURN_IF_FAILED((VerifyOne(hSession, layout, parsed, sig, chain, crl)));
  return QL_OK;
}

int CheckPixFlags(uint32_t flags) {
  return (flags & ~uint32_t{QL_PIX_REMOVE_NS}) ? QL_ERR_BAD_FLAGS : QL_OK;
}

}  // namespace

extern "C" int QSignXml(HSESSIONCTX hSession, uint32_t dwHashAlgId, const char *szKeyName,
                        const char *szCertName, const char *szFilter, const unsigned char *pbXml,
                        uint32_t dwXmlLen, unsigned char **ppbSigned, uint32_t *pdwSignedLen,
                        uint32_t dwFlags) {
  return Guard([&] {
    if (dwFlags != 0) return QL_ERR_BAD_FLAGS;
    if (CoreOf(hSession) == nullptr) return QL_ERR_BAD_HANDLE;
    return Sign(hSession, Layout::kEnveloped, dwHashAlgId, szKeyName, szCertName, szFilter, pbXml,
                dwXmlLen, false, ppbSigned, pdwSignedLen);
  });
}

extern "C" int QVerifySignedXmlEx(HSESSIONCTX hSession, const char *szChainName,
                                  const char *szCrlName, const char *szFilter,
                                  const unsigned char *pbXml, uint32_t dwXmlLen, uint32_t dwFlags) {
  return Guard([&] {
    if (dwFlags != 0) return QL_ERR_BAD_FLAGS;
    return Verify(hSession, Layout::kEnveloped, szChainName, szCrlName, szFilter, pbXml, dwXmlLen,
                  false);
  });
}

extern "C" int QPIXSign(HSESSIONCTX hSession, const char *szKeyName, const char *szCertName,
                        const unsigned char *pbXml, uint32_t dwXmlLen, unsigned char **ppbOut,
                        uint32_t *pdwOutLen, uint32_t dwFlags) {
  return Guard([&] {
    RETURN_IF_FAILED((CheckPixFlags(dwFlags)));
    if (CoreOf(hSession) == nullptr) return QL_ERR_BAD_HANDLE;
    return Sign(hSession, Layout::kPixMessage, QL_ALG_SHA256, szKeyName, szCertName, nullptr, pbXml,
                dwXmlLen, dwFlags & QL_PIX_REMOVE_NS, ppbOut, pdwOutLen);
  });
}

extern "C" int QPIXVerify(HSESSIONCTX hSession, const char *szChainName, const char *szCrlName,
                          const unsigned char *pbXml, uint32_t dwXmlLen, uint32_t dwFlags) {
  return Guard([&] {
    RETURN_IF_FAILED((CheckPixFlags(dwFlags)));
    return Verify(hSession, Layout::kPixMessage, szChainName, szCrlName, nullptr, pbXml, dwXmlLen,
                  dwFlags & QL_PIX_REMOVE_NS);
  });
}

extern "C" int QPIXDictSign(HSESSIONCTX hSession, const char *szKeyName, const char *szCertName,
                            const unsigned char *pbXml, uint32_t dwXmlLen, unsigned char **ppbOut,
                            uint32_t *pdwOutLen, uint32_t dwFlags) {
  return Guard([&] {
    RETURN_IF_FAILED((CheckPixFlags(dwFlags)));
    if (CoreOf(hSession) == nullptr) return QL_ERR_BAD_HANDLE;
    return Sign(hSession, Layout::kPixDict, QL_ALG_SHA256, szKeyName, szCertName, nullptr, pbXml,
                dwXmlLen, dwFlags & QL_PIX_REMOVE_NS, ppbOut, pdwOutLen);
  });
}

extern "C" int QPIXDictVerify(HSESSIONCTX hSession, const char *szChainName, const char *szCrlName,
                              const unsigned char *pbXml, uint32_t dwXmlLen, uint32_t dwFlags) {
  return Guard([&] {
    RETURN_IF_FAILED((CheckPixFlags(dwFlags)));
    return Verify(hSession, Layout::kPixDict, szChainName, szCrlName, nullptr, pbXml, dwXmlLen,
                  dwFlags & QL_PIX_REMOVE_NS);
  });
}
