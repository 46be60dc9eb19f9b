#include "tools/velmor/ServerLogin.h"

#include <stdlib.h>

#include "tools/velmor/Terminal.h"

bool ServerLogin::login(const CliOptions& o, ServerClient& client, Str& err) {
  Str base;
  if (!ServerClient::normalizeBase(o.server, base, err)) return false;
  Str user = o.user;
  if (user.empty() && getenv("VELMOR_USER")) user = getenv("VELMOR_USER");
  if (user.empty()) user = "admin";
  Str password = o.password;
  if (password.empty() && getenv("VELMOR_PASSWORD")) password = getenv("VELMOR_PASSWORD");
  if (password.empty()) {
    Str prompt = "Password for " + user + " at " + base + ": ";
    if (!Terminal::isTerminal(0) || !Terminal::readPassword(prompt.c_str(), password)) {
      err = "a password is needed for " + base + ": --password, VELMOR_PASSWORD or a terminal to ask on";
      return false;
    }
  }
  return client.login(user, password, err);
}
