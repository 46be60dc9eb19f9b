// ServerLogin: a logged-in ServerClient for the --server options: the user
// from --user, else VELMOR_USER, else "admin"; the password from
// --password, else VELMOR_PASSWORD, else asked on the terminal without
// echo (no terminal: an error).
//
// One thread.
#pragma once

#include "tools/velmor/CliOptions.h"
#include "tools/velmor/ServerClient.h"

class ServerLogin {
 public:
  // False with `err` when the URL is bad, no password can be had, or the
  // login fails.
  static bool login(const CliOptions& o, ServerClient& client, Str& err);
};
