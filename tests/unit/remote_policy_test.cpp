#include "remote/remote_policy.h"

#include <arpa/inet.h>
#include <sstream>

#include "support.h"

static std::string s_looked_up; // separated by blanks

// What names have: "nm.example" two addresses, "gone.example" none.
static bool lookup(const char *name, const struct in_addr *address)
{
    s_looked_up += (s_looked_up.empty() ? "" : " ") + std::string(name);
    const std::string text = inet_ntoa(*address);
    return std::string(name) == "nm.example" && (text == "10.1.2.3" || text == "10.1.2.4");
}

static const std::string k_longest(253, 'n');

static const char *judge(const std::string &allow_hosts, const char *host, const char *address)
{
    RemoteAccessOptions policy = {};
    (void)text_set(policy.allow_hosts, allow_hosts.c_str());
    s_looked_up.clear();
    return remote_policy_judge(&policy, 1, host, address, lookup);
}

TEST(RemotePolicy, AllowHosts)
{
    std::vector<Texts> rows = examples("allow-hosts");
    rows.push_back({k_longest, k_longest, "192.0.2.1", "yes", ""});
    for (const Texts &row : rows) {
        SCOPED_TRACE(row[0] + " for " + row[1] + " (" + row[2] + ")");
        EXPECT_STREQ(row[3] == "yes" ? nullptr : "the tunnel end is not in allow_hosts",
                     judge(row[0], row[1].c_str(), row[2].c_str()));
        EXPECT_EQ(row[4], s_looked_up);
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
