// People search of 5000 users with full iteration: orvlib (orvlib_search_ext_s,
// orvlib_first_entry/orvlib_next_entry, orvlib_get_entry_vals, the free
// functions) against the same search through libldap alone
// (ldap_search_ext_s, walking every entry, attribute and value).
//
// The benchmark starts its own throwaway ORV test directory with the
// "standalone-large" scenario (5000 generated users) on 127.0.0.1 and removes
// it at the end.  See bench/README.md.

#include <benchmark/benchmark.h>

#include <ldap.h>

#include <cstdio>
#include <memory>
#include <string>

#include "orvldap.h"
#include "orvldap_search.h"
#include "orvldap_session.h"
#include "testbed.hpp"

namespace {

const char kFilter[] = "(uid=user*)";
constexpr int kUsers = 5000;

orv::testbed::Directory* g_dir = nullptr;
LDAP* g_orv = nullptr;  // library session
LDAP* g_raw = nullptr;  // plain libldap connection, bound as the ORV administrator

LDAP* open_library_session() {
    orvlib_init();
    ORVLibInfo* info = nullptr;
    LDAP* ld = orvlib_getsession_context(g_dir->host().c_str(), g_dir->port(), &info, 0);
    if (info) {
        orvlib_memfree(const_cast<char*>(info->orv_server_version));
        orvlib_memfree(const_cast<char*>(info->orv_server_lib_compatibility_version));
        orvlib_orvlibinfo_free(info);
    }
    if (!ld) std::fprintf(stderr, "orvlib_getsession_context failed with %d\n", ldapErrCode);
    return ld;
}

LDAP* open_raw_connection() {
    LDAP* ld = nullptr;
    int version = LDAP_VERSION3;
    if (ldap_initialize(&ld, g_dir->uri().c_str()) != LDAP_SUCCESS) return nullptr;
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    const std::string pw = g_dir->admin_pw();
    berval cred{static_cast<ber_len_t>(pw.size()), const_cast<char*>(pw.data())};
    if (ldap_sasl_bind_s(ld, g_dir->admin_dn().c_str(), LDAP_SASL_SIMPLE, &cred, nullptr, nullptr,
                         nullptr) != LDAP_SUCCESS) {
        ldap_unbind_ext_s(ld, nullptr, nullptr);
        return nullptr;
    }
    return ld;
}

// Argument: the paging mechanism (0 virtual list view, 1 paged results,
// -1 one plain search).
void BM_OrvlibPeopleSearch(benchmark::State& state) {
    const int saved = mechanism;
    mechanism = static_cast<int>(state.range(0));
    long entries = 0;
    for (auto _ : state) {
        LDAPMessage* res = nullptr;
        int rc = orvlib_search_ext_s(g_orv, kFilter, ORV_SEARCH_PEOPLE, &res);
        if (rc != 0) {
            state.SkipWithError("orvlib_search_ext_s failed");
            break;
        }
        long n = 0;
        ORVLibEntry* entry = nullptr;
        for (LDAPMessage* cur = orvlib_first_entry(g_orv, &entry, res); cur;
             cur = orvlib_next_entry(g_orv, &entry, cur)) {
            char** uid = orvlib_get_entry_vals(entry, 3);
            benchmark::DoNotOptimize(uid);
            orvlib_free_values(uid);
            orvlib_orvlibentry_free(entry);
            ++n;
        }
        orvlib_orvmessage_free(res);
        if (n != kUsers) {
            state.SkipWithError("wrong number of entries");
            break;
        }
        entries += n;
    }
    state.counters["entries/s"] = benchmark::Counter(static_cast<double>(entries),
                                                     benchmark::Counter::kIsRate);
    mechanism = saved;
}

void BM_RawLdapPeopleSearch(benchmark::State& state) {
    const std::string base = "ou=People," + g_dir->suffix();
    const std::string filter = std::string("(&") + kFilter + "(objectClass=person))";
    long entries = 0;
    for (auto _ : state) {
        LDAPMessage* res = nullptr;
        int rc = ldap_search_ext_s(g_raw, base.c_str(), LDAP_SCOPE_SUBTREE, filter.c_str(),
                                   const_cast<char**>(ORVLIB_USER_ATTR_LIST), 0, nullptr, nullptr,
                                   nullptr, LDAP_NO_LIMIT, &res);
        if (rc != LDAP_SUCCESS) {
            ldap_msgfree(res);
            state.SkipWithError("ldap_search_ext_s failed");
            break;
        }
        long n = 0;
        for (LDAPMessage* e = ldap_first_entry(g_raw, res); e; e = ldap_next_entry(g_raw, e)) {
            char* dn = ldap_get_dn(g_raw, e);
            benchmark::DoNotOptimize(dn);
            ldap_memfree(dn);
            BerElement* ber = nullptr;
            for (char* a = ldap_first_attribute(g_raw, e, &ber); a;
                 a = ldap_next_attribute(g_raw, e, ber)) {
                berval** vals = ldap_get_values_len(g_raw, e, a);
                benchmark::DoNotOptimize(vals);
                ber_bvecfree(vals);
                ldap_memfree(a);
            }
            ber_free(ber, 0);
            ++n;
        }
        ldap_msgfree(res);
        if (n != kUsers) {
            state.SkipWithError("wrong number of entries");
            break;
        }
        entries += n;
    }
    state.counters["entries/s"] = benchmark::Counter(static_cast<double>(entries),
                                                     benchmark::Counter::kIsRate);
}

// One untimed pass through every entry, so that no benchmark pays for the
// server's cold entry cache.
void warm_up() {
    LDAPMessage* res = nullptr;
    if (orvlib_search_ext_s(g_orv, kFilter, ORV_SEARCH_PEOPLE, &res) == 0) {
        ORVLibEntry* entry = nullptr;
        for (LDAPMessage* cur = orvlib_first_entry(g_orv, &entry, res); cur;
             cur = orvlib_next_entry(g_orv, &entry, cur))
            orvlib_orvlibentry_free(entry);
    }
    orvlib_orvmessage_free(res);
}

BENCHMARK(BM_OrvlibPeopleSearch)
    ->ArgName("mechanism")
    ->Arg(0)
    ->Arg(1)
    ->Arg(-1)
    ->Unit(benchmark::kMillisecond)
    ->MinTime(5.0)
    ->UseRealTime();
BENCHMARK(BM_RawLdapPeopleSearch)->Unit(benchmark::kMillisecond)->MinTime(5.0)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    int status = 0;
    try {
        std::unique_ptr<orv::testbed::Directory> dir(new orv::testbed::Directory(
            orv::testbed::Options().with_scenario("standalone-large")));
        g_dir = dir.get();
        g_orv = open_library_session();
        g_raw = open_raw_connection();
        if (!g_orv || !g_raw) {
            std::fprintf(stderr, "cannot connect to the test directory\n");
            status = 1;
        } else {
            warm_up();
            benchmark::RunSpecifiedBenchmarks();
        }
        if (g_raw) ldap_unbind_ext_s(g_raw, nullptr, nullptr);
        if (g_orv) orvlib_unbind(g_orv);
        orvlib_uninitialize_lib();
        benchmark::Shutdown();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "test directory: %s\n", e.what());
        status = 1;
    }
    return status;
}
