#include "orv_pam.hpp"

#include <cstdlib>
#include <cstring>

#include <security/pam_appl.h>

namespace orvsrv {
namespace {

struct Credentials {
    const std::string* user;
    const std::string* password;
};

char* dup_text(const std::string& text) {
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy) std::memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

// Answers the module's prompts: the password for hidden input, the login name
// for echoed input; informational messages need no answer. Some modules pass
// no response pointer for pure information, so it is only written when given.
int converse(int count, const struct pam_message** messages, struct pam_response** responses,
             void* data) {
    if (count <= 0 || messages == nullptr) return PAM_CONV_ERR;
    const auto* cred = static_cast<const Credentials*>(data);
    bool needs_answer = false;
    for (int i = 0; i < count; ++i) {
        const int style = messages[i]->msg_style;
        if (style == PAM_PROMPT_ECHO_OFF || style == PAM_PROMPT_ECHO_ON) needs_answer = true;
    }
    if (responses == nullptr) return needs_answer ? PAM_CONV_ERR : PAM_SUCCESS;
    *responses = nullptr;

    auto* answers = static_cast<pam_response*>(std::calloc(count, sizeof(pam_response)));
    if (answers == nullptr) return PAM_BUF_ERR;
    for (int i = 0; i < count; ++i) {
        const int style = messages[i]->msg_style;
        const std::string* text = nullptr;
        if (style == PAM_PROMPT_ECHO_OFF) {
            text = cred->password;
        } else if (style == PAM_PROMPT_ECHO_ON) {
            text = cred->user;
        } else if (style != PAM_TEXT_INFO && style != PAM_ERROR_MSG) {
            for (int k = 0; k < i; ++k) std::free(answers[k].resp);
            std::free(answers);
            return PAM_CONV_ERR;
        }
        if (text != nullptr && (answers[i].resp = dup_text(*text)) == nullptr) {
            for (int k = 0; k < i; ++k) std::free(answers[k].resp);
            std::free(answers);
            return PAM_BUF_ERR;
        }
    }
    *responses = answers;
    return PAM_SUCCESS;
}

}  // namespace

int pam_check_password(const std::string& service, const std::string& user,
                       const std::string& password, std::string* why, PamStage* stage) {
    PamStage unused;
    if (stage == nullptr) stage = &unused;
    *stage = PamStage::start;
    Credentials cred{&user, &password};
    const pam_conv conversation{converse, &cred};
    pam_handle_t* handle = nullptr;
    int status = pam_start(service.c_str(), user.c_str(), &conversation, &handle);
    if (status != PAM_SUCCESS) {
        *why = std::string("pam_start: ") + pam_strerror(handle, status);
        if (handle) pam_end(handle, status);
        return status;
    }
    *stage = PamStage::authenticate;
    status = pam_authenticate(handle, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
    if (status == PAM_SUCCESS) {
        // A right password does not make an expired or locked account usable.
        *stage = PamStage::account;
        status = pam_acct_mgmt(handle, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
    }
    if (status != PAM_SUCCESS) *why = pam_strerror(handle, status);
    pam_end(handle, status);
    return status;
}

}  // namespace orvsrv
