#include "framework/auth/AuthenticationManagerLDAP.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ldap.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "AuthTestHome.h"
#include "libbundle/PropertiesMap.h"

extern char** environ;

using authtest::TempDir;
using authtest::writeFile;
using LDAPAuth = AuthenticationManagerLDAP;

namespace {

const char* const kSuffix = "dc=example,dc=test";
const char* const kRootDn = "cn=admin,dc=example,dc=test";
const char* const kRootPw = "rootsecret";

int freePort() {
  int s = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  int port = -1;
  if (::bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
      ::getsockname(s, reinterpret_cast<sockaddr*>(&a), &len) == 0)
    port = ntohs(a.sin_port);
  ::close(s);
  return port;
}

bool canConnect(int port) {
  int s = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool ok = ::connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  ::close(s);
  return ok;
}

// Five people (u1..u5, password "pw-<uid>"), two groups of names by DN and
// one group of names by uid.
std::string directoryLdif() {
  std::string l = "dn: dc=example,dc=test\nobjectClass: dcObject\nobjectClass: organization\no: Example\ndc: example\n\n"
                  "dn: ou=people,dc=example,dc=test\nobjectClass: organizationalUnit\nou: people\n\n"
                  "dn: ou=groups,dc=example,dc=test\nobjectClass: organizationalUnit\nou: groups\n\n";
  for (int i = 1; i <= 5; ++i) {
    std::string uid = "u" + std::to_string(i);
    l += "dn: uid=" + uid + ",ou=people,dc=example,dc=test\nobjectClass: inetOrgPerson\nuid: " + uid +
         "\ncn: User " + std::to_string(i) + "\nsn: " + uid + "\nuserPassword: pw-" + uid + "\n\n";
  }
  l += "dn: cn=admins,ou=groups,dc=example,dc=test\nobjectClass: groupOfNames\ncn: admins\n"
       "member: uid=u1,ou=people,dc=example,dc=test\nmember: uid=u2,ou=people,dc=example,dc=test\n\n"
       "dn: cn=staff,ou=groups,dc=example,dc=test\nobjectClass: groupOfNames\ncn: staff\n"
       "member: uid=u3,ou=people,dc=example,dc=test\nmember: uid=u4,ou=people,dc=example,dc=test\n\n"
       "dn: cn=ops,ou=groups,dc=example,dc=test\nobjectClass: posixGroup\ncn: ops\ngidNumber: 500\n"
       "memberUid: u5\nmemberUid: u1\n\n";
  return l;
}

// A slapd on 127.0.0.1 for the length of a test; stopped (and waited for)
// at scope exit. `reason` says why it is not running.
class Slapd {
 public:
  Slapd() {
    if (access("/usr/sbin/slapd", X_OK) != 0) {
      reason = "/usr/sbin/slapd is not installed";
      return;
    }
    for (const char* s : {"core", "cosine", "inetorgperson", "nis"})
      if (access(("/etc/ldap/schema/" + std::string(s) + ".schema").c_str(), R_OK) != 0) {
        reason = std::string("schema file missing: ") + s + ".schema";
        return;
      }
    (_dir.path() / "db").mkdir_p();
    std::string conf;
    for (const char* s : {"core", "cosine", "inetorgperson", "nis"})
      conf += std::string("include /etc/ldap/schema/") + s + ".schema\n";
    if (access("/usr/lib/ldap/back_mdb.so", R_OK) == 0) conf += "modulepath /usr/lib/ldap\nmoduleload back_mdb\n";
    conf += "pidfile " + _dir.path() + "/slapd.pid\n"
            "database mdb\nmaxsize 10485760\nsuffix \"" + kSuffix + "\"\nrootdn \"" + kRootDn + "\"\n"
            "rootpw " + kRootPw + "\ndirectory " + _dir.path() + "/db\n";
    writeFile(_dir.path() / "slapd.conf", conf);
    port = freePort();
    std::string url = "ldap://127.0.0.1:" + std::to_string(port) + "/";
    std::string confPath = _dir.path() / "slapd.conf";
    std::vector<std::string> args{"/usr/sbin/slapd", "-d", "0", "-f", confPath, "-h", url};
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    if (posix_spawn(&_pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
      _pid = -1;
      reason = "slapd could not be started";
      return;
    }
    for (int i = 0; i < 200 && !canConnect(port); ++i) {
      int st;
      if (waitpid(_pid, &st, WNOHANG) == _pid) {
        _pid = -1;
        reason = "slapd exited at start (its configuration or modules are not usable here)";
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (!canConnect(port)) {
      reason = "slapd did not start listening";
      return;
    }
    writeFile(_dir.path() / "data.ldif", directoryLdif());
    std::string add = "ldapadd -x -H " + url + " -D '" + kRootDn + "' -w " + kRootPw + " -f " +
                      (_dir.path() / "data.ldif") + " >/dev/null 2>&1";
    if (system(add.c_str()) != 0) reason = "ldapadd could not load the directory";
  }
  ~Slapd() {
    if (_pid > 0) {
      ::kill(_pid, SIGKILL);
      int st;
      waitpid(_pid, &st, 0);
    }
  }
  bool running() const { return reason.empty(); }

  ldapConfig config() const {
    ldapConfig c;
    c.host = "127.0.0.1";
    c.port = port;
    c.bindDN = kRootDn;
    c.bindDNpassword = kRootPw;
    c.userBaseDN = "ou=people,dc=example,dc=test";
    c.userBaseFilter = "(objectclass=inetOrgPerson)";
    c.groupBaseDN = "ou=groups,dc=example,dc=test";
    c.groupBaseFilter = "(objectclass=groupOfNames)";
    c.failsafeLogin = "rescue";
    c.failsafePassword = "rescue-pw";
    c.pageSize = 2;
    c.timeoutSeconds = 5;
    return c;
  }

  std::string reason;
  int port = -1;

 private:
  TempDir _dir;
  pid_t _pid = -1;
};

LDAPAuth::RoleMap roles() { return {{"Admin", {"admins"}}, {"user", {"staff", "admins"}}, {"ops", {"ops"}}}; }

}  // namespace

TEST(AuthenticationManagerLDAP, ConfigFromStanza) {
  PropertiesMap s;
  ldapConfig c;
  Str err;
  EXPECT_FALSE(ldapConfig::fromStanza(s, c, err));
  s.put("host", "ldap.example.test");
  s.put("userBaseDN", "ou=people,dc=example,dc=test");
  s.put("bindDN", "cn=reader");
  EXPECT_FALSE(ldapConfig::fromStanza(s, c, err));
  EXPECT_EQ(err, "No bind password set");
  s.put("bindDNpassword", "x");
  s.put("SSLEnabled", "true");
  s.put("pageSize", "0");
  ASSERT_TRUE(ldapConfig::fromStanza(s, c, err)) << err;
  EXPECT_EQ(c.port, 636) << "SSL without a port uses the SSL port";
  EXPECT_EQ(c.pageSize, 1);

  PropertiesMap rm;
  rm.put("Admin", "admins; ops ;");
  rm.put("user", "staff");
  LDAPAuth::RoleMap m = LDAPAuth::roleMapFromStanza(&rm);
  EXPECT_EQ(m["Admin"], (std::vector<Str>{"admins", "ops"}));
  EXPECT_EQ(m["user"], std::vector<Str>{"staff"});
  EXPECT_TRUE(LDAPAuth::roleMapFromStanza(nullptr).empty());
}

TEST(AuthenticationManagerLDAP, FilterValuesAreEscaped) {
  struct Case {
    const char* in;
    const char* out;
  } cases[] = {{"alice", "alice"}, {"*", "\\2a"}, {"a)(uid=*", "a\\29\\28uid=\\2a"}, {"back\\slash", "back\\5cslash"}};
  for (const Case& c : cases) EXPECT_EQ(LDAPAuth::escapeFilterValue(c.in), c.out) << c.in;
}

TEST(AuthenticationManagerLDAP, FailsafeWorksWithoutTheServer) {
  ldapConfig c;
  c.host = "127.0.0.1";
  c.port = freePort();  // nothing listens there
  c.bindDN = kRootDn;
  c.bindDNpassword = kRootPw;
  c.userBaseDN = "ou=people,dc=example,dc=test";
  c.failsafeLogin = "rescue";
  c.failsafePassword = "rescue-pw";
  c.timeoutSeconds = 2;
  LDAPAuth m(c, {});
  Str id, err;
  EXPECT_EQ(m.userLogin("rescue", "rescue-pw", id, err), 1) << err;
  EXPECT_EQ(m.userLogin("rescue", "nope", id, err), 0);
  EXPECT_EQ(err, "Failsafe user authentication failed.");
  EXPECT_EQ(m.userLogin("u1", "pw-u1", id, err), 0);
  EXPECT_EQ(err, "Authentication Failed");
  userInformation info;
  ASSERT_EQ(m.getUserInfoByName("rescue", info), 1);
  EXPECT_EQ(info.roles, std::vector<Str>{"Admin"});

  c.failsafePassword = "";
  LDAPAuth noPassword(c, {});
  EXPECT_EQ(noPassword.userLogin("rescue", "", id, err), 0);
  EXPECT_EQ(err, "No failsafe password set, empty passwords are not allowed.");
}

TEST(AuthenticationManagerLDAP, AgainstARealDirectory) {
  Slapd slapd;
  if (!slapd.running()) GTEST_SKIP() << slapd.reason;
  LDAPAuth m(slapd.config(), roles());
  EXPECT_EQ(m.getAuthSystem(), "LDAP");

  struct Case {
    const char* user;
    const char* password;
    int result;
    const char* err;
  } logins[] = {
      {"u1", "pw-u1", 1, ""},
      {"u3", "pw-u3", 1, ""},
      {"u1", "pw-u3", 0, "Authentication Failed"},
      {"u1", "", 0, "Authentication Failed"},  // an anonymous bind must not pass
      {"nobody", "pw", 0, "No such user"},
      {"*", "pw-u1", 0, "No such user"},       // no wildcard reaches the filter
      {"rescue", "rescue-pw", 1, ""},
      {"harriet", "x", 0, "Login forbidden for harriet."},
  };
  for (const Case& c : logins) {
    Str id, err;
    EXPECT_EQ(m.userLogin(c.user, c.password, id, err), c.result) << c.user << "/" << c.password;
    EXPECT_EQ(err, c.err) << c.user;
    if (c.result) {
      EXPECT_EQ(id, c.user);
    }
  }

  // Five people in pages of two: three pages.
  LDAP* ld = m.bind("127.0.0.1", kRootDn, kRootPw, slapd.port, false, false);
  ASSERT_NE(ld, nullptr);
  std::vector<LDAPAuth::Entry> people;
  EXPECT_TRUE(m.ldapSearch(ld, "ou=people,dc=example,dc=test", "(uid=*)", {"uid"}, people));
  ldap_unbind_ext_s(ld, nullptr, nullptr);
  EXPECT_EQ(people.size(), 5u);
  EXPECT_EQ(m.lastPageCount(), 3);
  EXPECT_EQ(m.bind("127.0.0.1", kRootDn, "wrong", slapd.port, false, false), nullptr);

  ASSERT_TRUE(m.syncWithLDAP());
  std::vector<userInformation> all;
  ASSERT_EQ(m.getUsers("", "", all), 1);
  EXPECT_EQ(all.size(), 5u);
  struct RoleCase {
    const char* user;
    std::set<Str> roles;
  } roleCases[] = {
      {"u1", {"Admin", "user"}}, {"u2", {"Admin", "user"}}, {"u3", {"user"}}, {"u5", {}},
  };
  for (const RoleCase& c : roleCases) {
    std::set<Str> got;
    ASSERT_EQ(m.getUserType(c.user, got), 1) << c.user;
    EXPECT_EQ(got, c.roles) << c.user;
  }
  userInformation info;
  ASSERT_EQ(m.getUserInfoByName("u4", info), 1);
  EXPECT_EQ(info.realname, "User 4");
  EXPECT_EQ(m.getUserInfoByName("nobody", info), 0);
  std::vector<userInformation> admins;
  m.getUsers("", "Admin", admins);
  EXPECT_EQ(admins.size(), 2u);

  Str err;
  EXPECT_EQ(m.saveUser(info, "pw", err), 0);
  EXPECT_EQ(err, "LDAP Authentication module does not support updates.");
  EXPECT_EQ(m.deleteUser("u4", "admin", err), 0);
  EXPECT_EQ(err, "LDAP Authentication module does not support updates.");

  // Groups that name their members by uid.
  ldapConfig byUid = slapd.config();
  byUid.groupBaseFilter = "(objectclass=posixGroup)";
  byUid.groupMemberAttribute = "memberUid";
  byUid.groupMappingAttribute = "uid";
  LDAPAuth posix(byUid, roles());
  std::set<Str> got;
  ASSERT_EQ(posix.getUserType("u5", got), 1);
  EXPECT_EQ(got, std::set<Str>{"ops"});
  got.clear();
  ASSERT_EQ(posix.getUserType("u3", got), 1);
  EXPECT_TRUE(got.empty());
}
