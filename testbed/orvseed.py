"""Seed data of the ORV test directories.

A scenario is a named set of LDIF templates (testbed/templates/*.ldif.in)
filled with parameters.  `build(scenario, suffix, params)` returns a Seed:
the LDIF text of each backend of the instance ("userRoot" holds the suffix,
"nuvpolicies" holds cn=nuvpolicies), the PAM password database text
(user:password:service lines) and a summary of the parameters used.

Template rules: a line "attr: ${name}" is written once per value of the
parameter (a list gives several lines, an empty value or empty list drops
the line); values are base64-encoded where LDIF requires it.
"""

import base64
import hashlib
import os
import re
import string
import subprocess
import sys
import time
import uuid

HERE = os.path.dirname(os.path.abspath(__file__))
TEMPLATE_DIR = os.path.join(HERE, "templates")

PAM_SERVICE = "orv"
POLICY_SUFFIX = "cn=nuvpolicies"

# Operational attributes that the ORV administrator reads besides the
# ordinary ones.
OPERATIONAL_ATTRS = ("entrydn || nsRoleDN || nsRole || nsAccountLock || pwdpolicysubentry || "
                     "passwordExpirationTime || passwordRetryCount || accountUnlockTime || "
                     "createTimestamp || modifyTimestamp || creatorsName || modifiersName || "
                     "nsUniqueId || entryUUID || numSubordinates")

# Parameters every scenario understands, with their defaults.  Scenario
# entries below override some of them; callers override any of them.
COMMON_DEFAULTS = {
    "admin_pw": "qwmzt",
    "user_pw": "Secret123!",
    "os_user": "osuser",
    "os_pw": "OsPass123",
    "server_version": "6.0.0.1",
    "compat_version": "6.0.0.1",
    "operation_mode": "0",
    "instance_id": "ORVTEST-INSTANCE-01",
    "default_domain": "ORVTEST",
    "trusted_os_auth": "0",
    "radius_configured": "0",
    "instance_migrated": "0",
    "primary_cache_size": "6000000",
    "secondary_cache_size": "2000000",
    "pwd_check_syntax": "1",
    "pwd_max_repeated": "3",
    "pwd_min_alpha": "1",
    "pwd_min_other": "0",
    "pwd_min_diff": "3",
    "pwd_min_numbers": "1",
    "pwd_min_symbols": "0",
    "pwd_min_length": "6",
    "pwd_in_history": "3",
    "pwd_max_failure": "2",
    "pwd_lockout_duration": "600",
    "pwd_lockout": "on",
    "large_users": "0",
    # Generated database roles over the generated users (see _role_members).
    "large_roles": "0",
    "orvctl": "",
    # "1": add the password-change user (PASSWORD_CHANGE_USER below).
    "pwd_change_user": "0",
    # "1": add the external-relationship data set (RELATIONSHIP_* below).
    "relationships": "0",
}

CORPORATE_DEFAULTS = {
    "corp_host": "127.0.0.1",
    "corp_port": "389",
    "corp_suffix": "dc=corp,dc=test",
    "corp_admin_dn": "",          # default: uid=corpadmin,ou=People,<corp_suffix>
    "corp_admin_pw": "CorpAdmin1",
    "corp_admin_pw_enc": "",      # enciphered form; computed with orvctl when empty
    "corp_ssl": "off",
    "corp_blank_pw": "off",
    "corp_logon_attr": "uid",
    "corp_is_dc": "0",
    "corp_search_base_type": "0",
    "corp_meta_schema": "0",
    "corp_people_base": "",       # default: ou=People,<corp_suffix>
    "corp_group_base": "",        # default: ou=Groups,<corp_suffix>
    "corp_meta_users": "",        # default: cn=ZorlaUsers,ou=Groups,<corp_suffix>
    "corp_meta_groups": "",       # default: cn=ZorlaGroups,ou=Groups,<corp_suffix>
    "partition_name": "CorporatePartition",
}

RADIUS_DEFAULTS = {
    "radius_host": "127.0.0.1",
    "radius_port": "1812",
    "radius_secret": "testing123",
    "radius_secret_enc": "",      # enciphered form; computed with orvctl when empty
    "radius_users": "",
}

SCENARIOS = {
    "standalone": {
        "description": "mode 0: local users, groups, roles (incl. Inactive User), databases, "
                       "registry, password-policy users",
        "defaults": {},
    },
    "standalone-large": {
        "description": "standalone plus large_users generated users (user00001...) for paging",
        "defaults": {"large_users": "5000"},
    },
    "standalone-roles": {
        "description": "standalone plus large_users generated users in large_roles generated "
                       "database roles (member DNs in mixed spellings, users in no, one or "
                       "several roles, a role without database id, a role that is no access "
                       "role, a role that lists a user twice)",
        "defaults": {"large_users": "5000", "large_roles": "20"},
    },
    "osauth": {
        "description": "mode 2 (operating-system authentication through PAM), trusted OS auth on",
        "defaults": {"operation_mode": "2", "trusted_os_auth": "1"},
    },
    "corporate": {
        "description": "mode 1: standalone data plus a partition entry for a corporate server",
        "defaults": dict(CORPORATE_DEFAULTS, operation_mode="1"),
    },
    "corporate-directory": {
        "description": "a plain corporate LDAP server: people, groups, meta groups, "
                       "partition administrator; no ORV configuration",
        "defaults": {"corp_admin_dn": "", "corp_admin_pw": "CorpAdmin1", "corp_users": "0",
                     "corp_bulk_users": "0", "corp_big_groups": ""},
    },
    "radius": {
        "description": "standalone plus RADIUS flag and RADIUS server entry; users and the "
                       "database require the RADIUS second factor",
        "defaults": dict(RADIUS_DEFAULTS, radius_configured="1"),
    },
}

# The people of the ORV directory.  Flags: inactive (member of the Inactive
# User role), must_change (password reset by an administrator), no_change
# (may not change the password), policy (389 DS password policy outcome).
STANDALONE_USERS = [
    {"uid": "alice", "given": "Alice", "sn": "Archer", "groups": ["Developers", "Admins"]},
    {"uid": "bob", "given": "Bob", "sn": "Baker", "groups": ["Developers"]},
    {"uid": "carol", "given": "Carol", "sn": "Carter", "groups": ["Testers"]},
    {"uid": "dave", "given": "Dave", "sn": "Dawson", "groups": ["Testers"], "inactive": True},
    {"uid": "erin", "given": "Erin", "sn": "Evans", "groups": [], "must_change": True},
    {"uid": "frank", "given": "Frank", "sn": "Fisher", "groups": [], "no_change": True},
    {"uid": "ppexpired", "given": "Pat", "sn": "Expired", "groups": [], "policy": "expired"},
    {"uid": "pplocked", "given": "Pat", "sn": "Locked", "groups": [], "policy": "lockout"},
    {"uid": "ppwarning", "given": "Pat", "sn": "Warning", "groups": [], "policy": "warning"},
]

STANDALONE_GROUPS = [
    ("Developers", "Software developers"),
    ("Testers", "Test engineers"),
    ("Admins", "Application administrators"),
    ("Empty Group", "A group with only the placeholder member"),
]

CORPORATE_USERS = [
    {"uid": "jsmith", "given": "John", "sn": "Smith", "groups": ["Engineering", "ZorlaUsers"]},
    {"uid": "mjones", "given": "Mary", "sn": "Jones", "groups": ["Engineering", "ZorlaUsers"]},
    {"uid": "pbrown", "given": "Peter", "sn": "Brown", "groups": ["Sales"]},
    {"uid": "kwhite", "given": "Kate", "sn": "White", "groups": ["Sales", "ZorlaUsers"]},
    # Exists on both servers: found on the corporate one first.
    {"uid": "alice", "given": "Alice", "sn": "Corporate", "groups": ["Engineering", "ZorlaUsers"]},
]

CORPORATE_GROUPS = [
    ("Engineering", "groupOfNames", "Engineering department"),
    ("Sales", "group", "Sales department"),
]

POLICY_ENTRIES = {
    # kind: policy attribute values
    "expired": {"exp": "on", "max_age": "86400", "warning": "3600", "lockout": "off",
                "max_failure": "3", "lockout_duration": "600"},
    "lockout": {"exp": "off", "max_age": "8640000", "warning": "86400", "lockout": "on",
                "max_failure": "2", "lockout_duration": "600"},
    "warning": {"exp": "on", "max_age": "864000", "warning": "2592000", "lockout": "off",
                "max_failure": "3", "lockout_duration": "600"},
}

WARNING_REMAINING_SECONDS = 5 * 86400

# Password-change user (parameter pwd_change_user=1).  Its own 389 DS policy
# (templates/change-policy.ldif.in) checks syntax with the cracklib
# dictionary check, which refuses a short password with a text that says so
# ("Password failed dictionary check: it is too short"; 389 DS's length rule
# itself only says "must be at least N characters long"), and keeps a
# password history ("password in history").
PASSWORD_CHANGE_USER = {"uid": "ppchange", "given": "Pat", "sn": "Change", "groups": [], "policy": "change"}
POLICY_ENTRIES["change"] = {}
POLICY_TEMPLATES = {"change": "change-policy.ldif.in"}


class SeedError(Exception):
    pass


class Seed:
    def __init__(self):
        self.backends = {}       # backend name -> LDIF text
        self.passdb = ""         # PAM password database
        self.radius_users = ""   # user:password lines for the RADIUS server
        self.params = {}         # parameters used (secrets included; test data only)
        self.notes = []          # warnings for the caller


# ------------------------------------------------------------------ helpers

def stable_uuid(key):
    """A UUID that names the same seeded object in every run."""
    return str(uuid.uuid5(uuid.NAMESPACE_URL, "orvtestbed:" + key))


def ssha256(password, salt=None):
    """Salted SHA-256 userPassword value as 389 DS verifies it."""
    if salt is None:
        salt = os.urandom(8)
    digest = hashlib.sha256(password.encode("utf-8") + salt).digest()
    return "{SSHA256}" + base64.b64encode(digest + salt).decode("ascii")


def base64_dn(text):
    return base64.b64decode(text.strip()).decode("utf-8")


def generalized_time(epoch):
    return time.strftime("%Y%m%d%H%M%SZ", time.gmtime(epoch))


_SAFE_VALUE = re.compile(r"^[\x01-\x09\x0b-\x0c\x0e-\x1f\x21-\x39\x3b\x3d-\x7f][\x01-\x09\x0b-\x0c\x0e-\x7f]*$")


def ldif_line(attr, value):
    value = str(value)
    if value == "" or (_SAFE_VALUE.match(value) and not value.endswith(" ")):
        return "%s: %s" % (attr, value)
    return "%s:: %s" % (attr, base64.b64encode(value.encode("utf-8")).decode("ascii"))


_LINE = re.compile(r"^([^:#\s][^:]*): (.*)$")


def render(template_name, values):
    """Fill one template.  See the module comment for the line rules."""
    path = os.path.join(TEMPLATE_DIR, template_name)
    with open(path, encoding="utf-8") as f:
        text = f.read()
    out = []
    for raw in text.splitlines():
        if raw.startswith("#"):
            continue
        m = _LINE.match(raw)
        if not m:
            out.append(raw)
            continue
        attr = string.Template(m.group(1)).substitute(values)
        tmpl = m.group(2)
        whole = re.fullmatch(r"\$\{(\w+)\}", tmpl)
        if whole:
            if whole.group(1) not in values:
                raise SeedError("%s: no value for %s" % (template_name, whole.group(1)))
            value = values[whole.group(1)]
            if value is None:
                continue
            if isinstance(value, (list, tuple)):
                out.extend(ldif_line(attr, v) for v in value if str(v) != "")
                continue
            if str(value) == "":
                continue
            out.append(ldif_line(attr, value))
        else:
            out.append(ldif_line(attr, string.Template(tmpl).substitute(values)))
    # Collapse runs of blank lines and trim.
    lines = []
    for line in out:
        if line == "" and (not lines or lines[-1] == ""):
            continue
        lines.append(line)
    while lines and lines[-1] == "":
        lines.pop()
    return "\n".join(lines) + "\n\n"


def split_dn(dn):
    """First RDN attribute and value of a DN without escaped commas."""
    first = dn.split(",", 1)[0]
    attr, _, value = first.partition("=")
    return attr.strip(), value.strip()


def suffix_values(suffix):
    attr, value = split_dn(suffix)
    classes = {"dc": "domain", "o": "organization", "ou": "organizationalUnit",
               "cn": "nsContainer", "c": "country"}
    cls = classes.get(attr.lower())
    if cls is None:
        raise SeedError("unsupported suffix RDN in %s" % suffix)
    return {"suffix": suffix, "suffix_attr": attr, "suffix_value": value, "suffix_class": cls}


def encipher(plain, orvctl, what, notes):
    """Enciphered form of a stored credential, made by `orvctl encipher`."""
    if orvctl and os.access(orvctl, os.X_OK):
        r = subprocess.run([orvctl, "encipher", plain], stdout=subprocess.PIPE,
                           stderr=subprocess.PIPE, universal_newlines=True)
        text = r.stdout.strip().splitlines()
        if r.returncode == 0 and text:
            return text[-1].strip(), True
        notes.append("orvctl encipher failed for %s (rc %d): %s" % (what, r.returncode, r.stderr.strip()))
    else:
        notes.append("no orvctl to encipher %s: stored in plain text" % what)
    return plain, False


def merged_params(scenario, overrides):
    if scenario not in SCENARIOS:
        raise SeedError("unknown scenario %r (known: %s)" % (scenario, ", ".join(sorted(SCENARIOS))))
    params = dict(COMMON_DEFAULTS)
    params.update(SCENARIOS[scenario]["defaults"])
    for k, v in (overrides or {}).items():
        params[k] = "" if v is None else str(v)
    return params


# ------------------------------------------------------------------ builders

def _person_values(suffix, user, params, hashes, now):
    uid = user["uid"]
    vals = {
        "suffix": suffix, "uid": uid,
        "cn": "%s %s" % (user["given"], user["sn"]),
        "sn": user["sn"], "given_name": user["given"],
        "mail": "%s@orv.test" % uid,
        "phone": user.get("phone", "+1 555 0100"),
        "description": user.get("description", "ORV test user"),
        "password_hash": hashes["user"],
        "user_id": stable_uuid("user:" + uid),
        "state": "inactive" if user.get("inactive") else "active",
        "change_password": "off" if user.get("no_change") else "on",
        "must_change": "on" if user.get("must_change") else "",
        "posix_name": uid, "nt_name": uid,
        "radius_2fa": user.get("radius_2fa", ""),
        "radius_name": user.get("radius_name", ""),
        "cmdline_pwd": "1",
        "policy_dn": "", "password_expiration": "", "expiry_warned": "",
    }
    kind = user.get("policy")
    if kind:
        vals["policy_dn"] = "cn=%s-policy,cn=nsPwPolicyContainer,ou=People,%s" % (uid, suffix)
        if kind == "expired":
            vals["password_expiration"] = "20000101000000Z"
        elif kind == "warning":
            # Marked as warned already: the server then reports the time
            # really left on every bind instead of granting a fresh warning
            # period on the first one.
            vals["password_expiration"] = generalized_time(now + WARNING_REMAINING_SECONDS)
            vals["expiry_warned"] = "1"
    return vals


def _orv_tree(seed, scenario, params, suffix):
    now = int(time.time())
    admin_dn = "uid=orvadmin,ou=People," + suffix
    if scenario == "corporate":
        _corp_defaults(params)
    common = dict(params)
    common.update(suffix_values(suffix))
    common.update({"admin_dn": admin_dn, "operational_attrs": OPERATIONAL_ATTRS,
                   "admin_pw_hash": ssha256(params["admin_pw"])})
    hashes = {"user": ssha256(params["user_pw"])}

    parts = [render("orv-base.ldif.in", common)]

    common.update({
        "miniapp_protocol": "http", "miniapp_query": "?view=start",
        "miniapp_host": "127.0.0.1", "miniapp_port": "8080",
        "meta_group_base": params.get("corp_group_base") or ("ou=Groups," + suffix),
    })
    parts.append(render("orv-config.ldif.in", common))

    radius = scenario == "radius"
    users = [dict(u) for u in STANDALONE_USERS]
    if params.get("pwd_change_user") == "1":
        users.append(dict(PASSWORD_CHANGE_USER))
    if radius:
        for u in users:
            u["radius_2fa"] = "1"
            u["radius_name"] = u["uid"]
    for user in users:
        vals = _person_values(suffix, user, params, hashes, now)
        parts.append(render("person.ldif.in", vals))
        kind = user.get("policy")
        if kind:
            pol = dict(POLICY_ENTRIES[kind])
            pol.update({"policy_dn": vals["policy_dn"], "policy_cn": "%s-policy" % user["uid"]})
            parts.append(render(POLICY_TEMPLATES.get(kind, "user-policy.ldif.in"), pol))

    def user_dn(uid):
        return "uid=%s,ou=People,%s" % (uid, suffix)

    placeholder = "uid=dummyMemberDN,ou=people," + suffix
    for cn, desc in STANDALONE_GROUPS:
        members = [user_dn(u["uid"]) for u in users if cn in u["groups"]] or [placeholder]
        parts.append(render("group.ldif.in", {
            "suffix": suffix, "cn": cn, "description": desc, "members": members,
            "group_id": stable_uuid("group:" + cn)}))

    database_id = stable_uuid("database:zorladb")
    repository_id = stable_uuid("repository:zorla")
    parts.append(render("database.ldif.in", {
        "suffix": suffix, "database_id": database_id, "name": "zorladb",
        "host": "dbhost.orv.test", "port": "5432",
        "radius_2fa": "1" if radius else "0", "syslogin_2fa": "0",
        "prompt": "Enter the code", "restrict_cmdline": "0"}))

    inactive = [user_dn(u["uid"]) for u in users if u.get("inactive")]
    parts.append(render("role.ldif.in", {
        "suffix": suffix, "rdn": "cn=Inactive User", "classes": ["morvaneRole"],
        "cn": "Inactive User", "description": "Deactivated users",
        "role_id": stable_uuid("role:inactive"), "database_id": "", "members": inactive}))
    parts.append(render("role.ldif.in", {
        "suffix": suffix, "rdn": "orvRoleId=" + stable_uuid("role:zorladb"),
        "classes": ["accessRole", "morvaneRole"],
        "cn": "zorladb(5432@dbhost.orv.test)", "description": "Database Access Role",
        "role_id": stable_uuid("role:zorladb"), "database_id": database_id,
        "members": [user_dn("alice"), user_dn("bob")]}))

    parts.append(render("appserver.ldif.in", {
        "suffix": suffix, "server_id": repository_id, "tool_oid": "1.3.6.1.4.1.47391.2.1",
        "extended": [database_id], "facility_id": stable_uuid("facility:zorla-web"),
        "base_url": "http://zorla.orv.test:8080/zorla", "facility_status": "active",
        "facility_type": "web client"}))

    parts.append(render("winuser.ldif.in", {
        "suffix": suffix, "sid": "S-1-5-21-1000-2000-3000-1001", "system_name": "alice",
        "domain": params["default_domain"], "user_id": stable_uuid("user:alice")}))

    large = int(params.get("large_users") or "0")
    if large > 0:
        tmpl_vals = {"suffix": suffix}
        # One hash for every generated user keeps seeding fast.
        for i in range(1, large + 1):
            uid = "user%05d" % i
            tmpl_vals.update({
                "uid": uid, "cn": "Load User %05d" % i, "sn": "User%05d" % i,
                "given_name": "Load", "mail": "%s@orv.test" % uid, "phone": "+1 555 %04d" % (i % 10000),
                "description": "generated user", "password_hash": hashes["user"],
                "user_id": stable_uuid("user:" + uid), "state": "active",
                "change_password": "on", "must_change": "", "posix_name": uid, "nt_name": uid,
                "radius_2fa": "", "radius_name": "", "cmdline_pwd": "", "policy_dn": "",
                "password_expiration": "", "expiry_warned": ""})
            parts.append(render("person.ldif.in", tmpl_vals))

    roles = int(params.get("large_roles") or "0")
    if roles > 0 and large > 0:
        _generated_roles(parts, suffix, large, roles)

    if params.get("relationships") == "1":
        _relationship_data(parts, suffix)

    if scenario == "corporate":
        _partition(seed, parts, params)
    if radius:
        _radius(seed, parts, params, users)

    seed.backends["userRoot"] = "".join(parts)
    seed.backends["nuvpolicies"] = (render("nuvpolicies.ldif.in", {"admin_dn": admin_dn}) +
                                    render("server-policy.ldif.in", params))
    seed.passdb = "".join("%s:%s:%s\n" % (u["uid"], params["user_pw"], PAM_SERVICE) for u in users)
    seed.passdb += "%s:%s:%s\n" % (params["os_user"], params["os_pw"], PAM_SERVICE)
    params["admin_dn"] = admin_dn


def _spelled_dn(uid, suffix, style):
    """A user's DN written in one of four spellings that the directory
    compares as equal: plain, upper case, blanks after commas, blanks around
    every separator."""
    if style == 0:
        return "uid=%s,ou=People,%s" % (uid, suffix)
    if style == 1:
        return "UID=%s,OU=PEOPLE,%s" % (uid.upper(), suffix.upper())
    if style == 2:
        return "uid=%s, ou=people, %s" % (uid, ", ".join(suffix.split(",")))
    return "uid = %s , ou = People , %s" % (uid, " , ".join(p.replace("=", " = ") for p in suffix.split(",")))


def _role_members(i, roles):
    """Generated roles of user i (1-based): none for every seventh user, else
    one, a second one for even users and a third one for every fifth."""
    if i % 7 == 0:
        return []
    picked = [i % roles]
    if i % 2 == 0:
        picked.append((i * 7 + 3) % roles)
    if i % 5 == 0:
        picked.append((i * 3 + 1) % roles)
    out = []
    for r in picked:
        if r not in out:
            out.append(r)
    return out


def _generated_roles(parts, suffix, users, roles):
    """Database roles over the generated users.  The last role has no
    database id; the one before it is no access role (its database id is
    never reported); the first lists its first member twice, in two
    spellings."""
    members = [[] for _ in range(roles)]
    for i in range(1, users + 1):
        for r in _role_members(i, roles):
            members[r].append(_spelled_dn("user%05d" % i, suffix, (i + r) % 4))
    if members[0]:
        first = members[0][0]
        uid = re.match(r"\s*uid\s*=\s*([^ ,]+)", first, re.I).group(1).lower()
        members[0].insert(1, _spelled_dn(uid, suffix, 3 if not first.startswith("uid = ") else 0))
    for r in range(roles):
        database_id = stable_uuid("database:gen%03d" % r)
        with_db = r != roles - 1
        access = r != roles - 2 or roles < 2
        name = "gendb%03d" % r
        if with_db:
            parts.append(render("database.ldif.in", {
                "suffix": suffix, "database_id": database_id, "name": name,
                "host": "dbhost.orv.test", "port": str(6000 + r),
                "radius_2fa": "0", "syslogin_2fa": "0", "prompt": "", "restrict_cmdline": "0"}))
        role_id = stable_uuid("role:" + name)
        parts.append(render("role.ldif.in", {
            "suffix": suffix, "rdn": "orvRoleId=" + role_id,
            "classes": ["accessRole", "morvaneRole"] if access else ["morvaneRole"],
            "cn": "%s(%d@dbhost.orv.test)" % (name, 6000 + r), "description": "Generated database role",
            "role_id": role_id, "database_id": database_id if with_db else "",
            "members": members[r] or ["uid=dummyMemberDN,ou=people," + suffix]}))


def _corp_defaults(params):
    cs = params.get("corp_suffix") or "dc=corp,dc=test"
    params["corp_suffix"] = cs
    if not params.get("corp_admin_dn"):
        params["corp_admin_dn"] = "uid=corpadmin,ou=People," + cs
    for key, value in (("corp_people_base", "ou=People," + cs), ("corp_group_base", "ou=Groups," + cs),
                       ("corp_meta_users", "cn=ZorlaUsers,ou=Groups," + cs),
                       ("corp_meta_groups", "cn=ZorlaGroups,ou=Groups," + cs)):
        if not params.get(key):
            params[key] = value


def _partition(seed, parts, params):
    _corp_defaults(params)
    stored = params.get("corp_admin_pw_enc")
    if stored:
        params["corp_admin_pw_enciphered"] = "given"
    else:
        stored, ok = encipher(params["corp_admin_pw"], params.get("orvctl"), "the partition password", seed.notes)
        params["corp_admin_pw_enciphered"] = "orvctl" if ok else "no"
    params["corp_admin_pw_stored"] = stored
    vals = dict(params)
    vals.update({"suffix": params["suffix"], "partition_description": "Corporate LDAP test server"})
    parts.append(render("partition.ldif.in", vals))


def _radius(seed, parts, params, users):
    stored = params.get("radius_secret_enc")
    if stored:
        params["radius_secret_enciphered"] = "given"
    else:
        stored, ok = encipher(params["radius_secret"], params.get("orvctl"), "the RADIUS secret", seed.notes)
        params["radius_secret_enciphered"] = "orvctl" if ok else "no"
    params["radius_secret_stored"] = stored
    parts.append(render("radius.ldif.in", dict(params, suffix=params["suffix"])))
    # RADIUS accounts: every user, password "<uid>-otp" unless given.
    lines = params.get("radius_users")
    if not lines:
        lines = ",".join("%s:%s-otp" % (u["uid"], u["uid"]) for u in users)
        params["radius_users"] = lines
    seed.radius_users = "".join(l.strip() + "\n" for l in lines.split(",") if l.strip())


def _corporate_directory(seed, params, suffix):
    params["corp_suffix"] = suffix
    _corp_defaults(params)
    vals = dict(params)
    vals.update(suffix_values(suffix))
    admin_attr, admin_value = split_dn(params["corp_admin_dn"])
    vals.update({"operational_attrs": OPERATIONAL_ATTRS,
                 "corp_admin_rdn_attr": admin_attr, "corp_admin_rdn_value": admin_value,
                 "corp_admin_pw_hash": ssha256(params["corp_admin_pw"])})
    parts = [render("corporate-base.ldif.in", vals)]
    user_hash = ssha256(params["user_pw"])
    users = list(CORPORATE_USERS)
    extra = int(params.get("corp_users") or "0")
    for i in range(1, extra + 1):
        users.append({"uid": "corp%05d" % i, "given": "Corp", "sn": "User%05d" % i, "groups": ["Sales"]})
    for n, user in enumerate(users, 1):
        uid = user["uid"]
        parts.append(render("corporate-person.ldif.in", {
            "suffix": suffix, "uid": uid, "cn": "%s %s" % (user["given"], user["sn"]),
            "sn": user["sn"], "given_name": user["given"], "mail": "%s@corp.test" % uid,
            "phone": "+1 555 0200", "other_phone": "+1 555 0299",
            "sid": "S-1-5-21-7000-8000-9000-%d" % (1100 + n), "password_hash": user_hash}))

    def dn(uid):
        return "uid=%s,ou=People,%s" % (uid, suffix)

    for cn, cls, desc in CORPORATE_GROUPS:
        members = [dn(u["uid"]) for u in users if cn in u["groups"]]
        parts.append(render("corporate-group.ldif.in", {
            "suffix": suffix, "cn": cn, "group_class": cls, "description": desc, "members": members}))
    # Bulk users bulkNNNNN (in no group of their own) and large groups of
    # class group ("Name:count,..."), each with the first count bulk users.
    bulk = int(params.get("corp_bulk_users") or "0")
    for i in range(1, bulk + 1):
        uid = "bulk%05d" % i
        parts.append(render("corporate-person.ldif.in", {
            "suffix": suffix, "uid": uid, "cn": "Bulk User%05d" % i, "sn": "User%05d" % i,
            "given_name": "Bulk", "mail": "%s@corp.test" % uid, "phone": "+1 555 0300",
            "other_phone": "+1 555 0399", "sid": "S-1-5-21-7000-8000-9001-%d" % (100000 + i),
            "password_hash": user_hash}))
    for group in (params.get("corp_big_groups") or "").split(","):
        if not group.strip():
            continue
        cn, _, size = group.strip().rpartition(":")
        if not cn or int(size) > bulk:
            raise ValueError("corp_big_groups: %r needs name:count with count <= corp_bulk_users" % group)
        parts.append(render("corporate-group.ldif.in", {
            "suffix": suffix, "cn": cn, "group_class": "group",
            "description": "Large group of %s bulk users" % size,
            "members": [dn("bulk%05d" % i) for i in range(1, int(size) + 1)]}))
    parts.append(render("corporate-group.ldif.in", {
        "suffix": suffix, "cn": "ZorlaUsers", "group_class": "groupOfNames",
        "description": "Meta group of the corporate users admitted to ORV",
        "members": [dn(u["uid"]) for u in users if "ZorlaUsers" in u["groups"]]}))
    parts.append(render("corporate-group.ldif.in", {
        "suffix": suffix, "cn": "ZorlaGroups", "group_class": "groupOfNames",
        "description": "Meta group of the corporate groups admitted to ORV",
        "members": ["cn=Engineering,ou=Groups," + suffix]}))
    seed.backends["userRoot"] = "".join(parts)
    seed.backends["nuvpolicies"] = render("nuvpolicies.ldif.in", {"admin_dn": params["corp_admin_dn"]})
    seed.passdb = "%s:%s:%s\n" % (params["os_user"], params["os_pw"], PAM_SERVICE)
    params["admin_dn"] = params["corp_admin_dn"]
    params["admin_pw"] = params["corp_admin_pw"]


def build(scenario, suffix, overrides=None):
    params = merged_params(scenario, overrides)
    params["suffix"] = suffix
    seed = Seed()
    if scenario == "corporate-directory":
        _corporate_directory(seed, params, suffix)
    else:
        _orv_tree(seed, scenario, params, suffix)
    seed.params = params
    return seed


def describe():
    """Scenario list with parameters and defaults (for `orvtestbed scenarios`)."""
    out = {}
    for name, sc in SCENARIOS.items():
        params = dict(COMMON_DEFAULTS)
        params.update(sc["defaults"])
        out[name] = {"description": sc["description"], "parameters": params}
    return out


if __name__ == "__main__":
    # orvseed.py SCENARIO SUFFIX [key=value ...] : print the userRoot LDIF
    sc, sfx = sys.argv[1], sys.argv[2]
    kv = dict(a.split("=", 1) for a in sys.argv[3:])
    s = build(sc, sfx, kv)
    for name, text in s.backends.items():
        sys.stdout.write("# backend %s\n%s" % (name, text))


# External-relationship data set (parameter relationships=1): two tools,
# three repositories (application servers whose ids are the repository ids
# of object URNs "urn:morvane:<id>:..."), end types of each rule kind and
# relationship types between them.  For an object of REPO-R1 (tool T1) at
# end A and one of REPO-R2 (tool T2) at end B the valid types are
# TYPE-R1-T2 (by repository and tool) and TYPE-ANY-ANY; the other way round
# TYPE-T2-R1 and TYPE-ANY-ANY.
RELATIONSHIP_TOOLS = {"T1": "1.3.6.1.4.1.47391.3", "T2": "1.3.6.1.4.1.47391.4"}
RELATIONSHIP_REPOSITORIES = [("REPO-R1", "T1"), ("REPO-R2", "T2"), ("REPO-R3", "T1")]
RELATIONSHIP_END_TYPES = [
    # end id, rule type, rule values
    ("END-ANY", "any", ["EMPTY_STRING"]),
    ("END-R1", "repository", ["REPO-R1"]),
    ("END-R3", "repository", ["REPO-R3"]),
    ("END-T1", "tool", [RELATIONSHIP_TOOLS["T1"]]),
    ("END-T2", "tool", [RELATIONSHIP_TOOLS["T2"]]),
]
RELATIONSHIP_TYPES = [
    # type id, end A, end B
    ("TYPE-R1-T2", "END-R1", "END-T2"),
    ("TYPE-T2-R1", "END-T2", "END-R1"),
    ("TYPE-T1-R3", "END-T1", "END-R3"),
    ("TYPE-ANY-ANY", "END-ANY", "END-ANY"),
]


def _relationship_data(parts, suffix):
    for rep_id, tool in RELATIONSHIP_REPOSITORIES:
        parts.append(render("repository-server.ldif.in", {
            "suffix": suffix, "server_id": rep_id, "tool_oid": RELATIONSHIP_TOOLS[tool],
            "description": "repository %s of tool %s" % (rep_id, tool)}))
    rules = {}
    for end_id, rule_type, values in RELATIONSHIP_END_TYPES:
        rules[end_id] = values
        parts.append(render("end-type.ldif.in", {
            "suffix": suffix, "uuid": stable_uuid("end:" + end_id), "end_id": end_id,
            "rule_type": rule_type, "description": "end %s" % end_id, "rule_values": values}))
    for type_id, end_a, end_b in RELATIONSHIP_TYPES:
        parts.append(render("relationship-type.ldif.in", {
            "suffix": suffix, "uuid": stable_uuid("type:" + type_id), "type_id": type_id,
            "name": "%s to %s" % (end_a, end_b), "end_a": end_a, "end_b": end_b,
            "rule_values_a": rules[end_a], "rule_values_b": rules[end_b]}))
