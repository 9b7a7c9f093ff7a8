// shared/zmailer/Secret.h: how the secret that lets the site's own mail
// pass unchecked travels between our programs. Never on a command line
// (/proc/PID/cmdline is readable by every account): in the environment of
// the root filter, which /proc shows to root alone.
#pragma once

// The variable the filter reads the secret from when --hash is not given.
constexpr char SecretVariable[] = "VOREX_ZMAILER_HASH";

// The file the secret is kept in, readable by root alone.
constexpr char SecretFile[] = "/etc/vorex/secure-hash";
