// Every public operation that takes a session handle, run once with the
// given handle; shared by the tests that check what the library answers
// without a session, after unbind and after a lost connection.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "orvldap.h"

namespace orvtest {

// A loopback port with nothing listening (bound, read, closed again); 0
// when none could be had.
inline int closed_port() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    int port = 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
        port = ntohs(addr.sin_port);
    close(fd);
    return port;
}


struct Outcome {
    int status;
    bool returned_something;
};

// Runs every operation that takes a handle; frees whatever comes back.
inline std::vector<std::pair<std::string, Outcome>> run_all(LDAP* ld) {
    std::vector<std::pair<std::string, Outcome>> out;
    auto add = [&](const char* name, int status, bool something = false) {
        out.push_back({name, {status, something}});
    };
    add("authenticate_user", orvlib_authenticate_user(ld, "alice", "Secret123!"));
    add("authenticate_user empty", orvlib_authenticate_user(ld, "alice", ""));
    add("authenticate_user NULLs", orvlib_authenticate_user(ld, nullptr, nullptr));
    add("authenticate_database_user",
        orvlib_authenticate_database_user(ld, "alice", "Secret123!", "repository-1"));
    add("authenticate_database_user NULLs", orvlib_authenticate_database_user(ld, nullptr, nullptr, nullptr));
    add("authenticate_radius_user", orvlib_authenticate_radius_user(ld, "alice", "123456"));
    add("authenticate_radius_user NULLs", orvlib_authenticate_radius_user(ld, nullptr, nullptr));

    ORVLibEntry* policy = orvlib_get_password_policy(ld);
    add("get_password_policy", ldapErrCode, policy != nullptr);
    orvlib_orvlibentry_free(policy);
    add("can_user_change_password", orvlib_can_user_change_password(ld, "alice"));
    add("can_user_change_password NULL", orvlib_can_user_change_password(ld, nullptr));
    add("get_password_expiry_time", orvlib_get_password_expiry_time(ld));
    add("change_user_password", orvlib_change_user_password(ld, "alice", "Secret123!", "Other456!"));
    add("change_user_password NULLs", orvlib_change_user_password(ld, nullptr, nullptr, nullptr));

    char** token = orvlib_get_sso_navigation_token(ld, "uid=alice,ou=People,dc=x");
    add("get_sso_navigation_token", ldapErrCode, token != nullptr);
    orvlib_free_values(token);
    token = orvlib_get_sso_navigation_token(ld, nullptr);
    add("get_sso_navigation_token NULL", ldapErrCode, token != nullptr);
    orvlib_free_values(token);
    ORVSSOToken* sso = orvlib_create_sso_token("orv_sso_token", "not-a-token");
    ORVLibEntry* user = nullptr;
    add("validate_sso_token",
        static_cast<int>(orvlib_validate_sso_token(ld, const_cast<const ORVSSOToken**>(
                                                           reinterpret_cast<ORVSSOToken**>(sso)),
                                                   &user)),
        user != nullptr);
    orvlib_orvlibentry_free(user);
    orvlib_orvssotoken_free(sso);
    add("validate_sso_token NULLs", static_cast<int>(orvlib_validate_sso_token(ld, nullptr, nullptr)));

    for (int type = 5000; type <= 5008; ++type) {
        for (const char* filter : {"*", "alice", "(uid=alice)(groupCN=Developers)", "(cn=a\\b(", "cn=", ""}) {
            LDAPMessage* res = nullptr;
            int rc = orvlib_search_ext_s(ld, filter, type, &res);
            ORVLibEntry* entry = nullptr;
            int entries = 0;
            for (LDAPMessage* cur = orvlib_first_entry(ld, &entry, res); entry && entries < 10;
                 cur = orvlib_next_entry(ld, &entry, cur)) {
                orvlib_orvlibentry_free(entry);
                entry = nullptr;
                ++entries;
            }
            orvlib_orvlibentry_free(entry);
            orvlib_orvmessage_free(res);
            add("search", rc, entries > 0);
        }
    }
    LDAPMessage* res = nullptr;
    add("search NULL filter", orvlib_search_ext_s(ld, nullptr, 5001, &res));
    ORVLibEntry* entry = nullptr;
    bool got = orvlib_first_entry(ld, &entry, nullptr) != nullptr || entry;
    add("first_entry NULL result", ldapErrCode, got);
    got = orvlib_next_entry(ld, &entry, nullptr) != nullptr || entry;
    add("next_entry NULL cursor", ldapErrCode, got);

    char* vals[] = {const_cast<char*>("x"), nullptr};
    for (unsigned long op = 0; op <= 3; ++op) {
        add("modify", orvlib_modify_ext_s(ld, "uid=alice,ou=People,dc=x", op, 4, vals));
        add("modify by uid", orvlib_modify_ext_s(ld, "alice", op, 6, vals));
    }
    add("modify uid", orvlib_modify_ext_s(ld, "alice", 1, 3, vals));
    add("modify NULLs", orvlib_modify_ext_s(ld, nullptr, 0, 0, nullptr));

    // External relationships.
    char* rule[] = {const_cast<char*>("REPO-R1"), nullptr};
    auto cs = [](const char* t) { return const_cast<char*>(t); };
    ORVLibEntry* end = orvlib_create_end_type_object(ld, cs("e"), cs("any"), rule, cs("d"));
    add("create_end_type_object", ldapErrCode, end != nullptr);
    ORVLibEntry* type = orvlib_create_relationship_type(ld, cs("t"), cs("n"), end, end);
    add("create_relationship_type", ldapErrCode, type != nullptr);
    ORVLibEntry* rel = orvlib_create_external_relationship(ld, cs("urn:morvane:R1:a"), cs("d"), cs("c"),
                                                           cs("urn:morvane:R2:b"), cs("d"), cs("c"), type, cs("r"));
    add("create_external_relationship", ldapErrCode, rel != nullptr);
    add("modify_end_rule", orvlib_modify_end_rule(ld, cs("e"), 103, rule, 1));
    add("modify_end_rule delete", orvlib_modify_end_rule(ld, cs("e"), 0, nullptr, 0));
    add("search_relationship_types", orvlib_search_relationship_types(ld, cs("urn:morvane:R1:a"), nullptr, &res),
        res != nullptr);
    orvlib_orvmessage_free(res);
    res = nullptr;
    add("search_external_relationship", orvlib_search_external_relationship(ld, rule, nullptr, &res, 0),
        res != nullptr);
    got = orvlib_first_er_entry(ld, &entry, res) != nullptr || entry;
    add("first_er_entry", ldapErrCode, got);
    orvlib_orvlibentry_free(entry);
    entry = nullptr;
    orvlib_orvmessage_free(res);
    res = nullptr;
    char** values = orvlib_get_entry_er_vals(ld, rel, 127);
    add("get_entry_er_vals", ldapErrCode, values != nullptr);
    orvlib_free_values(values);
    values = orvlib_search_external_relationship_on_repository_id(ld, cs("R1"));
    add("search_external_relationship_on_repository_id", ldapErrCode, values != nullptr);
    orvlib_free_values(values);
    char* url = orvlib_get_url(ld, 6001);
    add("get_url", ldapErrCode, url != nullptr);
    orvlib_memfree(url);
    add("notify on repository", orvlib_notify_external_relationship_changes_on_repository_id(ld, cs("R1"), nullptr));
    add("notify on objects", orvlib_notify_external_relationship_changes_on_external_objects(ld, rule));
    add("remove_external_relationship", orvlib_remove_external_relationship(ld, cs("u:1"), 0));
    add("remove_relationship_type", orvlib_remove_relationship_type(ld, cs("t")));
    orvlib_orvlibentry_free(rel);
    orvlib_orvlibentry_free(type);
    orvlib_orvlibentry_free(end);

    add("is_trusted_os_auth_supported", orvlib_is_trusted_os_auth_supported(ld));
    char* rdn = orvlib_get_user_rdn(ld);
    add("get_user_rdn", ldapErrCode, false);
    orvlib_memfree(rdn);
    add("get_connection_status", orvlib_get_connection_status(ld));
    return out;
}

}  // namespace orvtest
