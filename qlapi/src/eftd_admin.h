#pragma once
// The EFT daemon's administrative operations (QL_ADM_EFTD_*), which QAdmOperation hands to the
// payment family.

#include <cstdint>

#include "qlapi.h"

namespace qlapi {

// QAdmOperation's answer for QL_ADM_EFTD_AUTHORIZE to QL_ADM_EFTD_SET_CONF.
int EftdOperation(HSESSIONCTX hSession, uint32_t dwOperation, const void *pvIn, uint32_t dwInLen,
                  void *pvOut, uint32_t *pdwOutLen);

}  // namespace qlapi
