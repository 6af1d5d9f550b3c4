// Process entry of proxy_pluginctl: the arguments.
#include "ctl/ctl.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

constexpr int STATUS_USAGE = 64;
static const char k_packaged_config[] = "/etc/proxy_plugin/config.ini";

static const char k_usage[] = "usage: proxy_pluginctl status [--json] [--config FILE]\n"
                              "       proxy_pluginctl check [--config FILE]\n"
                              "       proxy_pluginctl --version | --help\n";
static const char k_help[] = "\n"
                             "status  shows how the agent fares, from the state file that its config.ini names.\n"
                             "        Exit status: 0 online, 1 not online, 2 no agent or a stuck one.\n"
                             "check   reads config.ini and the init cfg as the agent does and says what is wrong.\n"
                             "        Exit status: 0 fine, 1 warnings, 2 the agent would not come online.\n"
                             "FILE    the agent's config.ini; when not said, the one of this directory or else\n"
                             "        /etc/proxy_plugin/config.ini\n";

static int usage_fail(void)
{
    fputs(k_usage, stderr);
    return STATUS_USAGE;
}

struct Arguments {
    const char *command;
    const char *config;
    bool as_json;
};

// 0, or -1 for arguments that make no sense.
static int arguments_read(int argc, char **argv, Arguments *arguments)
{
    *arguments = {argv[1], nullptr, false};
    for (int i = 2; i < argc; i++) {
        if (strcmp(argv[i], "--json") == 0 && strcmp(argv[1], "status") == 0)
            arguments->as_json = true;
        else if (strcmp(argv[i], "--config") == 0 && i + 1 < argc)
            arguments->config = argv[++i];
        else
            return -1;
    }
    if (!arguments->config)
        arguments->config = access("config.ini", F_OK) == 0 ? "config.ini" : k_packaged_config;
    return 0;
}

int main(int argc, char **argv)
{
    Arguments arguments;
    if (argc < 2 || arguments_read(argc, argv, &arguments) != 0)
        return usage_fail();
    if (strcmp(arguments.command, "status") == 0)
        return ctl_status(arguments.config, arguments.as_json);
    if (strcmp(arguments.command, "check") == 0)
        return ctl_check(arguments.config);
    if (strcmp(arguments.command, "--version") == 0)
        return printf("proxy_pluginctl %s\n", CTL_VERSION) < 0;
    if (strcmp(arguments.command, "--help") == 0)
        return printf("%s%s", k_usage, k_help) < 0;
    return usage_fail();
}
