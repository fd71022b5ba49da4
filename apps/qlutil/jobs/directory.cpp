// Directory binding jobs: "ds-bind", "ds-unbind".

#include "harness/harness.h"
#include "job.h"

typedef struct _JOB_DIRECTORY_INFO {
  THREAD_INFO ti;
  const char *pszUrl;       // ds-bind: -url
  const char *pszBindDn;    // ds-bind: -dn
  const char *pszPassword;  // ds-bind: -pw
} JOB_DIRECTORY_INFO;

namespace {

void ShowJobDSBindHelp() {
  JobHelpPage("ds-bind",
              {"Publish an entry for the HSM (its address, port, TLS certificate fingerprint",
               "and version) in an LDAP directory, under the URL's base DN, replacing the",
               "entry it published before. The HSM keeps the binding and renews the entry",
               "whenever it starts, until ds-unbind."},
              {"-url    Directory URL: ldap://host:port/base-DN (or ldaps://)",
               "-dn     DN the HSM binds to the directory as", "-pw     That DN's password"},
              {"-url ldap://ldap.example.com:389/ou=hsms,dc=example,dc=com "
               "-dn cn=hsm-publisher,dc=example,dc=com -pw secret"});
}

void ShowJobDSUnbindHelp() {
  JobHelpPage("ds-unbind",
              {"Remove the HSM's entry from the directory it was bound to with ds-bind, and",
               "forget the binding."},
              {}, {""});
}

unsigned int JobDSBindThread(void *p) {
  auto *job = static_cast<JOB_DIRECTORY_INFO *>(p);
  return RunSessionJob(&job->ti, [job](HSESSIONCTX session) {
    const int rc = CheckJobCall(
        "QDSBindHSM", QDSBindHSM(session, job->pszUrl, job->pszBindDn, job->pszPassword, 0));
    if (rc == 0) ScreenOutput("HSM bound to %s\r\n", job->pszUrl);
    return rc;
  });
}

unsigned int JobDSUnbindThread(void *p) {
  auto *job = static_cast<JOB_DIRECTORY_INFO *>(p);
  return RunSessionJob(&job->ti, [](HSESSIONCTX session) {
    const int rc = CheckJobCall("QDSUnbindHSM", QDSUnbindHSM(session, 0));
    if (rc == 0) ScreenOutput("HSM unbound from the directory.\r\n");
    return rc;
  });
}

}  // namespace

int JobDSBind(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_DIRECTORY_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  job.pszUrl = GetParameterStr(pTestParam, nParameters, "-url");
  job.pszBindDn = GetParameterStr(pTestParam, nParameters, "-dn");
  job.pszPassword = GetParameterStr(pTestParam, nParameters, "-pw");
  const bool ok =
      IsGivenText(job.pszUrl) && IsGivenText(job.pszBindDn) && job.pszPassword != nullptr;
  return StartJob(&JobDSBindThread, &job.ti, sizeof job, false, ok, &ShowJobDSBindHelp);
}

int JobDSUnbind(TEST_PARAMETER *pTestParam, int nParameters) {
  JOB_DIRECTORY_INFO job{};
  LoadJobParameters(&job.ti, pTestParam, nParameters, false);
  return StartJob(&JobDSUnbindThread, &job.ti, sizeof job, false, true, &ShowJobDSUnbindHelp);
}
