#include "remote/remote_policy.h"

#include <arpa/inet.h>
#include <sstream>

#include "support.h"

static Texts s_looked_up;

// What names have: "nm.example" two addresses, "gone.example" none.
static bool lookup(const char *name, const struct in_addr *address)
{
    s_looked_up.push_back(name);
    const std::string text = inet_ntoa(*address);
    return std::string(name) == "nm.example" && (text == "10.1.2.3" || text == "10.1.2.4");
}

static const std::string k_longest(253, 'n');

static const struct {
    std::string allow_hosts;
    const char *host, *address;
    bool is_permitted;
    Texts looked_up;
} k_rows[] = {
    {"", "any.example", "192.0.2.1", true, {}},
    {"10.1.2.3", "nm.example", "10.1.2.3", true, {}}, // the address counts, however NM names it
    {"10.1.2.3", "10.1.2.3", "10.1.2.4", false, {}},  // not the text, when the resolver says otherwise
    {"10.0.0.1 \t 10.1.2.3 ", "x", "10.1.2.3", true, {}},
    // networks, both sides of each border
    {"10.1.2.0/24", "x", "10.1.2.0", true, {}},
    {"10.1.2.0/24", "x", "10.1.2.255", true, {}},
    {"10.1.2.0/24", "x", "10.1.3.0", false, {}},
    {"10.1.2.0/24", "x", "10.1.1.255", false, {}},
    {"10.1.2.2/31", "x", "10.1.2.3", true, {}},
    {"10.1.2.2/31", "x", "10.1.2.4", false, {}},
    {"10.1.2.3/32", "x", "10.1.2.3", true, {}},
    {"10.1.2.3/32", "x", "10.1.2.2", false, {}},
    {"128.0.0.0/1", "x", "255.255.255.255", true, {}},
    {"128.0.0.0/1", "x", "127.255.255.255", false, {}},
    {"0.0.0.0/0", "x", "203.0.113.9", true, {}},
    // names
    {"NM.example", "nm.EXAMPLE", "192.0.2.1", true, {}}, // named identically: the agent has just resolved it
    {"nm.example", "other.example", "10.1.2.4", true, {"nm.example"}},
    {"nm.example", "nm.example.evil.example", "192.0.2.1", false, {"nm.example"}},
    {"gone.example nm.example", "10.1.2.3", "10.1.2.3", true, {"gone.example", "nm.example"}},
    {"gone.example 10.1.2.3", "10.1.2.3", "10.1.2.3", true, {}}, // no look-up is needed
    {k_longest, k_longest.c_str(), "192.0.2.1", true, {}},
};

static const char *judge(const std::string &allow_hosts, const char *host, const char *address)
{
    RemoteAccessOptions policy = {};
    (void)text_set(policy.allow_hosts, allow_hosts.c_str());
    s_looked_up.clear();
    return remote_policy_judge(&policy, 1, host, address, lookup);
}

TEST(RemotePolicy, AllowHosts)
{
    for (const auto &row : k_rows) {
        SCOPED_TRACE(row.allow_hosts + " for " + row.host + " (" + row.address + ")");
        EXPECT_STREQ(row.is_permitted ? nullptr : "the tunnel end is not in allow_hosts",
                     judge(row.allow_hosts, row.host, row.address));
        EXPECT_EQ(row.looked_up, s_looked_up);
    }
    EXPECT_STREQ("the tunnel end has no address", judge("10.1.2.3", "x", ""));
}

// It refuses everything, wherever it stands. "10.1.2.3/24" has bits behind the prefix, "010" is octal to some readers.
TEST(RemotePolicy, BadEntry)
{
    std::istringstream entries("10.1.2 10.1.2.3/24 0.0.0.0/33 0.0.0.0/ 0.0.0.0/-1 0.0.0.0/000 0.0.0.0/0/0 /0 010.1.2.3 "
                               "10.1.2.256 10.1.2.3,10.1.2.4 nm.example/24 * ::1 n" +
                               k_longest);
    for (std::string bad; entries >> bad;) {
        LogLines log;
        for (const std::string &list : {bad + " 10.1.2.3", "10.1.2.3 " + bad})
            EXPECT_STREQ("allow_hosts has a bad entry", judge(list, "x", "10.1.2.3")) << list;
        EXPECT_EQ(2, log.count("[ERR] Key: remote_access:allow_hosts has a bad entry: " + bad + "\n")) << bad;
    }
    EXPECT_STREQ("allow_hosts has a bad entry", judge("  ", "x", "10.1.2.3"));
}

TEST(RemotePolicy, SwitchesAndBadValues)
{
    RemoteAccessOptions policy = {};
    EXPECT_STREQ("the service is switched off", remote_policy_judge(&policy, 0, "x", "10.1.2.3", lookup));
    policy.is_unusable = true;
    EXPECT_STREQ("the policy cannot be used", remote_policy_judge(&policy, 1, "x", "10.1.2.3", lookup));
}
