// A test that works on a library session of the test bed's ORV directory in
// corporate mode, its partition on a corporate directory (corp_) that the
// test suite starts in its SetUpTestSuite and hands to use_partition.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "orvldap.h"
#include "session_support.hpp"
#include "testbed.hpp"

namespace orvtest {

// Every entry of a group-members search, attribute by attribute, in order.
using Entry = std::vector<std::pair<std::string, std::vector<std::string>>>;

// between(n) runs after the n-th entry.
inline std::vector<Entry> member_entries(LDAP* ld, const std::string& group,
                                         const std::function<void(size_t)>& between = nullptr) {
    std::vector<Entry> out;
    LDAPMessage* res = nullptr;
    EXPECT_EQ(orvlib_search_ext_s(ld, group.c_str(), ORV_SEARCH_GROUP_MEMBERS, &res), 0);
    ORVLibEntry* entry = nullptr;
    for (LDAPMessage* cur = orvlib_first_entry(ld, &entry, res); cur; cur = orvlib_next_entry(ld, &entry, cur)) {
        Entry e;
        for (ORVLibAttribute** a = entry->orvlibEntryAttrData; a && *a; ++a) {
            e.emplace_back(std::to_string((*a)->attrId) + ":" + ((*a)->attrName ? (*a)->attrName : ""),
                           std::vector<std::string>());
            for (char** v = (*a)->attrVals; v && *v; ++v) e.back().second.emplace_back(*v);
        }
        out.push_back(std::move(e));
        orvlib_orvlibentry_free(entry);
        entry = nullptr;
        if (between) between(out.size());
    }
    orvlib_orvmessage_free(res);
    return out;
}

// The values of the first attribute with the given id.
inline const std::vector<std::string>* values_of(const Entry& e, int id) {
    const std::string prefix = std::to_string(id) + ":";
    for (const auto& a : e)
        if (a.first.compare(0, prefix.size(), prefix) == 0) return &a.second;
    return nullptr;
}

class CorporateSessionTest : public ::testing::Test {
protected:
    static void TearDownTestSuite() {
        corp_.reset();
        orv::testbed::Environment::directory().reseed("standalone");
    }
    void SetUp() override {
        session_.open(orv::testbed::Environment::directory());
        ASSERT_NE(session_.ld(), nullptr) << session_.status();
        ASSERT_EQ(ORV_OPERATION_MODE, 1);
        ASSERT_NE(corporate_admin_ld, nullptr);
    }
    void TearDown() override { session_.close(); }
    LDAP* ld() const { return session_.ld(); }

    static inline std::unique_ptr<orv::testbed::Directory> corp_;
    Session session_;
};

}  // namespace orvtest
