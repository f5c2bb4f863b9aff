"""Checks of the seed generator and the ORV schema that need no server."""

import glob
import os
import re
import stat
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import orvseed  # noqa: E402

SCHEMA_DIRS = [os.path.join(os.path.dirname(HERE), "server", "schema"), "/usr/share/dirsrv/schema"]


def parse_ldif(text):
    """Entries as (dn, [(attr, value)]) from seed LDIF (no line folding)."""
    entries = []
    for block in text.strip().split("\n\n"):
        lines = [l for l in block.splitlines() if l and not l.startswith("#")]
        if not lines:
            continue
        pairs = []
        for l in lines:
            m = re.match(r"^([^:]+)(::?) ?(.*)$", l)
            assert m, l
            value = m.group(3)
            if m.group(2) == "::":
                value = orvseed.base64_dn(value)
            pairs.append((m.group(1), value))
        assert pairs[0][0] == "dn", block
        entries.append((pairs[0][1], pairs[1:]))
    return entries


def schema_names():
    """Lower-cased attribute and object class names of our and 389's schema."""
    attrs, classes = set(), set()
    for d in SCHEMA_DIRS:
        for path in glob.glob(os.path.join(d, "*.ldif")):
            with open(path, encoding="utf-8", errors="replace") as f:
                text = re.sub(r"\n ", "", f.read())
            for kind, body in re.findall(r"^(attributeTypes|objectClasses):\s*\((.*)\)\s*$", text, re.M | re.I):
                m = re.search(r"NAME\s+(\(([^)]*)\)|'([^']*)')", body)
                if not m:
                    continue
                names = re.findall(r"'([^']*)'", m.group(1))
                (attrs if kind.lower() == "attributetypes" else classes).update(n.lower() for n in names)
    return attrs, classes


class RenderTest(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.TemporaryDirectory()
        self.old = orvseed.TEMPLATE_DIR
        orvseed.TEMPLATE_DIR = self.tmp.name

    def tearDown(self):
        orvseed.TEMPLATE_DIR = self.old
        self.tmp.cleanup()

    def template(self, text):
        with open(os.path.join(self.tmp.name, "t.ldif.in"), "w") as f:
            f.write(text)
        return "t.ldif.in"

    def test_lists_repeat_lines_and_empty_values_drop_them(self):
        t = self.template("# comment\ndn: cn=${cn},${suffix}\nmember: ${members}\ndescription: ${d}\nsn: ${sn}\n")
        out = orvseed.render(t, {"cn": "x", "suffix": "dc=a", "members": ["m1", "", "m2"], "d": "", "sn": None})
        self.assertEqual("dn: cn=x,dc=a\nmember: m1\nmember: m2\n\n", out)

    def test_unsafe_values_are_base64(self):
        t = self.template("dn: cn=x\ndescription: ${d}\n")
        for value in (" leading space", ":colon", "<less", "trailing ", "caf\u00e9", "line\nbreak"):
            out = orvseed.render(t, {"d": value})
            line = out.splitlines()[1]
            self.assertTrue(line.startswith("description:: "), line)
            self.assertEqual(value, orvseed.base64_dn(line[len("description:: "):]))
        self.assertEqual("dn: cn=x\ndescription: a: b=c\n\n", orvseed.render(t, {"d": "a: b=c"}))

    def test_attribute_names_take_parameters_and_missing_values_fail(self):
        t = self.template("dn: ${suffix}\n${attr}: ${value}\n")
        self.assertEqual("dn: dc=a\ndc: a\n\n", orvseed.render(t, {"suffix": "dc=a", "attr": "dc", "value": "a"}))
        with self.assertRaises(orvseed.SeedError):
            orvseed.render(t, {"suffix": "dc=a", "attr": "dc"})


class ScenarioTest(unittest.TestCase):
    SUFFIX = "dc=orv,dc=test"

    def build(self, scenario, **params):
        params.setdefault("orvctl", "")
        return orvseed.build(scenario, self.SUFFIX, {k: str(v) for k, v in params.items()})

    def entries(self, seed, backend="userRoot"):
        return parse_ldif(seed.backends[backend])

    def test_every_scenario_uses_only_known_schema_with_unique_dns(self):
        attrs, classes = schema_names()
        self.assertIn("morvaneperson", classes)
        for scenario in orvseed.SCENARIOS:
            seed = self.build(scenario, corp_port=1389, large_users=3, relationships=1)
            for backend in seed.backends:
                dns = set()
                for dn, pairs in self.entries(seed, backend):
                    self.assertNotIn(dn.lower(), dns, "%s: duplicate %s" % (scenario, dn))
                    dns.add(dn.lower())
                    ocs = [v.lower() for a, v in pairs if a.lower() == "objectclass"]
                    self.assertTrue(ocs, dn)
                    for oc in ocs:
                        self.assertTrue(oc in classes, "%s: %s: unknown object class %s" % (scenario, dn, oc))
                    for a, _ in pairs:
                        if a.lower() != "aci":
                            self.assertTrue(a.lower() in attrs, "%s: %s: unknown attribute %s" % (scenario, dn, a))
                    parent = dn.split(",", 1)[1] if "," in dn else ""
                    if dn.lower() not in (self.SUFFIX, orvseed.POLICY_SUFFIX) and "\\," not in dn:
                        self.assertTrue(parent.lower() in dns, "%s: %s comes before its parent" % (scenario, dn))

    def test_standalone_tree(self):
        seed = self.build("standalone")
        by_dn = {dn.lower(): dict_of(pairs) for dn, pairs in self.entries(seed)}
        people = "ou=people," + self.SUFFIX
        cfg = by_dn["cn=orvconfigurationsettings," + self.SUFFIX]
        self.assertEqual(["0"], cfg["orvoperationmode"])
        self.assertEqual(["0"], cfg["orvisradiusserverconfigured"])
        ver = by_dn["cn=version number," + self.SUFFIX]
        self.assertEqual(["6.0.0.1"], ver["kxslibrarycompatibleversion"])
        # Read before any bind: open to anyone, and only this entry is.
        self.assertIn('userdn="ldap:///anyone"', ver["aci"][0])
        self.assertIn("kxslibrarycompatibleversion", ver["aci"][0])
        self.assertEqual([], [dn for dn, e in by_dn.items()
                              if "ldap:///anyone" in " ".join(e.get("aci", [])) and not dn.startswith("cn=version")])
        inactive = by_dn["cn=inactive user,ou=roles," + self.SUFFIX]
        self.assertEqual(["uid=dave,%s" % people], [m.lower() for m in inactive["member"]])
        admin = by_dn["uid=orvadmin," + people]
        self.assertEqual(["-1"], admin["nslookthroughlimit"])
        self.assertEqual(["-1"], admin["nssizelimit"])
        self.assertTrue(admin["userpassword"][0].startswith("{SSHA256}"))
        acis = " ".join(by_dn[self.SUFFIX]["aci"])
        self.assertIn('userdn="ldap:///uid=orvadmin,ou=People,%s"' % self.SUFFIX, acis)
        self.assertIn('(targetattr="userPassword")', acis)
        # Each password policy outcome has its user and 389 DS policy entry.
        for uid in ("ppexpired", "pplocked", "ppwarning"):
            user = by_dn["uid=%s,%s" % (uid, people)]
            policy = user["pwdpolicysubentry"][0].lower()
            self.assertIn(policy, by_dn)
            self.assertIn("ldapsubentry", [v.lower() for v in by_dn[policy]["objectclass"]])
        self.assertEqual(["20000101000000Z"], by_dn["uid=ppexpired," + people]["passwordexpirationtime"])
        self.assertEqual(["1"], by_dn["uid=ppwarning," + people]["passwordexpwarned"])
        self.assertEqual(["on"], by_dn["cn=pplocked-policy,cn=nspwpolicycontainer," + people]["passwordlockout"])
        self.assertEqual(["2"], by_dn["cn=pplocked-policy,cn=nspwpolicycontainer," + people]["passwordmaxfailure"])
        self.assertNotIn("ou=partitions", " ".join(d for d in by_dn if d.startswith("cn=")))
        policies = dict((dn.lower(), dict_of(p)) for dn, p in self.entries(seed, "nuvpolicies"))
        self.assertEqual(["6"], policies["cn=orvpasswordpolicy,cn=nuvpolicies"]["pwdminlength"])
        self.assertIn("osuser:OsPass123:orv\n", seed.passdb)
        self.assertIn("alice:Secret123!:orv\n", seed.passdb)

    def test_parameters_override_defaults(self):
        seed = self.build("standalone", compat_version="6.0.0.2", user_pw="Other#1", large_users=25)
        by_dn = {dn.lower(): dict_of(p) for dn, p in self.entries(seed)}
        self.assertEqual(["6.0.0.2"], by_dn["cn=version number," + self.SUFFIX]["kxslibrarycompatibleversion"])
        self.assertEqual(25, sum(1 for dn in by_dn if re.match(r"uid=user\d{5},", dn)))
        self.assertIn("alice:Other#1:orv\n", seed.passdb)
        self.assertEqual("5000", orvseed.merged_params("standalone-large", {})["large_users"])
        self.assertEqual("2", orvseed.merged_params("osauth", {})["operation_mode"])
        with self.assertRaises(orvseed.SeedError):
            orvseed.merged_params("nonsense", {})

    def test_corporate_partition_enciphers_with_orvctl_or_keeps_plain_text(self):
        with tempfile.TemporaryDirectory() as tmp:
            tool = os.path.join(tmp, "orvctl")
            with open(tool, "w") as f:
                f.write('#!/bin/sh\n[ "$1" = encipher ] || exit 2\necho "(7,33):[$2]"\n')
            os.chmod(tool, stat.S_IRWXU)
            seed = self.build("corporate", corp_port=4242, corp_admin_pw="TopSecret", orvctl=tool)
            part = partition(seed, self.entries(seed))
            self.assertEqual(["(7,33):[TopSecret]"], part["orvpartitionadminpassword"])
            self.assertEqual("orvctl", seed.params["corp_admin_pw_enciphered"])
        self.assertEqual(["4242"], part["orvportnumber"])
        self.assertEqual(["uid=corpadmin,ou=People,dc=corp,dc=test"], part["orvpartitionadmindn"])
        self.assertEqual(["ou=People,dc=corp,dc=test"], part["pexpeoplesearchbasesuffix"])

        seed = self.build("corporate", corp_port=4242, corp_admin_pw="TopSecret")
        self.assertEqual(["TopSecret"], partition(seed, self.entries(seed))["orvpartitionadminpassword"])
        self.assertEqual("no", seed.params["corp_admin_pw_enciphered"])
        self.assertTrue(seed.notes)

        seed = self.build("corporate", corp_port=4242, corp_admin_pw_enc="given-text")
        self.assertEqual(["given-text"], partition(seed, self.entries(seed))["orvpartitionadminpassword"])

    def test_corporate_directory_has_people_groups_and_no_orv_data(self):
        seed = orvseed.build("corporate-directory", "dc=corp,dc=test", {})
        entries = self.entries(seed)
        dns = [dn.lower() for dn, _ in entries]
        self.assertIn("uid=corpadmin,ou=people,dc=corp,dc=test", dns)
        self.assertIn("cn=zorlausers,ou=groups,dc=corp,dc=test", dns)
        self.assertFalse([d for d in dns if "orvconfigurationsettings" in d or "version number" in d])
        self.assertEqual("uid=corpadmin,ou=People,dc=corp,dc=test", seed.params["admin_dn"])

    def test_corporate_directory_bulk_users_and_large_groups(self):
        seed = orvseed.build("corporate-directory", "dc=corp,dc=test",
                             {"corp_bulk_users": "1600", "corp_big_groups": "Big:1501,Small:3"})
        entries = dict((dn.lower(), attrs) for dn, attrs in self.entries(seed))
        bulk = [dn for dn in entries if dn.startswith("uid=bulk")]
        self.assertEqual(1600, len(bulk))
        big = entries["cn=big,ou=groups,dc=corp,dc=test"]
        members = [v.lower() for k, v in big if k.lower() == "member"]
        self.assertEqual(1501, len(members))
        self.assertEqual(1501, len(set(members)))
        self.assertEqual("uid=bulk00001,ou=people,dc=corp,dc=test", members[0])
        self.assertEqual("uid=bulk01501,ou=people,dc=corp,dc=test", members[-1])
        self.assertIn(("objectClass", "group"), big)
        self.assertEqual(3, len([1 for k, _ in entries["cn=small,ou=groups,dc=corp,dc=test"] if k == "member"]))
        with self.assertRaises(ValueError):
            orvseed.build("corporate-directory", "dc=corp,dc=test",
                          {"corp_bulk_users": "10", "corp_big_groups": "Big:11"})

    def test_radius_users_and_flags(self):
        seed = self.build("radius", radius_port=1999, radius_secret="s3")
        self.assertIn("alice:alice-otp\n", seed.radius_users)
        by_dn = {dn.lower(): dict_of(p) for dn, p in self.entries(seed)}
        rad = by_dn["cn=radiusserver,ou=radiusconfiguration,ou=config," + self.SUFFIX]
        self.assertEqual(["1999"], rad["orvradiusserverportnumber"])
        self.assertEqual(["1"], by_dn["cn=orvconfigurationsettings," + self.SUFFIX]["orvisradiusserverconfigured"])
        self.assertEqual(["1"], by_dn["uid=alice,ou=people," + self.SUFFIX]["orvradius2factorauthenticationrequired"])
        seed = self.build("radius", radius_users="u1:p1,u2:p2")
        self.assertEqual("u1:p1\nu2:p2\n", seed.radius_users)


class SchemaTest(unittest.TestCase):
    def test_definitions_are_unique_and_resolve(self):
        attrs, classes = schema_names()
        oids, names = set(), set()
        for path in glob.glob(os.path.join(SCHEMA_DIRS[0], "*.ldif")):
            with open(path) as f:
                text = f.read()
            self.assertTrue(text.lstrip("#\n ").startswith("dn: cn=schema") or "\ndn: cn=schema\n" in text, path)
            for kind, body in re.findall(r"^(attributeTypes|objectClasses): \((.*)\)$", text, re.M):
                oid = body.split()[0]
                self.assertTrue(oid.startswith("1.3.6.1.4.1.47391.1."), oid)
                self.assertNotIn(oid, oids)
                oids.add(oid)
                name = re.search(r"NAME '([^']+)'", body).group(1).lower()
                self.assertNotIn((kind, name), names)
                names.add((kind, name))
                if kind == "attributeTypes":
                    self.assertIn("caseIgnoreMatch", body)
                    self.assertNotIn("SINGLE-VALUE", body)
                for group in re.findall(r"(?:MUST|MAY) (\([^)]*\)|\S+)", body):
                    for ref in re.findall(r"[A-Za-z][\w-]*", group):
                        self.assertTrue(ref.lower() in attrs, "%s refers to unknown %s" % (name, ref))


def dict_of(pairs):
    d = {}
    for a, v in pairs:
        d.setdefault(a.lower(), []).append(v)
    return d


def partition(seed, entries):
    parts = [dict_of(p) for dn, p in entries if dn.lower().startswith("cn=corporatepartition,")]
    assert len(parts) == 1
    return parts[0]


if __name__ == "__main__":
    unittest.main()
