// Operating-system password check through PAM.
#pragma once

#include <string>

namespace orvsrv {

// Runs pam_authenticate for user under the given PAM service, answering
// password prompts with password. Returns the PAM status (PAM_SUCCESS on a
// good password); *why receives PAM's text for anything else.
int pam_check_password(const std::string& service, const std::string& user,
                       const std::string& password, std::string* why);

}  // namespace orvsrv
