// remote_policy.h - whether config.ini permits NM the tunnel that it asks for. No state; blocks only in the look-up
// that the caller gives. Any thread. allow_hosts lists the permitted tunnel ends, separated by blanks:
// - an IPv4 address, or a network as address/prefix whose bits behind the prefix are 0: permits the address;
// - a name: permits a tunnel end that NM names identically (in any case of letters), and every address that the name
//   has now. A name that has none permits no address.
// One entry of another form makes the list invalid, which permits nothing.
#pragma once

#include <netinet/in.h>

#include "runtime/options.h"

// address is one of those that name has now.
typedef bool (*PolicyLookup)(const char *name, const struct in_addr *address);

// service is the key of the tunnel's kind (policy->web or policy->telnet), host is how NM names the tunnel end, address
// what the agent would connect to, in dotted form. Null when permitted, else the reason, a static text; for an invalid
// list also an error line. Names are looked up in their order, and only when nothing else permits the tunnel end.
const char *remote_policy_judge(const RemoteAccessOptions *policy, int32_t service, const char *host,
                                const char *address, PolicyLookup lookup);
