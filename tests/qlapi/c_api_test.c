/* The API from plain C: the header must stay valid C, and a session to a closed port must fail
 * with the connection code, not crash. Exit status 0 when every check holds. */
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "qlapi.h"
#include "qlapi_credstore.h"

static int failures = 0;

#define CHECK_EQ(expr, want)                                                          \
  do {                                                                                \
    long got_ = (long)(expr);                                                         \
    if (got_ != (long)(want)) {                                                       \
      fprintf(stderr, "%s:%d: %s = %ld, want %ld\n", __FILE__, __LINE__, #expr, got_, \
              (long)(want));                                                          \
      ++failures;                                                                     \
    }                                                                                 \
  } while (0)

/* A loopback port that nothing listens on: bound, then closed. */
static int ClosedPort(void) {
  struct sockaddr_in a;
  socklen_t len = sizeof a;
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  memset(&a, 0, sizeof a);
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, (struct sockaddr *)&a, sizeof a);
  getsockname(fd, (struct sockaddr *)&a, &len);
  close(fd);
  return ntohs(a.sin_port);
}

int main(void) {
  AUTH_PWD_EX auth;
  HSESSIONCTX session = NULL;
  uint32_t flags[] = {0, 1, 4, 5, 1 | 8, 4 | 16, 29};
  size_t i;

  CHECK_EQ(sizeof(AUTH_PWD_EX), 180);
  CHECK_EQ(sizeof(AUTH_ATOKEN), 164);
  CHECK_EQ(sizeof(QL_A_TOKEN), 32);
  CHECK_EQ(sizeof(AUTH_WIN_CREDENTIAL), 132);
  CHECK_EQ(QInitialize(0), QL_OK);

  memset(&auth, 0, sizeof auth);
  strcpy(auth.szAddr, "127.0.0.1");
  auth.nPort = ClosedPort();
  strcpy(auth.szUserId, "master");
  strcpy(auth.szPassword, "24681357");
  for (i = 0; i < sizeof flags / sizeof flags[0]; ++i) {
    CHECK_EQ(QOpenSession(&session, QL_AUTH_USER_PWD, &auth, sizeof auth, flags[i]),
             QL_ERR_CONNECTION_FAILED);
    CHECK_EQ(session == NULL, 1);
  }
  CHECK_EQ(QOpenSession(&session, QL_AUTH_USER_PWD, &auth, sizeof auth, 2), QL_ERR_BAD_FLAGS);
  CHECK_EQ(QOpenSession(&session, 0, &auth, sizeof auth, 1), QL_ERR_BAD_AUTH_KIND);
  CHECK_EQ(QOpenSession(&session, QL_AUTH_USER_PWD, &auth, 100, 1), QL_ERR_BAD_ARGUMENT);
  CHECK_EQ(QCloseSession(&session, 0), QL_OK);
  CHECK_EQ(QFinalize(), QL_OK);
  if (failures == 0) printf("c_api_test: all checks passed\n");
  return failures == 0 ? 0 : 1;
}
