#include "remote/remote_policy.h"

#include <arpa/inet.h>
#include <string.h>
#include <strings.h>

#include "runtime/log.h"
#include "runtime/text.h"

static const char k_blanks[] = " \t";
static const char k_digits[] = "0123456789";
static const char k_name_characters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-._";
constexpr size_t NAME_MAX_LEN = 253; // of a host name

enum HostKind { HOST_BAD, HOST_NET, HOST_NAME };

// One entry of allow_hosts.
struct HostEntry {
    HostKind kind;
    struct in_addr net, mask;    // network byte order; mask is all ones for an address
    char text[NAME_MAX_LEN + 2]; // a longer entry is truncated, and bad
};

// 0 to 32; -1 for anything else.
static int prefix_parse(const char *text)
{
    size_t len = strlen(text);
    if (len < 1 || len > 2 || strspn(text, k_digits) != len)
        return -1;
    int bits = 0;
    for (const char *c = text; *c; c++)
        bits = bits * 10 + (*c - '0');
    return bits <= 32 ? bits : -1;
}

static bool net_parse(HostEntry *entry)
{
    char address[INET_ADDRSTRLEN];
    const char *slash = strchr(entry->text, '/');
    size_t len = slash ? (size_t)(slash - entry->text) : strlen(entry->text);
    int bits = slash ? prefix_parse(slash + 1) : 32;
    if (bits < 0 || len >= sizeof(address))
        return false;
    memcpy(address, entry->text, len);
    address[len] = '\0';
    if (inet_pton(AF_INET, address, &entry->net) != 1)
        return false;
    entry->mask.s_addr = bits == 0 ? 0 : htonl(~(uint32_t)0 << (32 - bits));
    return (entry->net.s_addr & ~entry->mask.s_addr) == 0;
}

static HostKind entry_parse(HostEntry *entry)
{
    size_t len = strlen(entry->text);
    if (strspn(entry->text, "0123456789./") == len)
        return net_parse(entry) ? HOST_NET : HOST_BAD;
    bool is_name = len <= NAME_MAX_LEN && strspn(entry->text, k_name_characters) == len;
    return is_name ? HOST_NAME : HOST_BAD;
}

// The entry behind *list, which moves on. False at the end.
static bool entry_next(const char **list, HostEntry *entry)
{
    *list += strspn(*list, k_blanks);
    size_t len = strcspn(*list, k_blanks);
    if (len == 0)
        return false;
    size_t kept = len < sizeof(entry->text) ? len : sizeof(entry->text) - 1;
    memcpy(entry->text, *list, kept);
    entry->text[kept] = '\0';
    *list += len;
    entry->kind = entry_parse(entry);
    return true;
}

// Blanks alone are no list either.
static bool list_is_valid(const char *list)
{
    HostEntry entry;
    int count = 0;
    while (entry_next(&list, &entry)) {
        count++;
        if (entry.kind == HOST_BAD) {
            log_error("Key: remote_access:allow_hosts has a bad entry: %s", entry.text);
            return false;
        }
    }
    return count > 0;
}

// By what the entries say themselves.
static bool list_permits(const char *list, const char *host, struct in_addr address)
{
    HostEntry entry;
    while (entry_next(&list, &entry)) {
        bool is_in = entry.kind == HOST_NET ? (address.s_addr & entry.mask.s_addr) == entry.net.s_addr
                                            : strcasecmp(entry.text, host) == 0;
        if (is_in)
            return true;
    }
    return false;
}

// By the addresses that the names have now.
static bool names_permit(const char *list, struct in_addr address, PolicyLookup lookup)
{
    HostEntry entry;
    while (entry_next(&list, &entry)) {
        if (entry.kind == HOST_NAME && lookup(entry.text, &address))
            return true;
    }
    return false;
}

const char *remote_policy_judge(const RemoteAccessOptions *policy, int32_t service, const char *host,
                                const char *address, PolicyLookup lookup)
{
    struct in_addr end;
    if (policy->is_unusable)
        return "the policy cannot be used";
    if (service != 1)
        return "the service is switched off";
    if (policy->allow_hosts[0] == '\0')
        return nullptr;
    if (!list_is_valid(policy->allow_hosts))
        return "allow_hosts has a bad entry";
    if (inet_pton(AF_INET, address, &end) != 1)
        return "the tunnel end has no address";
    if (list_permits(policy->allow_hosts, host, end) || names_permit(policy->allow_hosts, end, lookup))
        return nullptr;
    return "the tunnel end is not in allow_hosts";
}
