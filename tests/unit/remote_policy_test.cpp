#include "remote/remote_policy.h"

#include <arpa/inet.h>

#include "support.h"

static Texts s_looked_up;

// What names have: "nm.example" two addresses, "gone.example" none.
static bool lookup(const char *name, const struct in_addr *address)
{
    s_looked_up.push_back(name);
    const std::string text = inet_ntoa(*address);
    return std::string(name) == "nm.example" && (text == "10.1.2.3" || text == "10.1.2.4");
}

static const char k_not_in[] = "the tunnel end is not in allow_hosts";
static const char k_bad_entry[] = "allow_hosts has a bad entry";

TEST(RemotePolicy, AllowHosts)
{
    const std::string longest(253, 'n');
    const struct {
        std::string allow_hosts;
        const char *host, *address;
        const char *refusal; // null: permitted
        Texts looked_up;
    } rows[] = {
        {"", "any.example", "192.0.2.1", nullptr, {}},
        {"10.1.2.3", "10.1.2.3", "10.1.2.3", nullptr, {}},
        {"10.1.2.3", "nm.example", "10.1.2.3", nullptr, {}}, // the address counts, however NM names it
        {"10.1.2.3", "10.1.2.3", "10.1.2.4", k_not_in, {}},  // not the text, when the resolver says otherwise
        {"10.0.0.1 \t 10.1.2.3 ", "x", "10.1.2.3", nullptr, {}},
        // networks, both sides of each border
        {"10.1.2.0/24", "x", "10.1.2.0", nullptr, {}},
        {"10.1.2.0/24", "x", "10.1.2.255", nullptr, {}},
        {"10.1.2.0/24", "x", "10.1.3.0", k_not_in, {}},
        {"10.1.2.0/24", "x", "10.1.1.255", k_not_in, {}},
        {"10.1.2.2/31", "x", "10.1.2.3", nullptr, {}},
        {"10.1.2.2/31", "x", "10.1.2.4", k_not_in, {}},
        {"10.1.2.3/32", "x", "10.1.2.3", nullptr, {}},
        {"10.1.2.3/32", "x", "10.1.2.2", k_not_in, {}},
        {"128.0.0.0/1", "x", "255.255.255.255", nullptr, {}},
        {"128.0.0.0/1", "x", "127.255.255.255", k_not_in, {}},
        {"0.0.0.0/0", "x", "203.0.113.9", nullptr, {}},
        // names
        {"NM.example", "nm.EXAMPLE", "192.0.2.1", nullptr, {}}, // named identically: the agent has just resolved it
        {"nm.example", "10.1.2.4", "10.1.2.4", nullptr, {"nm.example"}},
        {"nm.example", "other.example", "10.1.2.4", nullptr, {"nm.example"}},
        {"nm.example", "nm.example.evil.example", "192.0.2.1", k_not_in, {"nm.example"}},
        {"gone.example", "10.1.2.3", "10.1.2.3", k_not_in, {"gone.example"}},
        {"gone.example nm.example", "10.1.2.3", "10.1.2.3", nullptr, {"gone.example", "nm.example"}},
        {"gone.example 10.1.2.3", "10.1.2.3", "10.1.2.3", nullptr, {}}, // no look-up is needed
        {longest, longest.c_str(), "192.0.2.1", nullptr, {}},
        // a bad entry refuses everything, wherever it stands
        {"10.1.2.3 10.1.2", "10.1.2.3", "10.1.2.3", k_bad_entry, {}},
        {"10.1.2.3/24 10.1.2.3", "10.1.2.3", "10.1.2.3", k_bad_entry, {}}, // bits behind the prefix
        {"0.0.0.0/33", "x", "10.1.2.3", k_bad_entry, {}},
        {"0.0.0.0/", "x", "10.1.2.3", k_bad_entry, {}},
        {"0.0.0.0/-1", "x", "10.1.2.3", k_bad_entry, {}},
        {"0.0.0.0/000", "x", "10.1.2.3", k_bad_entry, {}},
        {"0.0.0.0/0/0", "x", "10.1.2.3", k_bad_entry, {}},
        {"/0", "x", "10.1.2.3", k_bad_entry, {}},
        {"010.1.2.3", "x", "10.1.2.3", k_bad_entry, {}}, // octal to some readers
        {"10.1.2.256", "x", "10.1.2.3", k_bad_entry, {}},
        {"10.1.2.3,10.1.2.4", "x", "10.1.2.3", k_bad_entry, {}},
        {"nm.example/24", "nm.example", "10.1.2.3", k_bad_entry, {}},
        {"*", "x", "10.1.2.3", k_bad_entry, {}},
        {"::1", "x", "10.1.2.3", k_bad_entry, {}},
        {longest + "n", "x", "10.1.2.3", k_bad_entry, {}},
        {"  ", "x", "10.1.2.3", k_bad_entry, {}},
        {"10.1.2.3", "x", "", "the tunnel end has no address", {}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.allow_hosts + " for " + row.host + " (" + row.address + ")");
        LogLines log;
        RemoteAccessOptions policy = {};
        (void)text_set(policy.allow_hosts, row.allow_hosts.c_str());
        s_looked_up.clear();
        const char *refusal = remote_policy_judge(&policy, 1, row.host, row.address, lookup);
        EXPECT_STREQ(row.refusal, refusal);
        EXPECT_EQ(row.looked_up, s_looked_up);
        EXPECT_EQ(row.refusal == k_bad_entry && row.allow_hosts != "  " ? 1 : 0,
                  log.count("[ERR] Key: remote_access:allow_hosts has a bad entry: "));
    }
}

TEST(RemotePolicy, SwitchesAndBadValues)
{
    RemoteAccessOptions policy = {};
    EXPECT_STREQ(nullptr, remote_policy_judge(&policy, 1, "x", "10.1.2.3", lookup));
    EXPECT_STREQ("the service is switched off", remote_policy_judge(&policy, 0, "x", "10.1.2.3", lookup));
    policy.is_unusable = true;
    EXPECT_STREQ("the policy cannot be used", remote_policy_judge(&policy, 1, "x", "10.1.2.3", lookup));
}
