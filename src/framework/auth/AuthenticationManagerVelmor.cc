#include "framework/auth/AuthenticationManagerVelmor.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <sstream>

#include "framework/auth/Rc4Cipher.h"
#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertiesMapConfig.h"
#include "loaderinfo/LoaderInfo.h"
#include "util/Base64.h"
#include "util/Logger.h"

static Logger gLogger("AuthenticationManagerVelmor");

const char* const AuthenticationManagerVelmor::kSalt = "q7Ez!m2Kx";

namespace {

const char* const kSecretAlphabet = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789./";
const char* const kNewFormPrefix = "$1$";

bool readWholeFile(const Pathname& path, Str& out) {
  if (path.isDir()) return false;
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream ss;
  ss << in.rdbuf();
  if (in.bad()) return false;
  out = ss.str();
  return true;
}

// Writes `text` to `path` through a temporary file of mode 0600 and rename
// (or, with `onlyIfAbsent`, link: an existing file is then kept).
bool writeFileAtomically(const Pathname& path, const Str& text, bool onlyIfAbsent = false) {
  static std::atomic<unsigned> counter{0};
  Pathname tmp = path + Str::fromFormat(".tmp.%d.%u", static_cast<int>(getpid()), counter++);
  int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return false;
  bool ok = ::fchmod(fd, 0600) == 0;
  size_t done = 0;
  while (ok && done < text.size()) {
    ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) ok = false;
    else done += static_cast<size_t>(n);
  }
  if (ok) ok = ::fsync(fd) == 0;
  if (::close(fd) != 0) ok = false;
  if (ok && onlyIfAbsent) {
    ok = ::link(tmp.c_str(), path.c_str()) == 0 || errno == EEXIST;
    ::unlink(tmp.c_str());
    return ok;
  }
  if (ok) ok = ::rename(tmp.c_str(), path.c_str()) == 0;
  if (!ok) ::unlink(tmp.c_str());
  return ok;
}

Str joinRoles(const std::vector<Str>& roles) {
  Str out;
  for (const Str& r : roles) {
    if (!out.empty()) out += ';';
    out += r;
  }
  return out;
}

}  // namespace

// --- the cipher --------------------------------------------------------------

void AuthenticationManagerVelmor::saltBytes(char* buf, size_t len, const char* salt) {
  for (size_t i = 0; i < len; ++i) {
    char x = static_cast<char>(buf[i] ^ salt[i % 9]);
    if (x != 0) buf[i] = x;
  }
}

bool AuthenticationManagerVelmor::encryptWithKey(const Str& key, const char* password, const char* salt,
                                                 Str& out) {
  if (key.empty() || key.size() > 256) return false;
  size_t len = strlen(password);
  if (len > MAX_PASSWORD_LEN - 1) return false;
  char buf[MAX_PASSWORD_LEN];
  memset(buf, 0, sizeof buf);
  memcpy(buf, password, len);
  saltBytes(buf, len, salt);
  Str cipher = Rc4Cipher::apply(key, Str(std::string(buf, len)));
  memset(buf, 0, sizeof buf);
  out = kNewFormPrefix + Base64::encode(cipher.data(), cipher.size());
  return true;
}

bool AuthenticationManagerVelmor::decryptWithKey(const Str& key, const Str& stored, const char* salt, Str& out) {
  if (key.empty() || key.size() > 256 || !stored.startswith(kNewFormPrefix)) return false;
  Str cipher;
  if (!Base64::decode(StrSegment(stored.data() + 3, stored.size() - 3), cipher)) return false;
  if (cipher.size() > MAX_PASSWORD_LEN - 1) return false;
  Str plain = Rc4Cipher::apply(key, cipher);
  char buf[MAX_PASSWORD_LEN];
  memset(buf, 0, sizeof buf);
  memcpy(buf, plain.data(), plain.size());
  // A zero byte never comes out of encryption: it marks a damaged text.
  bool ok = memchr(buf, 0, plain.size()) == nullptr;
  if (ok) {
    saltBytes(buf, plain.size(), salt);
    out.assign(buf, plain.size());
  }
  memset(buf, 0, sizeof buf);
  return ok;
}

Str AuthenticationManagerVelmor::passwordHash(const Str& password, const Str& salt) {
  Str text = password + salt;
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  if (EVP_Digest(text.data(), text.size(), md, &len, EVP_sha1(), nullptr) != 1) return Str();
  return Base64::encode(md, len);
}

bool AuthenticationManagerVelmor::Locked_encrypt(const char* password, const char* salt, Str& out) const {
  return encryptWithKey(_key, password, salt, out);
}

bool AuthenticationManagerVelmor::Locked_decrypt(const Str& stored, const char* salt, Str& out) const {
  return decryptWithKey(_key, stored, salt, out);
}

void AuthenticationManagerVelmor::Locked_fillKey() {
  _key.clear();
  if (!_secretFile.exists()) {
    _secretFile.toParent().mkdir_p();
    uint32_t seed = 0;
    if (getrandom(&seed, sizeof seed, 0) != static_cast<ssize_t>(sizeof seed)) {
      gLogger.error("Unable to read the system random source: %m");
    } else {
      uint64_t s = seed & 0x7FFFFFFF;
      Str secret;
      for (int i = 0; i < 254; ++i) {
        s = (s * 1103515245 + 12345) & 0x7FFFFFFF;
        secret += kSecretAlphabet[s % 62];
      }
      secret += '\n';
      if (!writeFileAtomically(_secretFile, secret, true))
        gLogger.error("Unable to write velmor.secret '%s': %m", _secretFile.c_str());
    }
  }
  Str text;
  if (!readWholeFile(_secretFile, text)) {
    gLogger.error("Unable to read velmor.secret '%s' file. Auth is not going to work", _secretFile.c_str());
    return;
  }
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  if (text.size() > 256) text.resize(256);
  if (text.empty()) {
    gLogger.error("Unable to read velmor.secret '%s' file. Auth is not going to work", _secretFile.c_str());
    return;
  }
  _key = text;
}

// --- the user file -----------------------------------------------------------

Str AuthenticationManagerVelmor::checkUserName(const Str& name) {
  if (name.empty() || name.find_first_of(":;\n\r") != Str::npos) return "Invalid username: " + name;
  return Str();
}

size_t AuthenticationManagerVelmor::parseUserLines(const Str& text, UserMap& out, const Str& sourceName) {
  size_t bad = 0;
  size_t lineNo = 0;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == Str::npos) end = text.size();
    Str line = text.substr(start, end - start);
    start = end + 1;
    ++lineNo;
    while (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty()) continue;
    std::vector<Str> f = userInformation::splitFields(line, ':');
    if (f.size() != 6 || line.find('\0') != Str::npos || f[0].empty() || !checkUserName(f[1]).empty() || f[2].empty()) {
      gLogger.warn("Skipping bad line %lu of user file '%s'", static_cast<unsigned long>(lineNo),
                   sourceName.c_str());
      ++bad;
      continue;
    }
    UserRecord r;
    r.info.userId = f[0];
    r.info.username = f[1];
    r.info.password = f[2];
    r.info.realname = f[3];
    if (!f[4].empty())
      for (const Str& role : userInformation::splitFields(f[4], ';'))
        if (!role.empty()) r.info.roles.push_back(role);
    r.salt = f[5];
    out[r.info.username] = std::move(r);
  }
  return bad;
}

Str AuthenticationManagerVelmor::formatUserLine(const UserRecord& r) {
  return r.info.userId + ":" + r.info.username + ":" + r.info.password + ":" + r.info.realname + ":" +
         joinRoles(r.info.roles) + ":" + r.salt + "\n";
}

void AuthenticationManagerVelmor::Locked_userMapFromFile(const Pathname& path) {
  _users.clear();
  if (!path.exists()) return;
  Str text;
  if (!readWholeFile(path, text)) {
    gLogger.error("Unable to read the user file '%s': %m", path.c_str());
    return;
  }
  parseUserLines(text, _users, path);
}

bool AuthenticationManagerVelmor::Locked_writeUserFile(Str& err) {
  Str text;
  for (const auto& [name, r] : _users) {
    (void)name;
    text += formatUserLine(r);
  }
  _userFile.toParent().mkdir_p();
  if (!writeFileAtomically(_userFile, text)) {
    gLogger.error("Unable to write the user file '%s': %m", _userFile.c_str());
    err = "Unable to save the user file";
    return false;
  }
  return true;
}

Str AuthenticationManagerVelmor::Locked_nextUserId() const {
  long top = 0;
  for (const auto& [name, r] : _users) {
    (void)name;
    top = std::max(top, r.info.userId.toLong(0));
  }
  return ToString(top + 1);
}

void AuthenticationManagerVelmor::Locked_seedUsersMap() {
  if (!_users.empty()) return;
  std::unique_ptr<PropertiesMapConfig> conf;
  const PropertiesMap* seed = nullptr;
  if (_seedFile.isFile()) {
    conf = PropertiesMapConfig::fromFile(_seedFile, false);
    if (conf) seed = conf->get("seed", false);
  }
  const char* name = seed ? seed->get("name") : nullptr;
  const char* password = seed ? seed->get("password") : nullptr;
  if (name == nullptr || password == nullptr || *password == '\0') {
    gLogger.error(
        "No user exists and no first user can be made: write '%s' with a [seed] stanza holding the keys "
        "name and password, then restart",
        _seedFile.c_str());
    return;
  }
  Str bad = checkUserName(name);
  if (!bad.empty() || Str(name) == "harriet") {
    gLogger.error("The seed file '%s' names an unusable user: %s", _seedFile.c_str(),
                  bad.empty() ? "Login forbidden for harriet." : bad.c_str());
    return;
  }
  UserRecord r;
  r.info.userId = "1";
  r.info.username = name;
  r.info.realname = "Administrator";
  r.info.roles = {"Admin"};
  if (!Locked_encrypt(password, kSalt, r.info.password)) {
    gLogger.error("Unable to store the password of the seed user '%s'", name);
    return;
  }
  Str seededName = name;
  _users[seededName] = r;
  Str err;
  if (!Locked_writeUserFile(err)) {
    _users.clear();
    return;
  }
  gLogger.info("Removing user-seed.conf '%s' '%s'", _seedFile.c_str(), seededName.c_str());
  if (!_seedFile.unlink()) gLogger.warn("Unable to remove '%s': %m", _seedFile.c_str());
}

// --- construction and the interface -----------------------------------------

AuthenticationManagerVelmor::AuthenticationManagerVelmor(const Pathname& configDir)
    : _configDir(configDir.empty() ? LoaderInfo::getInstance().getCommonConfigPath() : configDir) {
  _userFile = _configDir / "passwd";
  _secretFile = _configDir / "auth" / "velmor.secret";
  _seedFile = _configDir / "bundles" / "local" / "user-seed.conf";
  ScopedLock l(_mutex);
  Locked_fillKey();
  Locked_userMapFromFile(_userFile);
  Locked_seedUsersMap();
}

int AuthenticationManagerVelmor::userLogin(const Str& user, const Str& password, Str& userId, Str& err) {
  if (user == "harriet") {
    err = "Login forbidden for harriet.";
    return 0;
  }
  ScopedLock l(_mutex);
  auto it = _users.find(user);
  if (it == _users.end()) {
    err = "No such user";
    return 0;
  }
  UserRecord& r = it->second;
  if (r.info.password.startswith(kNewFormPrefix)) {
    gLogger.debug("Password is of new type");
    Str plain;
    if (password.empty() || !Locked_decrypt(r.info.password, kSalt, plain) || plain != password) {
      err = "Authentication Failed";
      return 0;
    }
  } else {
    if (password.empty() || passwordHash(password, r.salt) != r.info.password) {
      err = "Authentication Failed";
      return 0;
    }
    gLogger.info("Password for '%s' is in obselete format, migrating to new standard.", user.c_str());
    UserRecord old = r;
    Str stored;
    if (Locked_encrypt(password.c_str(), kSalt, stored)) {
      r.info.password = stored;
      r.salt.clear();
      Str ignored;
      if (!Locked_writeUserFile(ignored)) r = old;
    }
  }
  userId = r.info.userId;
  return 1;
}

int AuthenticationManagerVelmor::getUserInfoByName(const Str& user, userInformation& out) {
  ScopedLock l(_mutex);
  auto it = _users.find(user);
  if (it == _users.end()) return 0;
  out = it->second.info;
  return 1;
}

int AuthenticationManagerVelmor::getUserType(const Str& user, std::set<Str>& roles) {
  ScopedLock l(_mutex);
  auto it = _users.find(user);
  if (it == _users.end()) return 0;
  roles.insert(it->second.info.roles.begin(), it->second.info.roles.end());
  return 1;
}

int AuthenticationManagerVelmor::getUsers(const Str& user, const Str& role, std::vector<userInformation>& out) {
  ScopedLock l(_mutex);
  for (const auto& [name, r] : _users) {
    if (!user.empty() && name != user) continue;
    if (!role.empty() && std::find(r.info.roles.begin(), r.info.roles.end(), role) == r.info.roles.end()) continue;
    out.push_back(r.info);
  }
  return 1;
}

int AuthenticationManagerVelmor::getSearchFilter(const Str&, const Str&, std::set<Str>&) {
  return 1;  // the user file carries no filters; roles do
}

int AuthenticationManagerVelmor::saveUser(const userInformation& info, const Str& password, Str& err) {
  Str bad = checkUserName(info.username);
  if (!bad.empty()) {
    err = bad;
    return 0;
  }
  if (info.username == "harriet") {
    err = "Login forbidden for harriet.";
    return 0;
  }
  for (const Str& role : info.roles)
    if (role.empty() || role.find_first_of(":;\n\r") != Str::npos) {
      err = "Invalid role: " + role;
      return 0;
    }
  if (info.realname.find_first_of(":;\n\r") != Str::npos) {
    err = "Invalid real name: " + info.realname;
    return 0;
  }
  ScopedLock l(_mutex);
  auto it = _users.find(info.username);
  UserRecord r;
  if (it != _users.end()) {
    r = it->second;
  } else {
    if (password.empty()) {
      err = "A new user needs a password";
      return 0;
    }
    r.info.userId = Locked_nextUserId();
    r.info.username = info.username;
  }
  r.info.realname = info.realname;
  r.info.roles = info.roles;
  if (!password.empty()) {
    if (!Locked_encrypt(password.c_str(), kSalt, r.info.password)) {
      err = _key.empty() ? "Auth is not going to work: no key" : "Password too long";
      return 0;
    }
    r.salt.clear();
  }
  UserMap before = _users;
  _users[info.username] = r;
  if (!Locked_writeUserFile(err)) {
    _users.swap(before);
    return 0;
  }
  return 1;
}

int AuthenticationManagerVelmor::changeUserPassword(const Str& user, const Str& password, Str& err) {
  userInformation info;
  if (!getUserInfoByName(user, info)) {
    err = "No such user";
    return 0;
  }
  if (password.empty()) {
    err = "A password must not be empty";
    return 0;
  }
  return saveUser(info, password, err);
}

int AuthenticationManagerVelmor::deleteUser(const Str& user, const Str& /*by*/, Str& err) {
  ScopedLock l(_mutex);
  auto it = _users.find(user);
  if (it == _users.end()) {
    err = "No such user";
    return 0;
  }
  UserRecord removed = it->second;
  _users.erase(it);
  if (!Locked_writeUserFile(err)) {
    _users[user] = removed;
    return 0;
  }
  return 1;
}

int AuthenticationManagerVelmor::getCleartextPassword(const Str& user, Str& out) {
  ScopedLock l(_mutex);
  auto it = _users.find(user);
  if (it == _users.end()) return 0;
  return Locked_decrypt(it->second.info.password, kSalt, out) ? 1 : 0;
}
