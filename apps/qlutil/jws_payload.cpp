#include "jws_payload.h"

#include <algorithm>
#include <cstdint>
#include <vector>

#include "qlapi.h"

bool AttachJwsPayload(std::string *jws, const unsigned char *payload, size_t len) {
  const size_t first = jws->find('.');
  const size_t second = first == std::string::npos ? first : jws->find('.', first + 1);
  if (second == std::string::npos || jws->find('.', second + 1) != std::string::npos) return false;
  if (second != first + 1 || len == 0) return true;
  std::vector<char> text(4 * ((len + 2) / 3) + 1);
  auto text_len = static_cast<uint32_t>(text.size());
  if (QByteArray2Base64(payload, static_cast<uint32_t>(len), text.data(), &text_len) != QL_OK) {
    return false;
  }
  std::string part(text.data(), text_len);
  part.erase(part.find_last_not_of('=') + 1);
  std::replace(part.begin(), part.end(), '+', '-');
  std::replace(part.begin(), part.end(), '/', '_');
  jws->insert(second, part);
  return true;
}
