// zemctl keygen: writes a new random cluster key file of mode 0600; `name`
// empty means the default under the platform's root, a relative name is
// taken under the root. Refuses to replace a file unless `force`.
#pragma once

#include <string>

int cmd_keygen(const std::string &name, bool force);
