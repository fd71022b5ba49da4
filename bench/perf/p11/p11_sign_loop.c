/* The anchor of p11-sign-hash: the least a program can do to sign with a PKCS#11 module on
 * several threads. Each thread has its own session and session key pair; the clock runs from
 * the first thread's start to the last one's end, as qlutil's runner times it, and the figure
 * is all signatures over that time.
 *
 *   p11_sign_loop <module> <slot> <pin> <threads> <iterations> <rsa2048|p256>
 *
 * RSA-2048 signs 64 bytes with CKM_SHA256_RSA_PKCS; P-256 signs their SHA-256 digest with
 * CKM_ECDSA, the mechanism qlutil falls back to on modules without CKM_ECDSA_SHA256.
 * Prints the signatures per second as a whole number. */

#include <dlfcn.h>
#include <p11-kit/pkcs11.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static CK_FUNCTION_LIST_PTR p11;
static CK_SLOT_ID slot;
static const char *pin;
static long iterations;
static int use_ec;

struct worker {
  pthread_t thread;
  CK_SESSION_HANDLE session;
  CK_OBJECT_HANDLE private_key;
  CK_BYTE data[64];
  CK_ULONG data_len;
  CK_BYTE signature[512];
  CK_RV rv;
};

static void fail(const char *what, CK_RV rv) {
  fprintf(stderr, "%s failed: 0x%lx\n", what, rv);
  exit(1);
}

static void prepare(struct worker *w) {
  CK_RV rv = p11->C_OpenSession(slot, CKF_SERIAL_SESSION, NULL, NULL, &w->session);
  if (rv != CKR_OK) fail("C_OpenSession", rv);
  rv = p11->C_Login(w->session, CKU_USER, (CK_UTF8CHAR_PTR)pin, strlen(pin));
  if (rv != CKR_OK && rv != CKR_USER_ALREADY_LOGGED_IN) fail("C_Login", rv);

  CK_BBOOL yes = CK_TRUE, no = CK_FALSE;
  CK_ULONG bits = 2048;
  CK_BYTE exponent[] = {1, 0, 1};
  CK_BYTE p256[] = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
  CK_ATTRIBUTE rsa_public[] = {{CKA_TOKEN, &no, sizeof(no)},
                               {CKA_VERIFY, &yes, sizeof(yes)},
                               {CKA_MODULUS_BITS, &bits, sizeof(bits)},
                               {CKA_PUBLIC_EXPONENT, exponent, sizeof(exponent)}};
  CK_ATTRIBUTE ec_public[] = {{CKA_TOKEN, &no, sizeof(no)},
                              {CKA_VERIFY, &yes, sizeof(yes)},
                              {CKA_EC_PARAMS, p256, sizeof(p256)}};
  CK_ATTRIBUTE private_template[] = {{CKA_TOKEN, &no, sizeof(no)},
                                     {CKA_PRIVATE, &yes, sizeof(yes)},
                                     {CKA_SENSITIVE, &yes, sizeof(yes)},
                                     {CKA_SIGN, &yes, sizeof(yes)}};
  CK_MECHANISM generate = {use_ec ? CKM_EC_KEY_PAIR_GEN : CKM_RSA_PKCS_KEY_PAIR_GEN, NULL, 0};
  CK_OBJECT_HANDLE public_key;
  rv = p11->C_GenerateKeyPair(w->session, &generate, use_ec ? ec_public : rsa_public,
                              use_ec ? 3 : 4, private_template, 4, &public_key, &w->private_key);
  if (rv != CKR_OK) fail("C_GenerateKeyPair", rv);

  CK_BYTE random[64];
  rv = p11->C_GenerateRandom(w->session, random, sizeof(random));
  if (rv != CKR_OK) fail("C_GenerateRandom", rv);
  if (use_ec) {
    CK_MECHANISM sha256 = {CKM_SHA256, NULL, 0};
    w->data_len = sizeof(w->data);
    rv = p11->C_DigestInit(w->session, &sha256);
    if (rv == CKR_OK) rv = p11->C_Digest(w->session, random, sizeof(random), w->data, &w->data_len);
    if (rv != CKR_OK) fail("C_Digest", rv);
  } else {
    memcpy(w->data, random, sizeof(random));
    w->data_len = sizeof(random);
  }
}

static void *sign_loop(void *arg) {
  struct worker *w = arg;
  CK_MECHANISM mechanism = {use_ec ? CKM_ECDSA : CKM_SHA256_RSA_PKCS, NULL, 0};
  CK_RV rv = CKR_OK;
  for (long i = 0; i < iterations && rv == CKR_OK; ++i) {
    rv = p11->C_SignInit(w->session, &mechanism, w->private_key);
    if (rv == CKR_OK) {
      CK_ULONG len = sizeof(w->signature);
      rv = p11->C_Sign(w->session, w->data, w->data_len, w->signature, &len);
    }
  }
  w->rv = rv;
  return NULL;
}

int main(int argc, char **argv) {
  if (argc != 7) {
    fprintf(stderr, "usage: %s <module> <slot> <pin> <threads> <iterations> <rsa2048|p256>\n",
            argv[0]);
    return 2;
  }
  void *module = dlopen(argv[1], RTLD_LAZY);
  if (module == NULL) {
    fprintf(stderr, "cannot load %s\n", argv[1]);
    return 1;
  }
  CK_C_GetFunctionList get_list = (CK_C_GetFunctionList)dlsym(module, "C_GetFunctionList");
  if (get_list == NULL || get_list(&p11) != CKR_OK) {
    fprintf(stderr, "no function list\n");
    return 1;
  }
  slot = strtoul(argv[2], NULL, 10);
  pin = argv[3];
  const int threads = atoi(argv[4]);
  iterations = atol(argv[5]);
  use_ec = strcmp(argv[6], "p256") == 0;
  if (threads < 1 || threads > 64) return 2;

  CK_C_INITIALIZE_ARGS init_args;
  memset(&init_args, 0, sizeof(init_args));
  init_args.flags = CKF_OS_LOCKING_OK;
  CK_RV rv = p11->C_Initialize(&init_args);
  if (rv != CKR_OK) fail("C_Initialize", rv);

  struct worker *workers = calloc((size_t)threads, sizeof(*workers));
  if (workers == NULL) return 1;
  for (int i = 0; i < threads; ++i) prepare(&workers[i]);

  struct timespec start, end;
  clock_gettime(CLOCK_MONOTONIC, &start);
  for (int i = 0; i < threads; ++i) pthread_create(&workers[i].thread, NULL, sign_loop, &workers[i]);
  for (int i = 0; i < threads; ++i) pthread_join(workers[i].thread, NULL);
  clock_gettime(CLOCK_MONOTONIC, &end);

  for (int i = 0; i < threads; ++i) {
    if (workers[i].rv != CKR_OK) fail("C_Sign", workers[i].rv);
    p11->C_CloseSession(workers[i].session);
  }
  p11->C_Finalize(NULL);
  free(workers);
  dlclose(module);

  const double seconds = (double)(end.tv_sec - start.tv_sec) + (end.tv_nsec - start.tv_nsec) / 1e9;
  printf("%.0f\n", (double)threads * (double)iterations / seconds);
  return 0;
}
