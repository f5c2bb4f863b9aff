// orvctl_auth.cpp - `orvctl auth`, `passwd`, `policy`, `token` and
// `validate`: authentication, password policy and change, navigation tokens.
#include <iostream>
#include <string>

#include "orvctl.hpp"

namespace orvctl {

int cmd_auth(const Args& args) {
    const std::string& user = args.positional[0];
    std::string password;
    if (!obtain_secret(args, "password-file", "Password for " + user + ": ", password)) return kExitFailed;

    Session session;
    if (!session.open(args.conn)) return kExitNoSession;
    LDAP* ld = session.ld();
    int status;
    if (args.has("repository")) {
        const std::string repository = args.get("repository");
        status = orvlib_authenticate_database_user(ld, user.c_str(), password.c_str(), repository.c_str());
        if (status == ORV_LDAPLIB_RADIUS_2FACTOR_REQUIRED) {
            std::string passcode;
            if (!obtain_secret(args, "otp-file", "RADIUS passcode for " + user + ": ", passcode))
                return kExitFailed;
            // NULL: the server takes the user's RADIUS user name.
            status = orvlib_authenticate_radius_user(ld, nullptr, passcode.c_str());
        }
    } else {
        status = orvlib_authenticate_user(ld, user.c_str(), password.c_str());
    }
    if (status != 0) return report_failure("authentication of " + user + " failed", status);
    std::printf("%s: authenticated\n", user.c_str());
    const int days = orvlib_get_password_expiry_time(ld);
    if (days > 0) std::printf("password expires in %d day%s\n", days, days == 1 ? "" : "s");
    return kExitOk;
}

int cmd_passwd(const Args& args) {
    const std::string& user = args.positional[0];
    std::string old_password, new_password;
    if (!obtain_secret(args, "password-file", "Current password for " + user + ": ", old_password))
        return kExitFailed;
    if (args.has("new-password-file")) {
        if (!obtain_secret(args, "new-password-file", "", new_password)) return kExitFailed;
    } else {
        std::string again;
        if (!obtain_secret(args, "new-password-file", "New password: ", new_password)) return kExitFailed;
        if (!obtain_secret(args, "new-password-file", "Retype new password: ", again)) return kExitFailed;
        if (again != new_password) {
            print_error("the new passwords do not match; nothing changed");
            return kExitFailed;
        }
    }

    Session session;
    if (!session.open(args.conn)) return kExitNoSession;
    int status = orvlib_change_user_password(session.ld(), user.c_str(), old_password.c_str(),
                                             new_password.c_str());
    if (status != 0) return report_failure("password of " + user + " not changed", status);
    std::printf("%s: password changed\n", user.c_str());
    return kExitOk;
}

int cmd_policy(const Args& args) {
    Session session;
    if (!session.open(args.conn)) return kExitNoSession;
    LibEntry policy(orvlib_get_password_policy(session.ld()));
    if (!policy) return report_failure("no password policy", ldapErrCode);
    std::vector<Attribute> attributes = attributes_of(policy.get());
    if (args.has("json")) {
        std::printf("%s\n", entry_json(attributes).c_str());
        return kExitOk;
    }
    for (const Attribute& a : attributes) {
        std::string values;
        for (const std::string& v : a.values) values += (values.empty() ? "" : "; ") + v;
        std::printf("%-32s %s\n", (a.name + " (" + std::to_string(a.id) + ")").c_str(), values.c_str());
    }
    return kExitOk;
}

int cmd_token(const Args& args) {
    Session session;
    if (!session.open(args.conn)) return kExitNoSession;
    const std::string dn = user_dn(args.positional[0]);
    LibValues token(orvlib_get_sso_navigation_token(session.ld(), dn.c_str()));
    if (!token || !token.get()[0]) {
        // Success without a token means the server sent none back.
        return report_failure("no navigation token for " + dn,
                              ldapErrCode ? ldapErrCode : ORV_LDAPLIB_SSO_AUTHENTICATION_ERROR);
    }
    std::printf("%s\n", token.get()[0]);
    return kExitOk;
}

int cmd_validate(const Args& args) {
    std::string token = args.positional[0];
    if (token == "-") {
        std::string error;
        if (!read_secret_file("-", token, error)) {
            print_error(error);
            return kExitFailed;
        }
    }
    Session session;
    if (!session.open(args.conn)) return kExitNoSession;
    ORVSSOToken* record = orvlib_create_sso_token("ORV_SSO_TOKEN", token.c_str());
    if (!record) return report_failure("cannot hold the token", ldapErrCode);
    ORVLibEntry* raw = nullptr;
    // The library reads the record itself through the declared pointer type.
    unsigned long status =
        orvlib_validate_sso_token(session.ld(), reinterpret_cast<const ORVSSOToken**>(record), &raw);
    orvlib_orvssotoken_free(record);
    LibEntry entry(raw);
    if (status != 0) return report_failure("token refused", static_cast<int>(status));
    std::vector<Attribute> attributes = attributes_of(entry.get());
    if (args.has("json")) {
        std::printf("%s\n", entry_json(attributes).c_str());
    } else {
        std::printf("valid: %s\n", dn_of(attributes).c_str());
        print_entry(stdout, attributes);
    }
    return kExitOk;
}

}  // namespace orvctl
