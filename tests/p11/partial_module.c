/* A stand-in PKCS#11 module that exports only four of the standard names, each answering a
 * code of its own so that a test can tell which function a table member reaches. */

#if defined(_WIN32)
#define PARTIAL_EXPORT __declspec(dllexport)
#else
#define PARTIAL_EXPORT __attribute__((visibility("default")))
#endif

PARTIAL_EXPORT unsigned long C_Initialize(void *init_args) {
  (void)init_args;
  return 0x101;
}

PARTIAL_EXPORT unsigned long C_Sign(unsigned long session, unsigned char *data,
                                    unsigned long data_len, unsigned char *signature,
                                    unsigned long *signature_len) {
  (void)session;
  (void)data;
  (void)data_len;
  (void)signature;
  (void)signature_len;
  return 0x124;
}

PARTIAL_EXPORT unsigned long C_CloseAllSessions(unsigned long slot_id) {
  (void)slot_id;
  return 0x152;
}

PARTIAL_EXPORT unsigned long C_GetMechanismList(unsigned long slot_id, unsigned long *list,
                                                unsigned long *count) {
  (void)slot_id;
  (void)list;
  (void)count;
  return 0x168;
}

/* Not a PKCS#11 name: must never land in the table. */
PARTIAL_EXPORT unsigned long C_NotAnEntryPoint(void) {
  return 0xBAD;
}
