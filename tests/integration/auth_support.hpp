// Helpers of the authentication, password and SSO integration tests: a
// library session against a test directory, a plain root connection to
// read and adjust the directory, and the library's log file.
#pragma once

#include <gtest/gtest.h>

#include <ldap.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "orvldap.h"
#include "orvldap_search.h"
#include "pex_logger_internal.hpp"
#include "session_support.hpp"
#include "testbed.hpp"

namespace orv::authtest {

using orvtest::Session;

// Allocations made through the library and not released since start():
// the partition and RADIUS records of closed sessions are left out (freed
// without counting down), and so is the search filter that the search layer
// keeps until the next search, across sessions.
class MemoryBalance {
public:
    void start(const Session& s) {
        count_ = _memCnt;
        uncounted_ = s.uncounted();
        filter_ = user_input_filter != nullptr;
    }
    int outstanding(const Session& s) const {
        const int filterDelta = (user_input_filter != nullptr ? 1 : 0) - (filter_ ? 1 : 0);
        return _memCnt - count_ - (s.uncounted() - uncounted_) - filterDelta;
    }

private:
    int count_ = 0;
    int uncounted_ = 0;
    bool filter_ = false;
};

// A test on a library session of the test bed's directory whose records
// (kept with keep()) are freed at its end, and whose library allocations
// must then be back where they started.
class BalancedSessionTest : public ::testing::Test {
protected:
    void SetUp() override {
        memory_.start(session_);
        session_.open(orv::testbed::Environment::directory());
        ASSERT_NE(session_.ld(), nullptr) << "session: " << ldapErrCode;
    }
    void TearDown() override {
        for (ORVLibEntry* e : owned_) orvlib_orvlibentry_free(e);
        owned_.clear();
        session_.close();
        EXPECT_EQ(memory_.outstanding(session_), 0) << "library allocations outstanding";
    }
    LDAP* ld() { return session_.ld(); }
    // Records freed at the end of the test.
    ORVLibEntry* keep(ORVLibEntry* e) {
        if (e) owned_.push_back(e);
        return e;
    }

    Session session_;
    MemoryBalance memory_;
    std::vector<ORVLibEntry*> owned_;
};

// A connection bound as the directory's root DN.
class Root {
public:
    explicit Root(const orv::testbed::Directory& dir) {
        ldap_initialize(&ld_, dir.uri().c_str());
        int v3 = LDAP_VERSION3;
        ldap_set_option(ld_, LDAP_OPT_PROTOCOL_VERSION, &v3);
        std::string pw = dir.root_pw();
        berval cred{pw.size(), &pw[0]};
        rc_ = ldap_sasl_bind_s(ld_, dir.root_dn().c_str(), LDAP_SASL_SIMPLE, &cred, nullptr, nullptr, nullptr);
    }
    ~Root() {
        if (ld_) ldap_unbind_ext_s(ld_, nullptr, nullptr);
    }
    Root(const Root&) = delete;
    Root& operator=(const Root&) = delete;
    int bind_result() const { return rc_; }

    // Replaces (or, with an empty value, deletes) one attribute.
    int set(const std::string& dn, const std::string& attr, const std::string& value) {
        std::string v = value;
        char* vals[] = {v.empty() ? nullptr : &v[0], nullptr};
        LDAPMod mod{};
        mod.mod_op = v.empty() ? LDAP_MOD_DELETE : LDAP_MOD_REPLACE;
        mod.mod_type = const_cast<char*>(attr.c_str());
        mod.mod_values = v.empty() ? nullptr : vals;
        LDAPMod* mods[] = {&mod, nullptr};
        return ldap_modify_ext_s(ld_, dn.c_str(), mods, nullptr, nullptr);
    }
    // Values of one attribute of one entry (empty when absent).
    std::vector<std::string> get(const std::string& dn, const std::string& attr) {
        std::vector<std::string> out;
        char* attrs[] = {const_cast<char*>(attr.c_str()), nullptr};
        LDAPMessage* res = nullptr;
        if (ldap_search_ext_s(ld_, dn.c_str(), LDAP_SCOPE_BASE, "(objectclass=*)", attrs, 0, nullptr, nullptr,
                              nullptr, 0, &res) == LDAP_SUCCESS) {
            LDAPMessage* e = ldap_first_entry(ld_, res);
            berval** vals = e ? ldap_get_values_len(ld_, e, attr.c_str()) : nullptr;
            for (berval** v = vals; v && *v; ++v) out.emplace_back((*v)->bv_val, (*v)->bv_len);
            if (vals) ldap_value_free_len(vals);
        }
        if (res) ldap_msgfree(res);
        return out;
    }
    std::string first(const std::string& dn, const std::string& attr) {
        auto v = get(dn, attr);
        return v.empty() ? std::string() : v[0];
    }
    // DNs under base that match filter.
    std::vector<std::string> find(const std::string& base, const std::string& filter) {
        std::vector<std::string> out;
        char* attrs[] = {const_cast<char*>(LDAP_NO_ATTRS), nullptr};
        LDAPMessage* res = nullptr;
        if (ldap_search_ext_s(ld_, base.c_str(), LDAP_SCOPE_SUBTREE, filter.c_str(), attrs, 0, nullptr, nullptr,
                              nullptr, 0, &res) == LDAP_SUCCESS) {
            for (LDAPMessage* e = ldap_first_entry(ld_, res); e; e = ldap_next_entry(ld_, e)) {
                char* dn = ldap_get_dn(ld_, e);
                if (dn) out.emplace_back(dn);
                ldap_memfree(dn);
            }
        }
        if (res) ldap_msgfree(res);
        return out;
    }
    int remove(const std::string& dn) { return ldap_delete_ext_s(ld_, dn.c_str(), nullptr, nullptr); }
    LDAP* ld() const { return ld_; }

private:
    LDAP* ld_ = nullptr;
    int rc_ = -1;
};

// Simple bind of a DN on a fresh connection: the password as the server
// sees it, independent of the library.
inline int bind_as(const orv::testbed::Directory& dir, const std::string& dn, const std::string& password) {
    LDAP* ld = nullptr;
    ldap_initialize(&ld, dir.uri().c_str());
    int v3 = LDAP_VERSION3;
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &v3);
    std::string pw = password;
    berval cred{pw.size(), pw.empty() ? nullptr : &pw[0]};
    int rc = ldap_sasl_bind_s(ld, dn.c_str(), LDAP_SASL_SIMPLE, &cred, nullptr, nullptr, nullptr);
    ldap_unbind_ext_s(ld, nullptr, nullptr);
    return rc;
}

// Values of attribute id in a library entry, in order.
inline std::vector<std::string> values_of(const ORVLibEntry* entry, int id) {
    std::vector<std::string> out;
    if (!entry || !entry->orvlibEntryAttrData) return out;
    for (ORVLibAttribute** a = entry->orvlibEntryAttrData; *a; ++a)
        if ((*a)->attrId == id)
            for (char** v = (*a)->attrVals; v && *v; ++v) out.emplace_back(*v);
    return out;
}

// Switches the library's log on (debug lines, password logging off) for
// this process: the configuration file goes into the working directory,
// which holds nothing else of the test's.  Call before the first library
// call.
inline void enable_library_log() {
    std::ofstream cfg("PEX_Log_Config.txt");
    cfg << "Product=orvauth\nVersion=1\nEnableLogging=1\nLogLevel=4\nEnableTracing=0\n"
           "EnablePasswordLog=0\nSize=50\nMaxFiles=5\n";
    cfg.close();
    for (const auto& e : std::filesystem::directory_iterator(".")) {
        if (e.path().filename().string().rfind("PEX_API_Log_", 0) == 0) std::filesystem::remove(e.path());
    }
    orv::logger_reset_for_tests();
}

// Everything the library has logged in the working directory so far.
inline std::string library_log_text() {
    std::string text;
    for (const auto& e : std::filesystem::directory_iterator(".")) {
        if (e.path().filename().string().rfind("PEX_API_Log_", 0) != 0) continue;
        std::ifstream in(e.path());
        std::stringstream ss;
        ss << in.rdbuf();
        text += ss.str();
    }
    return text;
}

}  // namespace orv::authtest
