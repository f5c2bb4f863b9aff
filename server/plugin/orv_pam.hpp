// Operating-system password check through PAM.
#pragma once

#include <string>

namespace orvsrv {

// Where a check stopped: PAM could not be started, the password was
// refused (pam_authenticate), or the account was (pam_acct_mgmt: expired,
// locked, not allowed).
enum class PamStage { start, authenticate, account };

// Runs pam_authenticate and then pam_acct_mgmt for user under the given PAM
// service, answering password prompts with password. Returns the PAM status
// (PAM_SUCCESS when both pass); *why receives PAM's text and *stage (when
// given) the step that gave the status.
int pam_check_password(const std::string& service, const std::string& user,
                       const std::string& password, std::string* why,
                       PamStage* stage = nullptr);

}  // namespace orvsrv
