// People search and group-member search of 5000 users in database roles:
// orvlib with full iteration (roles and databases read) against raw libldap
// doing the least the same entries need.  See bench/README.md.
//
// Each round runs every workload once, in an order that rotates from round
// to round; the figures are medians over the rounds.  Requests are counted
// by the server (cn=snmp,cn=monitor, searchOps).  The ratios come last.
//
//   orv_search_bench [--users N] [--roles N] [--rounds N]
//
// The benchmark starts its own throwaway ORV test directory (scenario
// standalone-roles) on 127.0.0.1 and removes it at the end.

#include <ldap.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "orv_role_index.hpp"
#include "orvldap.h"
#include "orvldap_search.h"
#include "orvldap_session.h"
#include "testbed.hpp"

namespace {

// The filter the library sends for the people search "*" with the virtual
// list view control; the directory has a VLV index for exactly it.
const char kPeopleFilter[] = "(&(|(cn=*)(uid=*))(objectClass=person))";
constexpr int kWindow = 1000;

orv::testbed::Directory* g_dir = nullptr;
LDAP* g_orv = nullptr;   // library session
LDAP* g_raw = nullptr;   // libldap, bound as the ORV administrator
LDAP* g_root = nullptr;  // libldap, bound as the root DN: reads the counters
std::string g_people_base, g_group_dn;
long g_expected_people = 0;
std::size_t g_index_bytes = 0;

LDAP* bind_raw(const std::string& dn, const std::string& pw) {
    LDAP* ld = nullptr;
    int version = LDAP_VERSION3;
    if (ldap_initialize(&ld, g_dir->uri().c_str()) != LDAP_SUCCESS) return nullptr;
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    berval cred{static_cast<ber_len_t>(pw.size()), const_cast<char*>(pw.data())};
    if (ldap_sasl_bind_s(ld, dn.c_str(), LDAP_SASL_SIMPLE, &cred, nullptr, nullptr, nullptr) !=
        LDAP_SUCCESS) {
        ldap_unbind_ext_s(ld, nullptr, nullptr);
        return nullptr;
    }
    return ld;
}

long server_searches() {
    LDAPMessage* res = nullptr;
    char* attrs[] = {const_cast<char*>("searchops"), nullptr};
    long count = -1;
    if (ldap_search_ext_s(g_root, "cn=snmp,cn=monitor", LDAP_SCOPE_BASE, "(objectClass=*)", attrs, 0,
                          nullptr, nullptr, nullptr, 0, &res) == LDAP_SUCCESS) {
        berval** v = ldap_get_values_len(g_root, ldap_first_entry(g_root, res), "searchops");
        if (v && v[0]) count = std::atol(std::string(v[0]->bv_val, v[0]->bv_len).c_str());
        ber_bvecfree(v);
    }
    ldap_msgfree(res);
    return count;
}

// Walks every attribute and value of a raw result, as a client reads it.
long walk(LDAP* ld, LDAPMessage* res, std::vector<std::string>* dns = nullptr) {
    long n = 0;
    for (LDAPMessage* e = ldap_first_entry(ld, res); e; e = ldap_next_entry(ld, e)) {
        char* dn = ldap_get_dn(ld, e);
        if (dns && dn) dns->emplace_back(dn);
        ldap_memfree(dn);
        BerElement* ber = nullptr;
        for (char* a = ldap_first_attribute(ld, e, &ber); a; a = ldap_next_attribute(ld, e, ber)) {
            ber_bvecfree(ldap_get_values_len(ld, e, a));
            ldap_memfree(a);
        }
        ber_free(ber, 0);
        ++n;
    }
    return n;
}

long raw_search(const char* base, int scope, const char* filter, char** attrs,
                std::vector<std::string>* dns = nullptr) {
    LDAPMessage* res = nullptr;
    const int rc = ldap_search_ext_s(g_raw, base, scope, filter, attrs, 0, nullptr, nullptr,
                                     nullptr, LDAP_NO_LIMIT, &res);
    const long n = rc == LDAP_SUCCESS ? walk(g_raw, res, dns) : -1;
    ldap_msgfree(res);
    return n;
}

// ------------------------------------------------------------------ workloads

long raw_single() {
    return raw_search(g_people_base.c_str(), LDAP_SCOPE_SUBTREE, kPeopleFilter,
                      const_cast<char**>(ORVLIB_USER_ATTR_LIST));
}

// The VLV windows the library sends (sorted on cn, 1000 entries each).
long raw_windows(std::vector<std::string>* dns = nullptr) {
    long total = 0;
    int offset = 1;
    berval context{0, nullptr};
    std::string saved_context;
    for (;;) {
        LDAPSortKey** keys = nullptr;
        char key[] = "cn";
        ldap_create_sort_keylist(&keys, key);
        LDAPControl* controls[3] = {nullptr, nullptr, nullptr};
        ldap_create_sort_control(g_raw, keys, 0, &controls[0]);
        ldap_free_sort_keylist(keys);
        LDAPVLVInfo info{};
        info.ldvlv_version = 1;
        info.ldvlv_after_count = kWindow - 1;
        info.ldvlv_offset = offset;
        info.ldvlv_count = 0;  // absolute positions, as the library asks
        info.ldvlv_context = saved_context.empty() ? nullptr : &context;
        ldap_create_vlv_control(g_raw, &info, &controls[1]);
        LDAPMessage* res = nullptr;
        const int rc = ldap_search_ext_s(g_raw, g_people_base.c_str(), LDAP_SCOPE_SUBTREE,
                                         kPeopleFilter, const_cast<char**>(ORVLIB_USER_ATTR_LIST),
                                         0, controls, nullptr, nullptr, LDAP_NO_LIMIT, &res);
        ldap_control_free(controls[0]);
        ldap_control_free(controls[1]);
        if (rc != LDAP_SUCCESS) {
            ldap_msgfree(res);
            return -1;
        }
        const long n = walk(g_raw, res, dns);
        total += n;
        LDAPControl** returned = nullptr;
        int err = 0;
        ldap_parse_result(g_raw, res, &err, nullptr, nullptr, nullptr, &returned, 0);
        LDAPControl* c = ldap_control_find(LDAP_CONTROL_VLVRESPONSE, returned, nullptr);
        ber_int_t target = 0, content = 0;
        berval* ctx = nullptr;
        int vlv_err = 0;
        if (c) ldap_parse_vlvresponse_control(g_raw, c, &target, &content, &ctx, &vlv_err);
        saved_context = ctx ? std::string(ctx->bv_val, ctx->bv_len) : std::string();
        context = berval{static_cast<ber_len_t>(saved_context.size()), &saved_context[0]};
        if (ctx) ber_bvfree(ctx);
        ldap_controls_free(returned);
        ldap_msgfree(res);
        offset += kWindow;
        if (n == 0 || offset > content) break;
    }
    return total;
}

std::string escaped(const std::string& v) {
    std::string out;
    for (char c : v) {
        switch (c) {
        case '*': out += "\\2a"; break;
        case '(': out += "\\28"; break;
        case ')': out += "\\29"; break;
        case '\\': out += "\\5c"; break;
        default: out += c;
        }
    }
    return out;
}

// The look-ups each entry makes when it asks the directory itself: its
// roles, then each role's database.
void per_entry_lookups(const std::vector<std::string>& dns) {
    char* no_attrs[] = {const_cast<char*>(LDAP_NO_ATTRS), nullptr};
    char* db_attrs[] = {const_cast<char*>("orvZorlaDatabaseId"), nullptr};
    for (const std::string& dn : dns) {
        std::vector<std::string> roles;
        const std::string filter = "(&(objectclass=morvaneRole)(member=" + escaped(dn) + "))";
        raw_search(g_dir->suffix().c_str(), LDAP_SCOPE_SUBTREE, filter.c_str(), no_attrs, &roles);
        for (const std::string& role : roles)
            raw_search(role.c_str(), LDAP_SCOPE_SUBTREE,
                       "(&(objectclass=accessrole)(objectclass=morvanerole))", db_attrs);
    }
}

long raw_per_entry() {
    std::vector<std::string> dns;
    const long n = raw_windows(&dns);
    per_entry_lookups(dns);
    return n;
}

long orvlib_iterate(const char* filter, int type) {
    LDAPMessage* res = nullptr;
    if (orvlib_search_ext_s(g_orv, filter, type, &res) != 0) return -1;
    long n = 0;
    ORVLibEntry* entry = nullptr;
    for (LDAPMessage* cur = orvlib_first_entry(g_orv, &entry, res); cur;
         cur = orvlib_next_entry(g_orv, &entry, cur)) {
        for (int id : {3, 19, 40}) orvlib_free_values(orvlib_get_entry_vals(entry, id));
        orvlib_orvlibentry_free(entry);
        entry = nullptr;
        ++n;
    }
    if (const orv::RoleIndex* index = orv::current_role_index()) g_index_bytes = index->bytes();
    orvlib_orvmessage_free(res);
    return n;
}

long orvlib_people() { return orvlib_iterate("*", ORV_SEARCH_PEOPLE); }
long orvlib_members() { return orvlib_iterate(g_group_dn.c_str(), ORV_SEARCH_GROUP_MEMBERS); }

// The group's member list, then one search of the member entries.
long raw_members() {
    char* attrs[] = {const_cast<char*>("uniqueMember"), nullptr};
    if (raw_search(g_group_dn.c_str(), LDAP_SCOPE_BASE, "(objectClass=*)", attrs) != 1) return -1;
    return raw_search(g_people_base.c_str(), LDAP_SCOPE_SUBTREE,
                      "(&(uid=user*)(objectclass=person))",
                      const_cast<char**>(ORVLIB_USER_ATTR_LIST));
}

struct Workload {
    const char* name;
    std::function<long()> run;
    long expected;
    std::vector<double> wall_ms, cpu_ms;
    std::vector<long> requests;
};

double cpu_now_ms() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

template <typename T>
T median(std::vector<T> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? T() : v[v.size() / 2];
}

LDAP* open_library_session() {
    orvlib_init();
    ORVLibInfo* info = nullptr;
    LDAP* ld = orvlib_getsession_context(g_dir->host().c_str(), g_dir->port(), &info, 0);
    if (info) {
        orvlib_memfree(const_cast<char*>(info->orv_server_version));
        orvlib_memfree(const_cast<char*>(info->orv_server_lib_compatibility_version));
        orvlib_orvlibinfo_free(info);
    }
    return ld;
}

int run(int users, int roles, int rounds) {
    g_people_base = "ou=People," + g_dir->suffix();
    g_group_dn = "cn=All Generated,ou=Groups," + g_dir->suffix();
    std::string ldif = "dn: " + g_group_dn +
                       "\nchangetype: add\nobjectClass: top\nobjectClass: groupOfUniqueNames\n"
                       "cn: All Generated\n";
    char uid[32];
    for (int i = 1; i <= users; ++i) {
        std::snprintf(uid, sizeof uid, "user%05d", i);
        ldif += "uniqueMember: uid=" + std::string(uid) + "," + g_people_base + "\n";
    }
    g_dir->apply_ldif(ldif);

    g_orv = open_library_session();
    g_raw = bind_raw(g_dir->admin_dn(), g_dir->admin_pw());
    g_root = bind_raw(g_dir->root_dn(), g_dir->root_pw());
    if (!g_orv || !g_raw || !g_root) {
        std::fprintf(stderr, "cannot connect to the test directory\n");
        return 1;
    }
    g_expected_people = raw_single();

    std::vector<Workload> loads = {
        {"raw single search (people)", raw_single, g_expected_people, {}, {}, {}},
        {"raw VLV windows (people)", [] { return raw_windows(); }, g_expected_people, {}, {}, {}},
        {"raw per-entry sequence (people)", raw_per_entry, g_expected_people, {}, {}, {}},
        {"orvlib people search", orvlib_people, g_expected_people, {}, {}, {}},
        {"raw member list + one search", raw_members, users, {}, {}, {}},
        {"orvlib group-member search", orvlib_members, users, {}, {}, {}},
    };
    // One untimed pass: the server's entry cache is warm for every workload.
    for (Workload& w : loads) w.run();

    std::printf("%d users, %d generated roles, %d rounds; times in ms\n", users, roles, rounds);
    for (int round = 0; round < rounds; ++round) {
        for (std::size_t k = 0; k < loads.size(); ++k) {
            Workload& w = loads[(k + round) % loads.size()];
            const long before = server_searches();
            const double cpu0 = cpu_now_ms();
            const auto t0 = std::chrono::steady_clock::now();
            const long n = w.run();
            const auto t1 = std::chrono::steady_clock::now();
            const double cpu1 = cpu_now_ms();
            const long after = server_searches();
            if (n < 0) {
                std::fprintf(stderr, "%s failed\n", w.name);
                return 1;
            }
            if (n != w.expected)
                std::printf("NOTE %s: %ld entries, the raw search has %ld\n", w.name, n,
                            w.expected);
            w.wall_ms.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
            w.cpu_ms.push_back(cpu1 - cpu0);
            w.requests.push_back(after - before - 1);  // the counter read itself
            std::printf("round %d  %-34s wall %8.1f  cpu %7.1f  requests %ld\n", round + 1, w.name,
                        w.wall_ms.back(), w.cpu_ms.back(), w.requests.back());
        }
    }

    std::printf("\n%-34s %12s %12s %10s %8s\n", "median of rounds", "wall ms", "client cpu ms",
                "requests", "entries");
    for (const Workload& w : loads)
        std::printf("%-34s %12.1f %12.1f %10ld %8ld\n", w.name, median(w.wall_ms),
                    median(w.cpu_ms), median(w.requests), w.expected);
    std::printf("role index of the people search: %zu bytes\n", g_index_bytes);

    auto ratio = [&](int a, int b, std::vector<double> Workload::*field) {
        return median(loads[a].*field) / median(loads[b].*field);
    };
    std::printf("\nratios (medians)\n");
    std::printf("orvlib people / raw single search:      wall %.2f  cpu %.2f\n",
                ratio(3, 0, &Workload::wall_ms), ratio(3, 0, &Workload::cpu_ms));
    std::printf("orvlib people / raw VLV windows:        wall %.2f  cpu %.2f\n",
                ratio(3, 1, &Workload::wall_ms), ratio(3, 1, &Workload::cpu_ms));
    std::printf("raw per-entry sequence / raw single:    wall %.2f\n", ratio(2, 0, &Workload::wall_ms));
    std::printf("orvlib group members / raw single:      wall %.2f  cpu %.2f\n",
                ratio(5, 0, &Workload::wall_ms), ratio(5, 0, &Workload::cpu_ms));
    std::printf("orvlib group members / raw member list: wall %.2f  cpu %.2f\n",
                ratio(5, 4, &Workload::wall_ms), ratio(5, 4, &Workload::cpu_ms));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    int users = 5000, roles = 20, rounds = 5;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (!std::strcmp(argv[i], "--users")) users = std::atoi(argv[i + 1]);
        else if (!std::strcmp(argv[i], "--roles")) roles = std::atoi(argv[i + 1]);
        else if (!std::strcmp(argv[i], "--rounds")) rounds = std::atoi(argv[i + 1]);
    }
    if (users < 1 || users > 99999 || roles < 1 || rounds < 1) {
        std::fprintf(stderr, "usage: orv_search_bench [--users N] [--roles N] [--rounds N]\n");
        return 2;
    }
    int status = 0;
    try {
        std::unique_ptr<orv::testbed::Directory> dir(new orv::testbed::Directory(
            orv::testbed::Options()
                .with_scenario("standalone-roles")
                .with_param("large_users", std::to_string(users))
                .with_param("large_roles", std::to_string(roles))));
        g_dir = dir.get();
        status = run(users, roles, rounds);
        if (g_root) ldap_unbind_ext_s(g_root, nullptr, nullptr);
        if (g_raw) ldap_unbind_ext_s(g_raw, nullptr, nullptr);
        if (g_orv) orvlib_unbind(g_orv);
        orvlib_uninitialize_lib();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "test directory: %s\n", e.what());
        status = 1;
    }
    return status;
}
